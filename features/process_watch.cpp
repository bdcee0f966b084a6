// The feature process_watch: logs and reports every program that starts or ends on the host.
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <memory>
#include <string>
#include <utility>

#include "feature.h"
#include "feature_counters.h"
#include "hips_guard.h"
#include "logger.h"
#include "loop_thread.h"
#include "policy_text.h"
#include "process_log.h"
#include "process_tracer.h"
#include "util/key_lines.h"

namespace {

using NEUtils::ProcessRecord;
using NEUtils::ProcessTracer;

constexpr int kTickMs = 1000;
constexpr std::uint64_t kMostRepeats = 1000000;
constexpr std::uint64_t kMostWakeMs = 1000;
constexpr std::uint64_t kMostPriority = 99;
constexpr std::uint64_t kLeastRing = std::uint64_t{64} << 10;
constexpr std::uint64_t kMostRing = std::uint64_t{1} << 30;

struct Settings {
    ProcessLogSettings log;
    ProcessTracer::Settings tracer;
};

// The kernel numbers its first namespaces always the same. In another one, ids would name other processes than /proc.
bool IsInFirstPidNamespace()
{
    char link[64] = {};
    return readlink("/proc/self/ns/pid", link, sizeof(link) - 1) < 0 || std::strcmp(link, "pid:[4026531836]") == 0;
}

std::string TakeEvents(const std::string& value, ProcessLogSettings& settings)
{
    settings.executed = value == "start" || value == "start,end";
    settings.ended = value == "end" || value == "start,end";
    return settings.executed || settings.ended ? "" : "is not one of start, end, start,end";
}

std::string TakeExclude(const std::string& value, ProcessLogSettings& settings)
{
    if (settings.excludes.size() == kMaxPolicyRules) {
        return "is one pattern too many";
    }
    settings.excludes.push_back(value);
    return value.empty() ? "is not a shell pattern" : "";
}

std::string TakeSource(const std::string& value, ProcessTracer::Settings& settings)
{
    for (const auto source : {ProcessTracer::kAuto, ProcessTracer::kTrace, ProcessTracer::kConnector}) {
        if (value == ProcessTracer::GetSourceName(source)) {
            settings.source = source;
            return {};
        }
    }
    return "is not one of auto, trace, connector";
}

// A number up to most.
template <typename Number>
std::string TakeNumber(const std::string& value, std::uint64_t most, Number& number)
{
    std::uint64_t read = 0;
    std::string fault = NEUtils::ReadNumber(value, most, read);
    if (fault.empty()) {
        number = static_cast<Number>(read);
    }
    return fault;
}

std::string TakeRing(const std::string& value, ProcessTracer::Settings& settings)
{
    std::uint64_t read = 0;
    if (!NEUtils::ReadNumber(value, kMostRing, read).empty() || read < kLeastRing) {
        return "is not a number from " + std::to_string(kLeastRing) + " to " + std::to_string(kMostRing);
    }
    settings.ringSize = read;
    return {};
}

std::string ReadSettings(const std::string& policy, Settings& settings)
{
    ProcessLogSettings& log = settings.log;
    ProcessTracer::Settings& tracer = settings.tracer;
    return ReadPolicy(
        policy, {{"events", [&](const auto& value) { return TakeEvents(value, log); }},
                 {"exclude", [&](const auto& value) { return TakeExclude(value, log); }},
                 {"repeats", [&](const auto& value) { return TakeNumber(value, kMostRepeats, log.repeats); }},
                 {"source", [&](const auto& value) { return TakeSource(value, tracer); }},
                 {"wake_ms", [&](const auto& value) { return TakeNumber(value, kMostWakeMs, tracer.wakeMs); }},
                 {"priority", [&](const auto& value) { return TakeNumber(value, kMostPriority, tracer.priority); }},
                 {"ring_bytes", [&](const auto& value) { return TakeRing(value, tracer); }}});
}

// Watches as long as it lives. There is one at a time.
class ProcessWatch {
public:
    explicit ProcessWatch(ProcessLogSettings settings) : log_(std::move(settings)) {}
    ~ProcessWatch()
    {
        if (supervised_ != 0) {
            UnwatchPlainThread(supervised_);
        }
        log_.Stop();
        LetRecordsIn();
        if (tracer_.GetSource() != ProcessTracer::kNone) {
            tracer_.Stop();
        }
        ticker_.Stop();
        log_.LogRepeats();
        Count();
        counters_.SetDetail("source", ProcessTracer::GetSourceName(ProcessTracer::kNone));
        counters_.watches = 0;
    }
    ProcessWatch(const ProcessWatch&) = delete;
    ProcessWatch& operator=(const ProcessWatch&) = delete;

    // False, with a record, if there is no source of events.
    bool Start(const ProcessTracer::Settings& settings)
    {
        const auto handle = [this](const ProcessRecord& record) {
            mayEnter_.wait(false);
            log_.Handle(record);
        };
        const auto compare = [this](const ProcessTracer::Counts::Kinds&) {
            mayEnter_.wait(false);
            log_.CompareWithProc();
        };
        if (!tracer_.Start(settings, handle, compare)) {
            NE_LOG(ERROR, "Process events are not watched.[source=%s]", ProcessTracer::GetSourceName(settings.source));
            return false;
        }
        log_.CompareWithProc();  // records wait meanwhile: no process that begins now is missed
        LetRecordsIn();
        counters_.SetDetail("source", ProcessTracer::GetSourceName(tracer_.GetSource()));
        counters_.SetDetail("sourceReason", tracer_.GetFallbackReason());
        counters_.watches = 1;
        supervised_ = WatchPlainThread("process-tracer", &ProcessWatch::BeatAgeMs, &tracer_);
        return ticker_.Start("ProcessRepeats", [this](int stopFd) {
            WaitFor(stopFd, kTickMs);
            log_.LogRepeats();
            Count();
        });
    }

private:
    static long long BeatAgeMs(void* tracer) { return static_cast<ProcessTracer*>(tracer)->GetBeatAgeMs(); }

    void LetRecordsIn()
    {
        mayEnter_ = true;
        mayEnter_.notify_all();
    }

    // Adds what has come since the last call. The figures of one start begin at 0, those of the feature go on.
    void Count()
    {
        const ProcessTracer::Counts now = tracer_.GetCounts();
        const std::uint64_t leftOut = now.filtered + log_.GetLeftOutCount();
        counters_.seen += now.received.Total() - counted_.received.Total();
        counters_.filtered += leftOut - leftOut_;
        counters_.lost += now.lost.Total() - counted_.lost.Total();
        counters_.AddToDetail("lostForks", now.lost.forks - counted_.lost.forks);
        counters_.AddToDetail("lostExecs", now.lost.execs - counted_.lost.execs);
        counters_.AddToDetail("lostExits", now.lost.exits - counted_.lost.exits);
        counters_.AddToDetail("lostUnknown", now.lost.unknown - counted_.lost.unknown);
        counters_.AddToDetail("incomplete", now.incomplete - counted_.incomplete);
        counters_.AddToDetail("recursionMisses", now.recursionMisses - counted_.recursionMisses);
        counted_ = now;
        leftOut_ = leftOut;
    }

    NEUtils::FeatureCounters& counters_ = NEUtils::FeatureCounters::Of(kFeatureName);
    ProcessTracer::Counts counted_;
    std::uint64_t leftOut_ = 0;
    std::atomic<bool> mayEnter_{false};  // the table is complete, or nobody needs it any more
    ProcessLog log_;
    LoopThread ticker_;
    ProcessTracer tracer_;
    std::uintptr_t supervised_ = 0;  // the tracer's thread, by the guard
};

std::unique_ptr<ProcessWatch> g_watch;

}  // namespace

const char kFeatureName[] = "process_watch";

std::string FindPolicyFault(const std::string& policy)
{
    Settings settings;
    return ReadSettings(policy, settings);
}

bool StartFeature(const std::string& policy)
{
    Settings settings;
    const std::string fault = ReadSettings(policy, settings);
    if (!fault.empty()) {
        LogRefusal(kFeatureName, fault);
        return false;
    }
    if (!IsInFirstPidNamespace()) {
        NE_LOG(ERROR, "Process events are not watched.[missing=first pid namespace]");
        return false;
    }
    auto watch = std::make_unique<ProcessWatch>(std::move(settings.log));
    if (!watch->Start(settings.tracer)) {
        return false;
    }
    g_watch = std::move(watch);
    return true;
}

void StopFeature()
{
    g_watch.reset();
}
