#include "process_tracer.h"

#include <atomic>
#include <memory>
#include <mutex>

#include "logger.h"
#include "process/connector_source.h"
#include "process/proc_directory.h"
#include "process/process_table.h"
#include "process/trace_ring.h"
#include "process/trace_source.h"
#include "process/tracer_thread.h"
#include "util/clock.h"

namespace NEUtils {

namespace {

constexpr char kName[] = "process tracer";
constexpr std::int64_t kComparePeriodNs = 2 * Clock::kNsPerSecond;

}  // namespace

// One tracer's work: a source, the table of processes and the callbacks.
class ProcessTracer::Session : public RecordSink {
public:
    ~Session() override { Join(); }

    bool Start(const Settings& settings, Callback callback, LossCallback onLoss);
    void Stop();

    Source GetSource() const { return running_ ? kind_.load() : kNone; }
    std::string GetFallbackReason() const
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        return fallbackReason_;
    }
    Counts GetCounts() const;
    long long GetBeatAgeMs() const { return running_ ? (Clock::MonotonicNs() - beatNs_) / Clock::kNsPerMs : -1; }

    void Put(ProcessRecord& record) override;
    void PutLoss() override { unseenLoss_ = true; }
    void Rest(bool isQuiet) override;

private:
    bool Choose(const Settings& settings, std::string& reason);
    bool OpenSource(std::unique_ptr<TraceSource> source, Source kind, std::string& reason);
    bool StartThread();
    void Run();
    bool Join();

    std::atomic<Source> kind_{kNone};
    std::atomic<bool> running_{false};
    std::atomic<std::uint64_t> filtered_{0};
    std::atomic<std::uint64_t> incomplete_{0};
    std::atomic<std::int64_t> beatNs_{0};
    TracerThread thread_;
    Callback callback_;
    LossCallback onLoss_;

    mutable std::mutex mutex_;
    std::shared_ptr<TraceSource> source_;
    std::string fallbackReason_;
    Counts lastCounts_;  // of a source that is gone

    // Of the tracer's thread alone:
    std::unique_ptr<ProcessTable> table_;
    bool unseenLoss_ = false;
    std::int64_t comparedNs_ = 0;
};

bool ProcessTracer::Session::Start(const Settings& settings, Callback callback, LossCallback onLoss)
{
    if (running_) {
        NE_LOG(WARN, "The process tracer is running.");
        return false;
    }
    if (callback == nullptr) {
        NE_LOG(ERROR, "The callback is null.");
        return false;
    }
    if (!Join()) {
        return false;
    }
    callback_ = std::move(callback);
    onLoss_ = std::move(onLoss);
    filtered_ = incomplete_ = 0;
    std::string reason;
    if (!Choose(settings, reason)) {
        NE_LOG(ERROR, "Fail to start the process tracer.[source=%s reason=%s]", GetSourceName(settings.source),
               reason.c_str());
        return false;
    }
    table_ = std::make_unique<ProcessTable>(kind_ == kTrace);
    unseenLoss_ = false;
    return StartThread();
}

// Takes the best source that is wanted and works, and says which it is and why not the other.
bool ProcessTracer::Session::Choose(const Settings& settings, std::string& reason)
{
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        fallbackReason_.clear();
        lastCounts_ = {};
    }
    if (settings.source != kConnector) {
        std::unique_ptr<TraceSource> ring = MakeTraceRing(settings);
        if (ring == nullptr) {
            reason = "built without trace programs";
        } else if (OpenSource(std::move(ring), kTrace, reason)) {
            NE_LOG(INFO, "The process tracer started.[source=trace]");
            return true;
        }
        if (settings.source == kTrace) {
            return false;
        }
    }
    const std::string whyNotTrace = settings.source == kConnector ? "not wanted" : reason;
    if (!OpenSource(MakeConnectorSource(settings), kConnector, reason)) {
        reason = "trace: " + whyNotTrace + "; connector: " + reason;
        return false;
    }
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        fallbackReason_ = settings.source == kConnector ? "" : whyNotTrace;
    }
    const auto level = settings.source == kConnector ? INFO : WARN;
    NE_LOG(level, "The process tracer started.[source=connector trace=%s]", whyNotTrace.c_str());
    return true;
}

bool ProcessTracer::Session::OpenSource(std::unique_ptr<TraceSource> source, Source kind, std::string& reason)
{
    if (!source->Open(reason)) {
        return false;
    }
    const std::lock_guard<std::mutex> lock(mutex_);
    source_ = std::move(source);
    kind_ = kind;
    return true;
}

bool ProcessTracer::Session::StartThread()
{
    beatNs_ = Clock::MonotonicNs();
    running_ = true;
    if (!thread_.Start("process-tracer", [this] { Run(); })) {
        running_ = false;
        Join();
        return false;
    }
    return true;
}

void ProcessTracer::Session::Run()
{
    try {
        table_->CompareWithProc(running_);
    } catch (const std::exception& error) {
        LogTracerFailure(error);
        unseenLoss_ = true;  // it is made up for later
    }
    comparedNs_ = Clock::MonotonicNs();
    source_->Run(*this);  // nobody changes it before this thread is joined
}

void ProcessTracer::Session::Put(ProcessRecord& record)
{
    if (!table_->Follow(record)) {
        ++filtered_;
        return;
    }
    if (!record.whole) {
        ++incomplete_;
    }
    CallOwner(kName, [&] { callback_(record); });
}

// Looking at /proc takes its time, in which more would be lost: so it waits for a pause, but not for ever.
void ProcessTracer::Session::Rest(bool isQuiet)
{
    beatNs_ = Clock::MonotonicNs();
    if (!unseenLoss_ || (!isQuiet && Clock::MonotonicNs() - comparedNs_ < kComparePeriodNs)) {
        return;
    }
    unseenLoss_ = false;
    table_->CompareWithProc(running_);
    comparedNs_ = Clock::MonotonicNs();
    const Counts::Kinds lost = GetCounts().lost;
    NE_LOG(WARN, "Process events were lost.[forks=%llu execs=%llu exits=%llu unknown=%llu]",
           static_cast<unsigned long long>(lost.forks), static_cast<unsigned long long>(lost.execs),
           static_cast<unsigned long long>(lost.exits), static_cast<unsigned long long>(lost.unknown));
    if (onLoss_ != nullptr) {
        CallOwner(kName, [&] { onLoss_(lost); });
    }
}

void ProcessTracer::Session::Stop()
{
    if (!running_.exchange(false)) {
        NE_LOG(WARN, "The process tracer has stopped.");
    } else {
        source_->RequestStop(!thread_.IsOwn());
        NE_LOG(INFO, "The process tracer stops.");
    }
    if (!thread_.IsOwn()) {
        Join();
    }
}

// True once neither thread nor source is left.
bool ProcessTracer::Session::Join()
{
    if (thread_.IsOwn()) {
        NE_LOG(ERROR, "The process tracer cannot wait for its own thread.");
        return false;
    }
    if (running_.exchange(false)) {
        source_->RequestStop(true);
    }
    thread_.Join();
    const Counts counts = GetCounts();
    std::shared_ptr<TraceSource> source;
    const std::lock_guard<std::mutex> lock(mutex_);
    lastCounts_ = counts;
    source.swap(source_);
    kind_ = kNone;
    return true;
}

ProcessTracer::Counts ProcessTracer::Session::GetCounts() const
{
    std::shared_ptr<TraceSource> source;
    Counts counts;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        source = source_;
        counts = lastCounts_;
    }
    if (source != nullptr) {
        counts = source->GetCounts();
    }
    counts.filtered = filtered_;
    counts.incomplete = incomplete_;
    return counts;
}

ProcessTracer::ProcessTracer() : session_(std::make_unique<Session>()) {}
ProcessTracer::~ProcessTracer() = default;

bool ProcessTracer::Start(const Settings& settings, Callback callback, LossCallback onLoss)
{
    return session_->Start(settings, std::move(callback), std::move(onLoss));
}

void ProcessTracer::Stop()
{
    session_->Stop();
}

ProcessTracer::Source ProcessTracer::GetSource() const
{
    return session_->GetSource();
}

std::string ProcessTracer::GetFallbackReason() const
{
    return session_->GetFallbackReason();
}

ProcessTracer::Counts ProcessTracer::GetCounts() const
{
    return session_->GetCounts();
}

long long ProcessTracer::GetBeatAgeMs() const
{
    return session_->GetBeatAgeMs();
}

bool ProcessTracer::ReadProcess(int pid, ProcessRecord& record)
{
    ProcStat stat;
    const ProcDirectory process(pid);
    if (!process.IsOpen() || !process.ReadRecord(record, stat)) {
        return false;
    }
    record.pid = record.tid = pid;
    record.foreignMountNs = record.mountNs != 0 && record.mountNs != HostMountNs();
    record.foreignPidNs = record.pidNs != 0 && record.pidNs != kHostPidNs;
    return true;
}

const char* ProcessTracer::GetSourceName(Source source)
{
    constexpr const char* kNames[] = {"none", "auto", "trace", "connector"};
    return source <= kConnector ? kNames[source] : "unknown";
}

}  // namespace NEUtils
