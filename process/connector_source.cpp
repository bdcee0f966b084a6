#include "process/connector_source.h"

#include <poll.h>
#include <sys/eventfd.h>

#include <algorithm>
#include <atomic>
#include <deque>
#include <unordered_map>
#include <vector>

#include "process/connector_socket.h"
#include "process/exec_reader.h"
#include "process/proc_directory.h"
#include "process/trace_decoder.h"
#include "process/tracer_thread.h"
#include "process_monitor.h"
#include "process_utils.h"
#include "util/clock.h"
#include "util/errno_text.h"

namespace NEUtils {

namespace {

constexpr int kIdleWaitMs = 1000;
constexpr std::uint64_t kSettleNs = 5 * Clock::kNsPerMs;  // after it the next exec of a process has shown up, too
constexpr std::uint64_t kLearnPeriodNs = 2 * Clock::kNsPerSecond;
constexpr std::size_t kMaxBatches = 200;  // in one round
constexpr std::size_t kLookAhead = 256;

std::uint64_t NsOf(clockid_t clock)
{
    timespec now = {};
    clock_gettime(clock, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * Clock::kNsPerSecond + static_cast<std::uint64_t>(now.tv_nsec);
}

class ConnectorSource : public TraceSource {
public:
    explicit ConnectorSource(const TracerSettings& settings)
        : priority_(settings.priority), restMs_(std::clamp(settings.wakeMs, 1, kIdleWaitMs))
    {
    }

    bool Open(std::string& reason) override;
    void Run(RecordSink& sink) override;
    void RequestStop(bool toEnd) override;
    TracerCounts GetCounts() const override;

private:
    // What is known of a living process; as a record, since each one begins with it.
    struct Known {
        ProcessRecord record;
        bool leaderEnded = false;  // but maybe not the process
    };

    void LearnProcesses();
    void RunRound(RecordSink& sink);
    void Receive();
    bool Wait(int timeoutMs, bool forEvents) const;
    bool HandleDue(RecordSink& sink, std::uint64_t settleNs);
    void HandleRest(RecordSink& sink);
    void Handle(const proc_event& event, RecordSink& sink);
    void HandleFork(const proc_event& event, RecordSink& sink);
    void HandleExec(const proc_event& event, RecordSink& sink);
    void HandleIds(const proc_event& event);
    void HandleExit(const proc_event& event, RecordSink& sink);
    bool LivesOn(int pid, const Known& known) const;
    void PutTime(const proc_event& event, ProcessRecord& record) const;
    void Put(ProcessRecord& record, RecordSink& sink);

    const int priority_;
    const int restMs_;
    UniqueFd stop_;
    ConnectorSocket socket_;
    ExecReader reader_;
    std::atomic<bool> running_{true};
    std::atomic<bool> handlesRest_{false};
    std::atomic<std::uint64_t> forks_{0};
    std::atomic<std::uint64_t> execs_{0};
    std::atomic<std::uint64_t> exits_{0};
    std::atomic<std::uint64_t> lost_{0};
    std::atomic<std::uint64_t> failures_{0};

    // Of the tracer's thread alone:
    const std::uint32_t hostMountNs_ = HostMountNs();
    std::uint64_t bootOffsetNs_ = 0;  // of the clock of the events
    std::uint64_t wallOffsetNs_ = 0;  // of the time since the boot
    bool missed_ = true;              // at the start, too
    std::uint64_t learnedNs_ = 0;
    std::vector<proc_event> batch_;
    std::deque<proc_event> pending_;
    std::unordered_map<int, Known> known_;
};

bool ConnectorSource::Open(std::string& reason)
{
    stop_.Reset(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!stop_.IsValid()) {
        const int error = errno;
        reason = std::string("cannot make an event descriptor: ") + ErrnoText(error).Get();
        return false;
    }
    return reader_.Open(priority_, reason) && socket_.Open(ConnectorSocket::kProcesses, reason);
}

void ConnectorSource::RequestStop(bool toEnd)
{
    handlesRest_ = toEnd;
    running_ = false;
    if (!toEnd) {
        reader_.RequestStop();
    }
    eventfd_write(stop_.Get(), 1);
}

TracerCounts ConnectorSource::GetCounts() const
{
    TracerCounts counts;
    counts.seen = counts.received = {forks_, execs_, exits_, 0};
    counts.lost.unknown = lost_;
    counts.malformed = failures_;
    return counts;
}

// Those that were there before, and after a loss those that were missed. Who has ended meanwhile is dropped.
void ConnectorSource::LearnProcesses()
{
    std::vector<int> pids;
    if (!ProcessUtils::GetProcessIds(pids)) {
        return;
    }
    std::unordered_map<int, Known> living;
    for (const int pid : pids) {
        const ProcDirectory process(pid);
        Known found;
        ProcStat stat;
        if (!running_) {
            return;
        }
        if (!process.IsOpen() || !process.ReadRecord(found.record, stat)) {
            continue;
        }
        const auto known = known_.find(pid);
        if (known != known_.end() && IsSameStart(known->second.record.startNs, found.record.startNs)) {
            found = std::move(known->second);
        }
        found.record.pid = pid;
        ForgetProgram(found.record);
        living.emplace(pid, std::move(found));
    }
    known_.swap(living);
}

// True if a stop, or events, came.
bool ConnectorSource::Wait(int timeoutMs, bool forEvents) const
{
    pollfd waiting[] = {{stop_.Get(), POLLIN, 0}, {forEvents ? socket_.Fd() : -1, POLLIN, 0}};
    return poll(waiting, 2, timeoutMs) > 0;
}

void ConnectorSource::Run(RecordSink& sink)
{
    while (running_) {
        try {
            RunRound(sink);
        } catch (const std::exception& error) {  // memory has run out
            ++failures_;
            missed_ = true;
            sink.PutLoss();
            LogTracerFailure(error);
        }
        Wait(restMs_, false);
    }
    if (handlesRest_) {
        HandleRest(sink);
    }
}

void ConnectorSource::RunRound(RecordSink& sink)
{
    if (missed_ && (pending_.empty() || ConnectorNow() - learnedNs_ > kLearnPeriodNs)) {
        // On a busy host something is always pending: then it is handled too early, once.
        HandleDue(sink, 0);
        LearnProcesses();
        missed_ = false;
        learnedNs_ = ConnectorNow();
    }
    if (pending_.empty()) {
        Wait(kIdleWaitMs, true);
    }
    Receive();
    const bool quiet = !HandleDue(sink, kSettleNs);
    if (const std::uint64_t losses = socket_.TakeLosses(); losses != 0) {
        lost_ += losses;
        missed_ = true;
        sink.PutLoss();
    }
    sink.Rest(quiet && pending_.empty());
}

void ConnectorSource::Receive()
{
    bootOffsetNs_ = NsOf(CLOCK_BOOTTIME) - NsOf(CLOCK_MONOTONIC);
    wallOffsetNs_ = NsOf(CLOCK_REALTIME) - NsOf(CLOCK_BOOTTIME);
    for (std::size_t i = 0; i < kMaxBatches && socket_.Receive(batch_) > 0; ++i) {
        pending_.insert(pending_.end(), batch_.begin(), batch_.end());
    }
}

// What is left after half a second counts as lost.
void ConnectorSource::HandleRest(RecordSink& sink)
{
    const std::uint64_t end = ConnectorNow() + Clock::kNsPerSecond / 2;
    try {
        Receive();
        for (; !pending_.empty() && ConnectorNow() < end; pending_.pop_front()) {
            const proc_event event = pending_.front();
            Handle(event, sink);
        }
    } catch (const std::exception& error) {  // memory has run out
        ++failures_;
        LogTracerFailure(error);
    }
    lost_ += pending_.size();
}

// True if there were any.
bool ConnectorSource::HandleDue(RecordSink& sink, std::uint64_t settleNs)
{
    const std::uint64_t now = ConnectorNow();
    bool found = false;
    while (running_ && !pending_.empty() && pending_.front().timestamp_ns + settleNs <= now) {
        const proc_event event = pending_.front();
        pending_.pop_front();
        Handle(event, sink);
        found = true;
    }
    return found;
}

void ConnectorSource::Handle(const proc_event& event, RecordSink& sink)
{
    switch (static_cast<std::uint32_t>(event.what)) {
    case kForkEvent:
        HandleFork(event, sink);
        break;
    case kExecEvent:
        HandleExec(event, sink);
        break;
    case kUidEvent:
    case kGidEvent:
        HandleIds(event);
        break;
    case kExitEvent:
        HandleExit(event, sink);
        break;
    default:
        break;
    }
}

void ConnectorSource::PutTime(const proc_event& event, ProcessRecord& record) const
{
    record.bootNs = event.timestamp_ns + bootOffsetNs_;
    record.wallNs = static_cast<std::int64_t>(record.bootNs + wallOffsetNs_);
}

void ConnectorSource::Put(ProcessRecord& record, RecordSink& sink)
{
    record.foreignMountNs = record.mountNs != 0 && record.mountNs != hostMountNs_;
    record.foreignPidNs = record.pidNs != 0 && record.pidNs != kHostPidNs;
    sink.Put(record);
}

// A new process is what its parent is, but for its ids and its start.
void ConnectorSource::HandleFork(const proc_event& event, RecordSink& sink)
{
    const auto& fork = event.event_data.fork;
    ++forks_;
    const auto parent = known_.find(fork.parent_tgid);
    Known child;
    if (parent != known_.end()) {
        child.record = parent->second.record;
        child.record.parentStartNs = parent->second.record.startNs;
        child.record.nsPid = child.record.pidNs == kHostPidNs ? fork.child_tgid : 0;
    }
    PutTime(event, child.record);
    child.record.kind = ProcessRecord::kFork;
    child.record.whole = parent != known_.end();
    child.record.pid = child.record.tid = fork.child_tgid;
    child.record.parentPid = fork.parent_tgid;
    child.record.startNs = child.record.bootNs;
    ProcessRecord copy = child.record;
    known_[fork.child_tgid] = std::move(child);
    Put(copy, sink);
}

void ConnectorSource::HandleExec(const proc_event& event, RecordSink& sink)
{
    const int pid = event.event_data.exec.process_tgid;
    ++execs_;
    ProcessRecord record;
    const bool seen = reader_.Take(pid, event.timestamp_ns, record);
    const auto before = known_.find(pid);
    if (before != known_.end()) {
        const ProcessRecord& old = before->second.record;
        if (!seen) {
            record = old;
            record.comm.clear();
        }
        record.startNs = old.startNs;
        record.parentPid = old.parentPid;
        record.parentStartNs = old.parentStartNs;
    }
    PutTime(event, record);
    record.kind = ProcessRecord::kExec;
    record.whole = seen;
    record.pid = record.tid = pid;
    record.startNs = record.startNs != 0 ? record.startNs : record.bootNs;
    Known& known = known_[pid];
    known = {};
    known.record = record;
    ForgetProgram(known.record);  // the next records are no execs
    Put(record, sink);
}

void ConnectorSource::HandleIds(const proc_event& event)
{
    const auto known = known_.find(event.event_data.id.process_tgid);
    if (known == known_.end() || event.event_data.id.process_pid != event.event_data.id.process_tgid) {
        return;
    }
    ProcessRecord& record = known->second.record;
    if (event.what == kUidEvent) {
        record.uid = event.event_data.id.r.ruid;
        record.euid = event.event_data.id.e.euid;
    } else {
        record.gid = event.event_data.id.r.rgid;
        record.egid = event.event_data.id.e.egid;
    }
}

// The first thread may end before the others, or because another one executes a program: then an exec follows.
bool ConnectorSource::LivesOn(int pid, const Known& known) const
{
    const std::size_t end = std::min(pending_.size(), kLookAhead);
    for (std::size_t i = 0; i < end; ++i) {
        const proc_event& event = pending_[i];
        if (event.what == kExecEvent && event.event_data.exec.process_tgid == pid) {
            return true;
        }
        if (event.what == kForkEvent && event.event_data.fork.child_tgid == pid) {
            return false;
        }
    }
    const ProcDirectory process(pid);
    ProcStat stat;
    return process.IsOpen() && process.ReadStat(stat) && IsSameStart(stat.startNs, known.record.startNs) &&
           ((stat.state != 'Z' && stat.state != 'X') || stat.threads > 1);
}

void ConnectorSource::HandleExit(const proc_event& event, RecordSink& sink)
{
    const auto& exit = event.event_data.exit;
    const auto found = known_.find(exit.process_tgid);
    const bool isLeader = exit.process_pid == exit.process_tgid;
    if (!isLeader && (found == known_.end() || !found->second.leaderEnded)) {
        return;
    }
    if (found != known_.end() && LivesOn(exit.process_tgid, found->second)) {
        found->second.leaderEnded = true;
        return;
    }
    ++exits_;
    ProcessRecord record;
    if (found != known_.end()) {
        record = std::move(found->second.record);
        known_.erase(found);
        record.whole = true;
    }
    PutTime(event, record);
    record.kind = ProcessRecord::kExit;
    record.pid = record.tid = exit.process_tgid;
    PutExitStatus(static_cast<int>(exit.exit_code), record);
    Put(record, sink);
}

}  // namespace

std::unique_ptr<TraceSource> MakeConnectorSource(const TracerSettings& settings)
{
    return std::make_unique<ConnectorSource>(settings);
}

}  // namespace NEUtils
