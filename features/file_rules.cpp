#include "file_rules.h"

#include <fnmatch.h>
#include <sys/fanotify.h>
#include <sys/inotify.h>

#include <algorithm>
#include <iterator>
#include <utility>
#include <vector>

#include "util/text.h"

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

std::vector<std::string> Split(const std::string& text, const char* separator)
{
    return NEUtils::StringProcess::StrSplit(text, separator);
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
    for (const std::string& name : Split(text, ",")) {
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

// The parts of an absolute path; none of "/".
std::vector<std::string> PartsOf(const std::string& path)
{
    std::vector<std::string> parts = Split(path, "/");
    parts.erase(std::remove(parts.begin(), parts.end(), ""), parts.end());
    return parts;
}

bool IsBelow(const std::string& pattern, const std::string& path)
{
    const std::vector<std::string> patterns = PartsOf(pattern);
    const std::vector<std::string> parts = PartsOf(path);
    const auto matches = [](const std::string& part, const std::string& wanted) {
        return fnmatch(wanted.c_str(), part.c_str(), 0) == 0;
    };
    return patterns.size() > parts.size() && std::equal(parts.begin(), parts.end(), patterns.begin(), matches);
}

// An exclude that can never match would leave an administrator in the belief that something is left out.
std::string CheckExclude(const std::string& pattern, const NEUtils::Monitor::FileWatchRule& rule)
{
    const bool isAbsolute = !pattern.empty() && pattern[0] == '/';
    const std::vector<std::string> parts = Split(isAbsolute ? pattern.substr(1) : pattern, "/");
    if (std::any_of(parts.begin(), parts.end(),
                    [](const std::string& part) { return part.empty() || part == "." || part == ".."; })) {
        return "has an exclude that no path can match, '" + pattern + "'";
    }
    if (isAbsolute && !IsBelow(pattern, rule.path)) {
        return "has an exclude that is not below the path, '" + pattern + "'";
    }
    const std::size_t depth = isAbsolute ? parts.size() - PartsOf(rule.path).size() : parts.size();
    return depth > 1 && !rule.recursive ? "has an exclude that needs recursive, '" + pattern + "'" : "";
}

// An absolute exclude as one below the rule's path, which may lead through a link: the monitor matches real paths.
std::string BelowRule(const std::string& pattern, const std::string& path)
{
    if (pattern[0] != '/') {
        return pattern;
    }
    const std::vector<std::string> parts = PartsOf(pattern);
    std::string below = ".";
    for (std::size_t i = PartsOf(path).size(); i < parts.size(); ++i) {
        below.append("/").append(parts[i]);
    }
    return below;
}

}  // namespace

std::string ParseWatch(const std::string& text, NEUtils::Monitor::FileWatchRule& rule)
{
    std::vector<std::string> parts = Split(text, ";");
    rule.path = std::move(parts[0]);
    rule.mask = kWatchDefault;
    rule.mayBeMissing = true;
    std::string fault = CheckPath(rule.path);
    for (std::size_t i = 1; i < parts.size() && fault.empty(); ++i) {
        std::string value;
        if (parts[i] == "recursive") {
            rule.recursive = true;
        } else if (parts[i] == "cross-mounts") {
            rule.crossMounts = true;
        } else if (TakeOption(parts[i], "events=", value)) {
            fault = ParseEvents(value, kWatchEvents, rule.mask);
        } else if (TakeOption(parts[i], "exclude=", value)) {
            rule.excludes = Split(value, ",");
        } else {
            fault = "has an unknown option '" + parts[i] + "'";
        }
    }
    for (auto pattern = rule.excludes.begin(); pattern != rule.excludes.end() && fault.empty(); ++pattern) {
        fault = CheckExclude(*pattern, rule);
        *pattern = fault.empty() ? BelowRule(*pattern, rule.path) : *pattern;
    }
    return fault;
}

std::string ParseGuard(const std::string& text, FileGuard& guard)
{
    const std::vector<std::string> parts = Split(text, ";");
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
