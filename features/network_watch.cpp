// The feature network_watch: logs and reports the TCP connections of the host and who listens.
#include <sys/stat.h>

#include <cstdint>
#include <memory>
#include <string>
#include <utility>

#include "connection_log.h"
#include "connection_tracer.h"
#include "feature.h"
#include "feature_counters.h"
#include "hips_guard.h"
#include "logger.h"
#include "loop_thread.h"
#include "network_rules.h"
#include "policy_text.h"
#include "util/key_lines.h"
#include "util/text.h"

namespace {

using NEUtils::ConnectionTracer;

constexpr int kTickMs = 1000;
constexpr std::uint64_t kMostRepeats = 1000000;
constexpr std::uint64_t kMostWakeMs = 1000;
constexpr std::uint64_t kLeastRing = std::uint64_t{64} << 10;
constexpr std::uint64_t kMostRing = std::uint64_t{1} << 30;
constexpr ino_t kHostPidNs = 0xEFFFFFFCU;  // fixed in the kernel

struct Settings {
    ConnectionLogSettings log;
    ConnectionTracer::Settings tracer;
};

std::string TakeEvents(const std::string& value, ConnectionTracer::Settings& settings)
{
    settings.connects = settings.accepts = settings.listens = false;
    for (const std::string& name : NEUtils::StringProcess::StrSplit(value, ",")) {
        bool* const wanted = name == "connect"  ? &settings.connects
                             : name == "accept" ? &settings.accepts
                             : name == "listen" ? &settings.listens
                                                : nullptr;
        if (wanted == nullptr) {
            return "is not made of connect, accept and listen";
        }
        *wanted = true;
    }
    return {};
}

std::string TakeRule(const std::string& value, std::vector<NetworkRule>& rules)
{
    if (rules.size() == kMaxPolicyRules) {
        return "is one network too many";
    }
    return ParseNetworkRule(value, rules.emplace_back());
}

std::string TakeWake(const std::string& value, ConnectionTracer::Settings& settings)
{
    std::uint64_t read = 0;
    std::string fault = NEUtils::ReadNumber(value, kMostWakeMs, read);
    settings.wakeMs = static_cast<int>(read);
    return fault;
}

std::string TakeRing(const std::string& value, ConnectionTracer::Settings& settings)
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
    ConnectionLogSettings& log = settings.log;
    return ReadPolicy(
        policy, {{"events", [&](const auto& value) { return TakeEvents(value, settings.tracer); }},
                 {"include", [&](const auto& value) { return TakeRule(value, log.includes); }},
                 {"exclude", [&](const auto& value) { return TakeRule(value, log.excludes); }},
                 {"repeats", [&](const auto& value) { return NEUtils::ReadNumber(value, kMostRepeats, log.repeats); }},
                 {"wake_ms", [&](const auto& value) { return TakeWake(value, settings.tracer); }},
                 {"ring_bytes", [&](const auto& value) { return TakeRing(value, settings.tracer); }}});
}

// In another one the kernel's ids would name other processes than /proc does.
bool IsInFirstPidNamespace()
{
    struct stat space = {};
    return stat("/proc/self/ns/pid", &space) != 0 || space.st_ino == kHostPidNs;
}

// Watches as long as it lives.
class NetworkWatch {
public:
    explicit NetworkWatch(ConnectionLogSettings settings) : log_(std::move(settings)) {}
    ~NetworkWatch()
    {
        if (supervised_ != 0) {
            UnwatchPlainThread(supervised_);
        }
        if (tracer_.IsRunning()) {
            tracer_.Stop();
        }
        ticker_.Stop();
        log_.LogRepeats();
        Count();
        counters_.watches = 0;
    }
    NetworkWatch(const NetworkWatch&) = delete;
    NetworkWatch& operator=(const NetworkWatch&) = delete;

    // False, with a record, if the kernel does not tell of connections.
    bool Start(const ConnectionTracer::Settings& settings)
    {
        if (!tracer_.Start(settings, [this](const NEUtils::ConnectionRecord& record) { log_.Handle(record); })) {
            return false;
        }
        counters_.watches = 1;
        supervised_ = WatchPlainThread("network-tracer", &NetworkWatch::BeatAgeMs, &tracer_);
        return ticker_.Start("NetworkRepeats", [this](int stopFd) {
            WaitFor(stopFd, kTickMs);
            log_.LogRepeats();
            Count();
        });
    }

private:
    static long long BeatAgeMs(void* tracer) { return static_cast<ConnectionTracer*>(tracer)->GetBeatAgeMs(); }

    // Adds what came since the last call.
    void Count()
    {
        const ConnectionTracer::Counts now = tracer_.GetCounts();
        const std::uint64_t leftOut = log_.GetLeftOutCount();
        counters_.seen += now.received.Total() - counted_.received.Total();
        counters_.filtered += leftOut - leftOut_;
        counters_.lost += now.lost.Total() - counted_.lost.Total();
        counters_.overflows += now.recursionMisses - counted_.recursionMisses;
        counted_ = now;
        leftOut_ = leftOut;
    }

    NEUtils::FeatureCounters& counters_ = NEUtils::FeatureCounters::Of(kFeatureName);
    ConnectionTracer::Counts counted_;
    std::uint64_t leftOut_ = 0;
    ConnectionLog log_;
    LoopThread ticker_;
    ConnectionTracer tracer_;
    std::uintptr_t supervised_ = 0;  // the tracer's thread, by the guard
};

std::unique_ptr<NetworkWatch> g_watch;

}  // namespace

const char kFeatureName[] = "network_watch";

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
        NE_LOG(ERROR, "Connections are not watched.[missing=first pid namespace]");
        return false;
    }
    auto watch = std::make_unique<NetworkWatch>(std::move(settings.log));
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
