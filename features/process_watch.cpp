// The feature process_watch: logs and reports every program that starts or ends on the host.
#include <linux/capability.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <utility>

#include "feature.h"
#include "feature_counters.h"
#include "hips_guard.h"
#include "logger.h"
#include "loop_thread.h"
#include "policy_text.h"
#include "process_log.h"
#include "process_monitor.h"
#include "util/key_lines.h"

namespace {

using NEUtils::ProcessMonitor;

constexpr int kStartMs = 2000;
constexpr int kRepeatsMs = 1000;
constexpr std::uint64_t kMostRepeats = 1000000;
constexpr std::chrono::seconds kQuiet{1};

bool IsFirstNamespace(const char* path, const char* first)
{
    char link[64] = {};
    return readlink(path, link, sizeof(link) - 1) < 0 || std::strcmp(link, first) == 0;
}

// What the process connector needs and this process lacks; null if nothing. The kernel numbers its first
// namespaces always the same. In another one its ids would name other processes, or nothing comes at all.
const char* Missing()
{
    __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct data[_LINUX_CAPABILITY_U32S_3] = {};
    if (syscall(SYS_capget, &header, data) != 0 || (data[0].effective & (1U << CAP_NET_ADMIN)) == 0) {
        return "CAP_NET_ADMIN";
    }
    if (!IsFirstNamespace("/proc/self/ns/user", "user:[4026531837]")) {
        return "first user namespace";
    }
    return IsFirstNamespace("/proc/self/ns/pid", "pid:[4026531836]") ? nullptr : "first pid namespace";
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

std::string ReadSettings(const std::string& policy, ProcessLogSettings& settings)
{
    return ReadPolicy(
        policy,
        {{"events", [&](const auto& value) { return TakeEvents(value, settings); }},
         {"exclude", [&](const auto& value) { return TakeExclude(value, settings); }},
         {"repeats", [&](const auto& value) { return NEUtils::ReadNumber(value, kMostRepeats, settings.repeats); }}});
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
        monitor_.StopProcessMonitor();
        ticker_.Stop();
        log_.LogRepeats();
        Count();
        counters_.watches = 0;
        counters_.lacking = 0;
    }
    ProcessWatch(const ProcessWatch&) = delete;
    ProcessWatch& operator=(const ProcessWatch&) = delete;

    // False, with a record, if the kernel does not send events.
    bool Start()
    {
        monitor_.SetEventKinds(ProcessLog::kEventKinds);
        monitor_.SetProcessesOnly(true);
        monitor_.StartProcessMonitor();
        for (int ms = 0; monitor_.GetPhase() == ProcessMonitor::kStarting && ms < kStartMs; ++ms) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        if (monitor_.GetPhase() != ProcessMonitor::kListening) {
            NE_LOG(ERROR, "Process events are not watched.[missing=the kernel's process connector]");
            return false;
        }
        // While it searches for its white list, events wait: no process that begins now is missed.
        log_.LoadRunningProcesses();
        s_watch = this;
        monitor_.AddProcessEventCallback(&ProcessWatch::OnEvent);
        counters_.watches = 1;
        supervised_ = WatchPlainThread("monitor-process", &ProcessWatch::BeatAgeMs, &monitor_);
        return ticker_.Start("ProcessRepeats", [this](int stopFd) {
            WaitFor(stopFd, kRepeatsMs);
            log_.LogRepeats();
            if (monitor_.GetPhase() == ProcessMonitor::kEnded) {  // by itself: nothing is watched any more
                counters_.watches = 0;
                counters_.lacking = 1;
            }
        });
    }

private:
    using Steady = std::chrono::steady_clock;

    // The seen, filtered and lost events of one start.
    struct Figures {
        std::uint64_t seen = 0;
        std::uint64_t filtered = 0;
        std::uint64_t lost = 0;
        std::uint64_t overflows = 0;
    };

    static long long BeatAgeMs(void* monitor) { return static_cast<ProcessMonitor*>(monitor)->GetBeatAgeMs(); }
    static void OnEvent(proc_event* event) { s_watch->Handle(*event); }

    void Handle(const proc_event& event)
    {
        if (monitor_.GetLostEventCount() != counted_.lost || monitor_.GetOverflowCount() != counted_.overflows) {
            log_.DoubtCounts();
            lossAt_ = Steady::now();
        } else if (lossAt_ != Steady::time_point() && Steady::now() - lossAt_ > kQuiet) {
            log_.LoadRunningProcesses();  // takes a while, in which more would be lost
            lossAt_ = {};
        }
        log_.Handle(event);
        Count();
    }

    void Count()
    {
        const Figures now = {monitor_.GetEventCount(), monitor_.GetFilteredEventCount() + log_.GetLeftOutCount(),
                             monitor_.GetLostEventCount(), monitor_.GetOverflowCount()};
        counters_.seen += now.seen - counted_.seen;
        counters_.filtered += now.filtered - counted_.filtered;
        counters_.lost += now.lost - counted_.lost;
        counters_.overflows += now.overflows - counted_.overflows;
        counted_ = now;
    }

    static ProcessWatch* s_watch;  // callbacks get no argument of their own

    NEUtils::FeatureCounters& counters_ = NEUtils::FeatureCounters::Of(kFeatureName);
    Figures counted_;
    Steady::time_point lossAt_;
    ProcessLog log_;
    LoopThread ticker_;
    ProcessMonitor monitor_;
    std::uintptr_t supervised_ = 0;  // the monitor's thread, by the guard
};

ProcessWatch* ProcessWatch::s_watch = nullptr;

std::unique_ptr<ProcessWatch> g_watch;

}  // namespace

const char kFeatureName[] = "process_watch";

std::string FindPolicyFault(const std::string& policy)
{
    ProcessLogSettings settings;
    return ReadSettings(policy, settings);
}

bool StartFeature(const std::string& policy)
{
    ProcessLogSettings settings;
    const std::string fault = ReadSettings(policy, settings);
    if (!fault.empty()) {
        LogRefusal(kFeatureName, fault);
        return false;
    }
    if (const char* missing = Missing(); missing != nullptr) {
        NE_LOG(ERROR, "Process events are not watched.[missing=%s]", missing);
        return false;
    }
    auto watch = std::make_unique<ProcessWatch>(std::move(settings));
    if (!watch->Start()) {
        return false;
    }
    g_watch = std::move(watch);
    return true;
}

void StopFeature()
{
    g_watch.reset();
}
