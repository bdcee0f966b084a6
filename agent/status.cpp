#include "status.h"

#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <nlohmann/json.hpp>

#include "feature_counters.h"
#include "file_tools.h"
#include "hips_guard.h"
#include "hips_instance_manager.h"
#include "monitor_manager.h"
#include "report_queue.h"
#include "task.h"

namespace {

using Json = nlohmann::ordered_json;
using NEUtils::FeatureCounters;

constexpr unsigned int kBadMisses = 2;  // the first says only that the checker has looked

double Rounded(double value)
{
    return std::round(value * 10) / 10;
}

double CpuSeconds()
{
    rusage usage = {};
    getrusage(RUSAGE_SELF, &usage);
    const auto seconds = [](const timeval& time) {
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
    };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

long MemoryKiB()
{
    std::string pages;  // all of them, the resident ones, and more
    ReadFile("/proc/self/statm", 4096, pages);
    return std::strtol(pages.substr(std::min(pages.find(' '), pages.size())).c_str(), nullptr, 10) *
           (sysconf(_SC_PAGESIZE) / 1024);
}

void AddProblem(Json& problems, bool isOne, const std::string& text)
{
    if (isOne) {
        problems.push_back(text);
    }
}

Json Features(const FeatureHost& features, Json& problems)
{
    Json list = Json::array();
    const auto counters = FeatureCounters::All();
    for (const FeatureHost::State& state : features.GetStates()) {
        Json feature = {{"name", state.name}, {"status", state.status}};
        AddProblem(problems, state.status == "failed", "feature " + state.name + " has failed");
        if (const auto found = counters.find(state.name); found != counters.end()) {
            const FeatureCounters& own = *found->second;
            const std::uint64_t lost = own.lost;
            feature.update(
                {{"watches", own.watches.load()}, {"seen", own.seen.load()}, {"filtered", own.filtered.load()}});
            feature["lost"] = lost;
            AddProblem(problems, lost > 0, "feature " + state.name + " has lost " + std::to_string(lost) + " events");
        }
        list.push_back(std::move(feature));
    }
    return list;
}

Json Threads(Json& problems)
{
    Json list = Json::array();
    // The guard runs, so this only looks it up.
    for (const auto& thread : NEUtils::HipsInstanceManager::CreateInstance(0, false, 0)->GetInstances()) {
        const double beat = Rounded(static_cast<double>(thread->GetBeatAgeMs()) / 1000);
        const unsigned int missed = thread->GetMissedBeats();
        list.push_back({{"name", thread->GetName()},
                        {"does", thread->GetRuntimeName()},
                        {"lastBeatSeconds", beat},
                        {"missedBeats", missed}});
        AddProblem(
            problems, missed >= kBadMisses,
            "thread " + thread->GetName() + " has not come round for " + std::to_string(std::lround(beat)) + " s");
    }
    return list;
}

Json Tasks(NEUtils::TaskManager& tasks)
{
    Json list = Json::array();
    for (const auto& task : tasks.GetTasks()) {
        list.push_back({{"name", task->GetMemo()}, {"running", task->GetRunningCount() > 0}});
    }
    return list;
}

Json Queue(Json& problems)
{
    auto& reports = NEUtils::ReportQueue::GetInstance();
    const std::uint64_t dropped = reports.GetDroppedCount();
    AddProblem(problems, dropped > 0, std::to_string(dropped) + " reports were dropped");
    return {{"reports", reports.GetCount()}, {"dropped", dropped}};
}

// Events of all features together, and what the kernel's watches are.
void AddSums(Json& status)
{
    Json events = {{"seen", 0}, {"filtered", 0}, {"lost", 0}};
    for (const auto& [name, counters] : FeatureCounters::All()) {
        events["seen"] = events["seen"].get<std::uint64_t>() + counters->seen;
        events["filtered"] = events["filtered"].get<std::uint64_t>() + counters->filtered;
        events["lost"] = events["lost"].get<std::uint64_t>() + counters->lost;
    }
    auto& files = NEUtils::MonitorManager::GetInstance().GetInotifyMonitor();
    status["events"] = std::move(events);
    status["inotify"] = {{"watches", files.GetWatchCount()}, {"overflows", files.GetOverflowCount()}};
}

}  // namespace

std::string Status::ToJson() const
{
    using std::chrono::duration_cast;
    const auto uptime = duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - started_);
    Json problems = Json::array();
    const std::string channel = server_.GetState();
    AddProblem(problems, channel == "down", "no connection to the server");
    Json queue = Queue(problems);
    Json features = Features(features_, problems);
    Json threads = Threads(problems);
    Json status = {{"version", AGENT_VERSION},        {"pid", getpid()},
                   {"uptimeSeconds", uptime.count()}, {"well", problems.empty()},
                   {"problems", std::move(problems)}, {"channel", channel},
                   {"queue", std::move(queue)},       {"features", std::move(features)}};
    AddSums(status);
    status["threads"] = std::move(threads);
    status["tasks"] = Tasks(tasks_);
    status["self"] = {{"cpuPercent", Rounded(GetCpuUsage())},
                      {"cpuSeconds", Rounded(CpuSeconds())},
                      {"memoryKiB", MemoryKiB()},
                      {"descriptors", ListFolder("/proc/self/fd").size() - 1}};  // but for the one that lists
    return status.dump(-1, ' ', true, Json::error_handler_t::replace);
}
