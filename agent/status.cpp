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

// What is not well, in sentences.
class Problems {
public:
    void AddIf(bool isOne, const std::string& text)
    {
        if (isOne) {
            list_.push_back(text);
        }
    }
    Json Take() { return std::move(list_); }

private:
    Json list_ = Json::array();
};

std::string Count(std::uint64_t count, const char* of)
{
    return std::to_string(count) + of;
}

using Counters = std::map<std::string, const FeatureCounters*>;

Json Feature(const FeatureHost::State& state, const Counters& counters, Problems& problems)
{
    problems.AddIf(state.status == "failed", "feature " + state.name + " has failed");
    Json feature = {{"name", state.name}, {"status", state.status}};
    if (const auto found = counters.find(state.name); found != counters.end()) {
        const FeatureCounters& own = *found->second;
        const std::uint64_t lacking = own.lacking;
        feature["watches"] = own.watches.load();
        feature["lacking"] = lacking;
        feature["seen"] = own.seen.load();
        feature["filtered"] = own.filtered.load();
        feature["lost"] = own.lost.load();
        problems.AddIf(lacking > 0, "feature " + state.name + " cannot watch " + Count(lacking, " of its paths"));
    }
    return feature;
}

Json Features(const FeatureHost& features, Problems& problems)
{
    for (const std::string& file : features.GetUnusable()) {
        problems.AddIf(true, "policy " + file + " cannot be used");
    }
    const Counters counters = FeatureCounters::All();
    Json list = Json::array();
    for (const FeatureHost::State& state : features.GetStates()) {
        list.push_back(Feature(state, counters, problems));
    }
    return list;
}

Json Threads(Problems& problems)
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
        problems.AddIf(missed >= kBadMisses, "thread " + thread->GetName() + " has not come round for " +
                                                 std::to_string(std::lround(beat)) + " s");
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

// Of all features together.
Json Events()
{
    std::uint64_t seen = 0;
    std::uint64_t filtered = 0;
    std::uint64_t lost = 0;
    for (const auto& [name, counters] : FeatureCounters::All()) {
        seen += counters->seen;
        filtered += counters->filtered;
        lost += counters->lost;
    }
    return {{"seen", seen}, {"filtered", filtered}, {"lost", lost}};
}

Json Inotify(Problems& problems)
{
    auto& files = NEUtils::MonitorManager::GetInstance().GetInotifyMonitor();
    const std::size_t lacking = files.GetLackingCount();
    problems.AddIf(lacking > 0, Count(lacking, " directories cannot be watched"));
    return {{"watches", files.GetWatchCount()}, {"lacking", lacking}, {"overflows", files.GetOverflowCount()}};
}

}  // namespace

// A loss stays a problem for an hour after it was first told, so that an alarm can end.
bool Status::IsNews(const std::string& what, std::uint64_t count) const
{
    constexpr std::chrono::hours kNews{1};
    const auto now = Steady::now();
    const std::lock_guard<std::mutex> lock(mutex_);
    Loss& loss = losses_[what];
    if (count != loss.count) {
        loss = {count, now};
    }
    return count > 0 && now - loss.since < kNews;
}

std::string Status::ToJson() const
{
    Problems problems;
    const std::string channel = server_.GetState();
    problems.AddIf(channel == "down", "no connection to the server");
    auto& reports = NEUtils::ReportQueue::GetInstance();
    const std::uint64_t dropped = reports.GetDroppedCount();
    problems.AddIf(IsNews("reports", dropped), Count(dropped, " reports were dropped"));
    for (const auto& [name, counters] : FeatureCounters::All()) {
        const std::uint64_t lost = counters->lost;
        problems.AddIf(IsNews(name, lost), "feature " + name + " has lost " + Count(lost, " events"));
    }
    const long memoryKiB = MemoryKiB();
    const double cpuPercent = Rounded(GetCpuUsage());
    problems.AddIf(memoryLimitKiB_ > 0 && memoryKiB > memoryLimitKiB_, "memory is above GUARD_MEMORY_KIB");
    problems.AddIf(cpuLimitPercent_ > 0 && cpuPercent > cpuLimitPercent_, "processor time is above GUARD_CPU_PERCENT");
    Json features = Features(features_, problems);
    Json inotify = Inotify(problems);
    Json threads = Threads(problems);
    Json list = problems.Take();
    const Json status = {
        {"version", AGENT_VERSION},
        {"pid", getpid()},
        {"uptimeSeconds", std::chrono::duration_cast<std::chrono::seconds>(Steady::now() - started_).count()},
        {"well", list.empty()},
        {"problems", std::move(list)},
        {"channel", channel},
        {"queue", {{"reports", reports.GetCount()}, {"dropped", dropped}}},
        {"features", std::move(features)},
        {"events", Events()},
        {"inotify", std::move(inotify)},
        {"threads", std::move(threads)},
        {"tasks", Tasks(tasks_)},
        {"self",
         {{"cpuPercent", cpuPercent},
          {"cpuSeconds", Rounded(CpuSeconds())},
          {"memoryKiB", memoryKiB},
          {"descriptors", ListFolder("/proc/self/fd").size() - 1}}},  // but for the one that lists
    };
    return status.dump(-1, ' ', true, Json::error_handler_t::replace);
}
