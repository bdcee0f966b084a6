#include "file_rules.h"

#include <sys/fanotify.h>
#include <sys/inotify.h>

#include <algorithm>
#include <iterator>
#include <utility>
#include <vector>

namespace {

struct EventName {
    const char* name;
    std::uint32_t mask;
};

constexpr EventName kWatchEvents[] = {
    {"create", IN_CREATE}, {"delete", IN_DELETE}, {"rename", IN_MOVE}, {"write", IN_CLOSE_WRITE},
    {"modify", IN_MODIFY}, {"attrib", IN_ATTRIB}, {"open", IN_OPEN},   {"access", IN_ACCESS},
};
constexpr EventName kGuardEvents[] = {
    {"open", FAN_OPEN},
    {"access", FAN_ACCESS},
    {"modify", FAN_MODIFY},
    {"write", FAN_CLOSE_WRITE},
};
constexpr std::uint32_t kWatchDefault = IN_CREATE | IN_DELETE | IN_MOVE | IN_CLOSE_WRITE | IN_ATTRIB;
constexpr std::uint32_t kGuardDefault = FAN_OPEN | FAN_MODIFY;

std::vector<std::string> Split(const std::string& text, char separator)
{
    std::vector<std::string> parts;
    for (std::size_t start = 0; start <= text.size();) {
        const std::size_t end = std::min(text.find(separator, start), text.size());
        parts.push_back(text.substr(start, end - start));
        start = end + 1;
    }
    return parts;
}

// The part of an option behind its name; false for another option.
bool TakeOption(const std::string& option, const std::string& name, std::string& value)
{
    const bool matches = option.compare(0, name.size(), name) == 0;
    if (matches) {
        value = option.substr(name.size());
    }
    return matches;
}

template <std::size_t kCount>
std::string ParseEvents(const std::string& text, const EventName (&known)[kCount], std::uint32_t& mask)
{
    mask = 0;
    for (const std::string& name : Split(text, ',')) {
        std::uint32_t found = 0;
        for (const EventName& event : known) {
            found |= name == event.name ? event.mask : 0;
        }
        if (found == 0) {
            return "has an unknown event '" + name + "'";
        }
        mask |= found;
    }
    return {};
}

template <std::size_t kCount>
std::string Names(std::uint64_t mask, const EventName (&known)[kCount])
{
    std::string names;
    for (const EventName& event : known) {
        if ((mask & event.mask) != 0) {
            names.append(names.empty() ? "" : ",").append(event.name);
        }
    }
    return names;
}

std::string CheckPath(const std::string& path)
{
    for (const char byte : path) {
        if (static_cast<unsigned char>(byte) < ' ') {  // a carriage return, say
            return "holds a control character";
        }
    }
    return path.empty() || path[0] != '/' ? "is not an absolute path" : "";
}

}  // namespace

std::string ParseWatch(const std::string& text, NEUtils::Monitor::FileWatchRule& rule)
{
    std::vector<std::string> parts = Split(text, ';');
    rule.path = std::move(parts[0]);
    rule.mask = kWatchDefault;
    std::string fault = CheckPath(rule.path);
    for (std::size_t i = 1; i < parts.size() && fault.empty(); ++i) {
        std::string value;
        if (parts[i] == "recursive") {
            rule.recursive = true;
        } else if (TakeOption(parts[i], "events=", value)) {
            fault = ParseEvents(value, kWatchEvents, rule.mask);
        } else if (TakeOption(parts[i], "exclude=", value)) {
            rule.excludes = Split(value, ',');
        } else {
            fault = "has an unknown option '" + parts[i] + "'";
        }
    }
    return fault;
}

std::string ParseGuard(const std::string& text, FileGuard& guard)
{
    const std::vector<std::string> parts = Split(text, ';');
    guard.path = parts[0];
    guard.mask = kGuardDefault;
    std::string fault = CheckPath(guard.path);
    for (std::size_t i = 1; i < parts.size() && fault.empty(); ++i) {
        std::string value;
        fault = TakeOption(parts[i], "events=", value) ? ParseEvents(value, kGuardEvents, guard.mask)
                                                       : "has an unknown option '" + parts[i] + "'";
    }
    return fault;
}

std::string WatchEventNames(std::uint32_t mask)
{
    return Names(mask, kWatchEvents);
}

std::string GuardEventNames(std::uint64_t mask)
{
    return Names(mask, kGuardEvents);
}
