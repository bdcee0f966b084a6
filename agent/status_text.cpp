#include "status_text.h"

#include <cstdint>
#include <cstdio>
#include <nlohmann/json.hpp>

namespace {

using Json = nlohmann::ordered_json;

// What stands under a name, as it would be typed.
std::string Word(const Json& object, const char* name)
{
    const Json& value = object.at(name);
    return value.is_string() ? value.get<std::string>() : value.dump();
}

std::string Duration(std::int64_t seconds)
{
    char text[64];
    std::snprintf(text, sizeof(text), "%lld d %02d:%02d:%02d", static_cast<long long>(seconds / 86400),
                  static_cast<int>(seconds / 3600 % 24), static_cast<int>(seconds / 60 % 60),
                  static_cast<int>(seconds % 60));
    return text;
}

// One line of a section, whose name stands in its first line only.
void AddLine(std::string& text, std::string& section, const std::string& line)
{
    section.resize(10, ' ');
    text.append(section).append(line).append("\n");
    section.clear();
}

void AddFeatures(std::string& text, const Json& features)
{
    std::string section = "features";
    for (const Json& feature : features) {
        std::string line = Word(feature, "name");
        line.resize(line.size() < 18 ? 18 : line.size() + 1, ' ');
        line += Word(feature, "status");
        if (feature.contains("seen")) {
            line += "  watches " + Word(feature, "watches") + ", waits for " + Word(feature, "waiting") + ", lacks " +
                    Word(feature, "lacking") + ", seen " + Word(feature, "seen") + ", filtered " +
                    Word(feature, "filtered") + ", lost " + Word(feature, "lost");
            line += feature.contains("source") ? ", source " + Word(feature, "source") : "";
        }
        AddLine(text, section, line);
    }
}

void AddThreads(std::string& text, const Json& threads)
{
    std::string section = "threads";
    for (const Json& thread : threads) {
        std::string line = Word(thread, "name");
        line.resize(line.size() < 18 ? 18 : line.size() + 1, ' ');
        line += "last beat " + Word(thread, "lastBeatSeconds") + " s ago, missed " + Word(thread, "missedBeats");
        AddLine(text, section, line);
    }
}

void AddTasks(std::string& text, const Json& tasks)
{
    std::string line;
    for (const Json& task : tasks) {
        line += (line.empty() ? "" : ", ") + Word(task, "name") + (task.at("running").get<bool>() ? " (runs)" : "");
    }
    std::string section = "tasks";
    AddLine(text, section, line);
}

void AddAll(std::string& text, const Json& status)
{
    const bool well = status.at("well").get<bool>();
    text = "sentrel-agent " + Word(status, "version") + ", process " + Word(status, "pid") + ", up " +
           Duration(status.at("uptimeSeconds").get<std::int64_t>()) + (well ? ": well\n" : ": NOT WELL\n");
    std::string section = "problems";
    for (const Json& problem : status.at("problems")) {
        AddLine(text, section, problem.get<std::string>());
    }
    const Json& queue = status.at("queue");
    AddLine(text, section = "server",
            Word(status, "channel") + ", queued " + Word(queue, "reports") + ", dropped " + Word(queue, "dropped"));
    AddFeatures(text, status.at("features"));
    const Json& events = status.at("events");
    AddLine(
        text, section = "events",
        "seen " + Word(events, "seen") + ", filtered " + Word(events, "filtered") + ", lost " + Word(events, "lost"));
    const Json& inotify = status.at("inotify");
    AddLine(text, section = "inotify",
            "watches " + Word(inotify, "watches") + ", lacks " + Word(inotify, "lacking") + ", overflows " +
                Word(inotify, "overflows"));
    AddThreads(text, status.at("threads"));
    AddTasks(text, status.at("tasks"));
    const Json& self = status.at("self");
    AddLine(text, section = "self",
            "processor " + Word(self, "cpuPercent") + " % (" + Word(self, "cpuSeconds") + " s in all), memory " +
                Word(self, "memoryKiB") + " KiB, descriptors " + Word(self, "descriptors"));
}

}  // namespace

StatusResult StatusText(const std::string& json, std::string& text)
{
    try {
        const Json status = Json::parse(json);
        AddAll(text, status);
        return status.at("well").get<bool>() ? kWell : kNotWell;
    } catch (const Json::exception&) {
        return kNoStatus;
    }
}
