#include "status.h"

#include <sys/resource.h>
#include <unistd.h>

#include <cmath>
#include <nlohmann/json.hpp>

#include "event_file.h"
#include "feature_counters.h"
#include "hips_guard.h"
#include "hips_instance_manager.h"
#include "log_system.h"
#include "monitor_manager.h"
#include "report_queue.h"
#include "task.h"

namespace {

using Json = nlohmann::ordered_json;
using NEUtils::FeatureCounters;

constexpr unsigned int kBadMisses = 2;  // the first says only that the checker has looked
constexpr std::chrono::hours kNews{1};

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

std::string Count(std::uint64_t count, const char* of)
{
    return std::to_string(count) + of;
}

using Counters = std::map<std::string, const FeatureCounters*>;

Json Feature(const FeatureHost::State& state, const Counters& counters, Problems& problems)
{
    Json feature = {{"name", state.name}, {"status", state.status}};
    if (!state.reason.empty()) {
        feature["reason"] = state.reason;
    }
    if (const auto found = counters.find(state.name); found != counters.end()) {
        const FeatureCounters& own = *found->second;
        const std::uint64_t lacking = own.lacking;
        const std::uint64_t waiting = own.waiting;
        feature["watches"] = own.watches.load();
        feature["waiting"] = waiting;
        feature["lacking"] = lacking;
        feature["seen"] = own.seen.load();
        feature["filtered"] = own.filtered.load();
        feature["lost"] = own.lost.load();
        feature["overflows"] = own.overflows.load();
        for (const auto& [name, detail] : own.GetDetails()) {
            std::visit([&feature, &name = name](const auto& value) { feature[name] = value; }, detail);
        }
        problems.AddIf(lacking > 0, "lacking " + state.name,
                       "feature " + state.name + " cannot watch " + Count(lacking, " of what its policy names"));
        problems.AddIf(waiting > 0, "waiting " + state.name,
                       "feature " + state.name + " waits for paths that are not there: " + std::to_string(waiting));
    }
    return feature;
}

Json Features(const FeatureHost& features, Problems& problems)
{
    features.AddProblems(problems);
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
        const std::int64_t age = thread->GetBeatAgeMs();
        if (age < 0) {  // it does not run at the moment
            continue;
        }
        const double beat = Rounded(static_cast<double>(age) / 1000);
        const unsigned int missed = thread->GetMissedBeats();
        list.push_back({{"name", thread->GetName()},
                        {"does", thread->GetRuntimeName()},
                        {"lastBeatSeconds", beat},
                        {"missedBeats", missed}});
        problems.AddIf(
            missed >= kBadMisses, "thread " + thread->GetName(),
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
    problems.AddIf(lacking > 0, "directories", Count(lacking, " directories cannot be watched"));
    return {{"watches", files.GetWatchCount()}, {"lacking", lacking}, {"overflows", files.GetOverflowCount()}};
}

Json Queue()
{
    const NEUtils::ReportAccount account = NEUtils::ReportQueue::GetInstance().GetAccount();
    return {{"reports", account.waiting + account.unanswered},
            {"pushed", account.pushed},
            {"waiting", account.waiting},
            {"unanswered", account.unanswered},
            {"acknowledged", account.acknowledged},
            {"dropped", account.GetDropped()},
            {"droppedFull", account.droppedFull},
            {"droppedTooLarge", account.droppedTooLarge},
            {"droppedStopped", account.droppedStopped},
            {"droppedInvalid", account.droppedInvalid},
            {"droppedNoMemory", account.droppedNoMemory},
            {"repeats", account.repeats}};
}

Json Log()
{
    return {{"failedLines", NEUtils::LogSystem::GetFailedLineCount()},
            {"linesOverBudget", NEUtils::LogSystem::GetLinesOverBudget()}};
}

Json Self()
{
    return {{"cpuPercent", Rounded(GetCpuUsage())},
            {"cpuSeconds", Rounded(CpuSeconds())},
            {"memoryKiB", GetMemoryUsage()},
            {"descriptors", GetFdUsage()}};
}

}  // namespace

void Status::SetLimits(const UseLimits& limits)
{
    const std::lock_guard<std::mutex> lock(mutex_);
    limits_ = limits;
}

void Status::SetProblem(const std::string& key, const std::string& text)
{
    const std::lock_guard<std::mutex> lock(mutex_);
    lasting_.erase(key);
    if (!text.empty()) {
        lasting_[key] = text;
    }
}

void Status::AddNews(const std::string& key, const std::string& text)
{
    const std::lock_guard<std::mutex> lock(mutex_);
    news_[key] = text;
}

// A loss stays a problem for an hour after it was first seen, so that an alarm can end.
bool Status::IsNews(const std::string& what, std::uint64_t count) const
{
    const auto now = Steady::now();
    const std::lock_guard<std::mutex> lock(mutex_);
    Loss& loss = losses_[what];
    if (count != loss.count) {
        loss = {count, now};
    }
    return count > 0 && now - loss.since < kNews;
}

void Status::AddOwn(Problems& problems) const
{
    std::map<std::string, std::string> standing;
    UseLimits limits;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        standing = lasting_;
        limits = limits_;
        if (Steady::now() - started_ < kNews) {
            standing.insert(news_.begin(), news_.end());
        }
    }
    for (const auto& [key, text] : standing) {
        problems.Add(key, text);
    }
    for (const Source& source : sources_) {
        source(problems);
    }
    problems.AddIf(limits.memoryKiB > 0 && GetMemoryUsage() > limits.memoryKiB, "memory",
                   "memory is above GUARD_MEMORY_KIB: " + std::to_string(GetMemoryUsage()));
    problems.AddIf(limits.cpuPercent > 0 && GetCpuUsage() > limits.cpuPercent, "processor",
                   "processor time is above GUARD_CPU_PERCENT: " + std::to_string(std::lround(GetCpuUsage())));
    problems.AddIf(limits.descriptors > 0 && GetFdUsage() > limits.descriptors, "descriptors",
                   "descriptors are above GUARD_DESCRIPTORS: " + std::to_string(GetFdUsage()));
}

void Status::AddLosses(Problems& problems) const
{
    const std::uint64_t dropped = NEUtils::ReportQueue::GetInstance().GetDroppedCount();
    problems.AddIf(IsNews("reports", dropped), "dropped reports", Count(dropped, " reports were dropped"));
    const std::uint64_t lines = NEUtils::LogSystem::GetFailedLineCount();
    problems.AddIf(IsNews("lines", lines), "lost lines", "the log has lost " + Count(lines, " lines"));
    const std::uint64_t unwritten = NEUtils::EventFile::GetInstance().GetFigures().dropped;
    problems.AddIf(IsNews("event file", unwritten), "event file lines",
                   "the event file has lost " + Count(unwritten, " lines"));
    for (const auto& [name, counters] : FeatureCounters::All()) {
        const std::uint64_t overflows = counters->overflows;
        problems.AddIf(IsNews("overflows " + name, overflows), "overflows " + name,
                       "feature " + name + " has lost an unknown number of events " + Count(overflows, " times"));
        const std::uint64_t lost = counters->lost;
        problems.AddIf(IsNews(name, lost), "lost " + name, "feature " + name + " has lost " + Count(lost, " events"));
    }
}

Json Status::Describe(Problems& problems) const
{
    const std::string channel = server_.GetState();
    server_.AddProblems(problems);
    AddLosses(problems);
    AddOwn(problems);
    Json features = Features(features_, problems);
    Json inotify = Inotify(problems);
    Json threads = Threads(problems);
    Json list = Json::array();
    for (const Problems::Problem& problem : problems.GetList()) {
        list.push_back(problem.text);
    }
    return {
        {"version", AGENT_VERSION},
        {"pid", getpid()},
        {"uptimeSeconds", std::chrono::duration_cast<std::chrono::seconds>(Steady::now() - started_).count()},
        {"well", list.empty()},
        {"problems", std::move(list)},
        {"channel", channel},
        {"queue", Queue()},
        {"features", std::move(features)},
        {"events", Events()},
        {"inotify", std::move(inotify)},
        {"threads", std::move(threads)},
        {"tasks", Tasks(tasks_)},
        {"log", Log()},
        {"self", Self()},
    };
}

Problems Status::FindProblems() const
{
    Problems problems;
    Describe(problems);
    return problems;
}

std::string Status::ToJson() const
{
    Problems problems;
    return Describe(problems).dump(-1, ' ', true, Json::error_handler_t::replace);
}
