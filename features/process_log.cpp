#include "process_log.h"

#include <fnmatch.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>

#include "event.h"
#include "process_utils.h"
#include "util/clock.h"

namespace {

std::string ContainerOf(int pid)
{
    std::string id;
    return ProcessUtils::GetContainerId(pid, id) ? id : std::string();
}

// A time of the kernel's monotonic clock as milliseconds since 1970. One that is still to come cannot be right.
std::int64_t WallMsOf(std::int64_t monotonicNs)
{
    const std::int64_t age = NEUtils::Clock::MonotonicNs() - monotonicNs;
    return NEUtils::Clock::WallMs() - (monotonicNs > 0 && age > 0 ? age / NEUtils::Clock::kNsPerMs : 0);
}

// A command line without its arguments.
std::string ProgramOf(const std::string& cmdLine)
{
    return cmdLine == kUnread ? cmdLine : cmdLine.substr(0, cmdLine.find(' '));
}

Event::Kind KindOf(NEUtils::ProcessEvent event)
{
    switch (event) {
    case NEUtils::kProcessExecuted:
        return {NEUtils::kMsgProcess, "executed", "Process executed."};
    case NEUtils::kProcessExited:
        return {NEUtils::kMsgProcess, "exited", "Process exited."};
    default:
        return {NEUtils::kMsgProcess, "killed", "Process killed."};
    }
}

}  // namespace

void ProcessLog::LoadRunningProcesses()
{
    processes_.clear();
    own_.clear();
    std::vector<int> pids;
    ProcessUtils::GetProcessIds(pids);
    for (const int pid : pids) {
        ProcessUtils::ProcessStatus status;
        if (!ProcessUtils::GetProcessStatus(pid, status)) {
            continue;
        }
        if (status.parentPid == getpid()) {
            own_.insert(pid);
        } else {
            processes_[pid] = {status.parentPid, UserName(status.uid), ContainerOf(pid), CmdLineOf(pid, status),
                               status.threads};
        }
    }
}

void ProcessLog::Handle(const proc_event& event)
{
    timeNs_ = static_cast<std::int64_t>(event.timestamp_ns);
    timeMs_ = WallMsOf(timeNs_);
    switch (static_cast<std::uint32_t>(event.what)) {
    case NEUtils::kForkEvent: {
        const auto& fork = event.event_data.fork;
        if (fork.child_pid == fork.child_tgid) {
            OnFork(fork.parent_tgid, fork.child_tgid);
        } else {
            OnNewThread(fork.child_tgid);
        }
        break;
    }
    case NEUtils::kExecEvent:
        OnExec(event.event_data.exec.process_tgid);
        break;
    case NEUtils::kExitEvent: {
        const auto& exit = event.event_data.exit;
        OnThreadExit(exit.process_pid, exit.process_tgid, exit.exit_code);
        break;
    }
    case NEUtils::kUidEvent: {
        const auto& id = event.event_data.id;
        const auto found = processes_.find(id.process_tgid);
        if (found != processes_.end() && id.process_pid == id.process_tgid) {
            found->second.user = UserName(id.r.ruid);
        }
        break;
    }
    default:
        break;
    }
}

void ProcessLog::OnFork(int parent, int child)
{
    if (parent == getpid() || own_.count(parent) != 0) {
        own_.insert(child);
        return;
    }
    own_.erase(child);  // its exit was lost, and the id belongs to somebody else now
    Process process;
    const auto found = processes_.find(parent);
    if (found != processes_.end()) {
        process = found->second;
    }
    process.parentPid = parent;
    process.threads = 1;
    process.certainIn = generation_;
    Remember(child) = std::move(process);
}

void ProcessLog::OnNewThread(int pid)
{
    const auto found = processes_.find(pid);
    if (found != processes_.end()) {
        ++found->second.threads;
    }
}

void ProcessLog::OnExec(int pid)
{
    if (own_.count(pid) != 0) {
        return;
    }
    Process& process = Remember(pid);
    process.threads = 1;  // the others have ended
    process.certainIn = generation_;
    process.cmdLine = Process().cmdLine;
    ProcessUtils::ProcessStatus status;
    if (ProcessUtils::GetProcessStatus(pid, status)) {
        if (status.parentPid != 0) {  // one that is about to be gone has lost it
            process.parentPid = status.parentPid;
        }
        process.user = UserName(status.uid);
        process.container = ContainerOf(pid);
        process.cmdLine = CmdLineOf(pid, status);
    }
    if (!IsLeftOut(process, settings_.executed)) {
        LogEvent(NEUtils::kProcessExecuted, pid, process, 0);
    }
}

// A process ends with its last thread, which need not be its first.
void ProcessLog::OnThreadExit(int thread, int pid, unsigned int waitStatus)
{
    if (own_.count(pid) != 0) {
        if (thread == pid) {
            own_.erase(pid);
        }
        return;
    }
    const auto found = processes_.find(pid);
    Process process;
    if (found != processes_.end()) {
        if (!HasEnded(thread, pid, found->second)) {
            return;
        }
        process = std::move(found->second);
        processes_.erase(found);
    } else if (thread != pid) {
        return;
    }
    if (IsLeftOut(process, settings_.ended)) {
        return;
    }
    const int status = static_cast<int>(waitStatus);
    if (WIFSIGNALED(status)) {
        LogEvent(NEUtils::kProcessKilled, pid, process, WTERMSIG(status));
    } else {
        LogEvent(NEUtils::kProcessExited, pid, process, WEXITSTATUS(status));
    }
}

// Where not all its threads were counted, /proc decides: a thread may have begun while the process was read, or its
// start or end may be among the lost events.
bool ProcessLog::HasEnded(int thread, int pid, Process& process) const
{
    process.threads -= process.threads > 0 ? 1 : 0;
    if (process.certainIn == generation_ || (process.threads > 0 && thread != pid)) {
        return process.threads == 0;
    }
    ProcessUtils::ProcessStatus status;
    const bool isThere = ProcessUtils::GetProcessStatus(pid, status);
    const unsigned int ended = status.state == 'Z' && status.threads > 0 ? 1 : 0;  // the first, still counted
    process.threads = isThere ? status.threads - ended : 0;
    return process.threads == 0;
}

bool ProcessLog::IsLeftOut(const Process& process, bool isWanted)
{
    const auto matches = [&process](const std::string& pattern) {
        return fnmatch(pattern.c_str(), process.cmdLine.c_str(), 0) == 0;
    };
    const bool isLeftOut = !isWanted || std::any_of(settings_.excludes.begin(), settings_.excludes.end(), matches);
    leftOut_ += isLeftOut ? 1 : 0;
    return isLeftOut;
}

// The command line is the free text, since a process chooses it.
void ProcessLog::LogEvent(NEUtils::ProcessEvent event, int pid, const Process& process, int code)
{
    if (!repeats_.Admit({event, process.parentPid, ProgramOf(process.cmdLine), process.user, 0, timeMs_}, timeNs_)) {
        return;
    }
    Event record(KindOf(event), timeMs_);
    record.AddToReport(NEUtils::kTagEvent, event)
        .Add("pid", NEUtils::kTagPid, pid)
        .Add("ppid", NEUtils::kTagParentPid, process.parentPid)
        .Add("user", NEUtils::kTagUser, process.user);
    if (event == NEUtils::kProcessExited) {
        record.Add("exitCode", NEUtils::kTagExitCode, code);
    } else if (event == NEUtils::kProcessKilled) {
        record.Add("signal", NEUtils::kTagSignal, code);
    }
    record.Add("container", NEUtils::kTagContainer, process.container)
        .Send("cmdLine", NEUtils::kTagCmdLine, process.cmdLine);
}

void ProcessLog::LogRepeats()
{
    for (const Repeats::Sum& sum : repeats_.Take()) {
        Event({NEUtils::kMsgRepeats, "repeats", "Process repeated."}, sum.lastMs)
            .Add("action", NEUtils::kTagAction, KindOf(sum.event).type)
            .AddCount(sum.count)
            .Add("ppid", NEUtils::kTagParentPid, sum.parentPid)
            .Add("user", NEUtils::kTagUser, sum.user)
            .Send("program", NEUtils::kTagProgram, sum.program);
    }
}

ProcessLog::Process& ProcessLog::Remember(int pid)
{
    if (processes_.size() + own_.size() >= limit_) {
        ForgetEnded();
    }
    return processes_[pid];
}

// Processes whose exits the kernel could not deliver would otherwise stay for good.
void ProcessLog::ForgetEnded()
{
    std::vector<int> pids;
    ProcessUtils::GetProcessIds(pids);
    std::unordered_map<int, Process> alive;
    std::unordered_set<int> ownAlive;
    for (const int pid : pids) {
        if (own_.count(pid) != 0) {
            ownAlive.insert(pid);
        }
        const auto node = processes_.extract(pid);
        if (!node.empty()) {
            alive.emplace(pid, node.mapped());
        }
    }
    processes_.swap(alive);
    own_.swap(ownAlive);
    limit_ = processes_.size() * 2 < 65536 ? 65536 : processes_.size() * 2;
}
