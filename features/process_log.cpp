#include "process_log.h"

#include <fnmatch.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>

#include "describe.h"
#include "logger.h"
#include "process_utils.h"
#include "report.h"

namespace {

std::string ContainerOf(int pid)
{
    std::string id;
    return ProcessUtils::GetContainerId(pid, id) ? id : std::string();
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
        Tell(NEUtils::kProcessExecuted, pid, process, 0);
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
        Tell(NEUtils::kProcessKilled, pid, process, WTERMSIG(status));
    } else {
        Tell(NEUtils::kProcessExited, pid, process, WEXITSTATUS(status));
    }
}

// Where its threads were not all counted, /proc is asked: a thread may have begun while the process was looked at,
// or its beginning or end may be among the lost events.
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

bool ProcessLog::IsLeftOut(const Process& process, bool told)
{
    const auto matches = [&process](const std::string& pattern) {
        return fnmatch(pattern.c_str(), process.cmdLine.c_str(), 0) == 0;
    };
    const bool isLeftOut = !told || std::any_of(settings_.excludes.begin(), settings_.excludes.end(), matches);
    leftOut_ += isLeftOut ? 1 : 0;
    return isLeftOut;
}

// A log record and a report. The command line stands last, since a process chooses it freely.
void ProcessLog::Tell(NEUtils::ProcessEvent event, int pid, const Process& process, int code) const
{
    const bool started = event == NEUtils::kProcessExecuted;
    const bool exited = event == NEUtils::kProcessExited;
    std::string more;
    if (!started) {
        more = (exited ? " exitCode=" : " signal=") + std::to_string(code);
    }
    if (!process.container.empty()) {
        more += " container=" + process.container;
    }
    NE_LOG(INFO, "Process %s.[pid=%d ppid=%d user=%s%s cmdLine=%s]",
           started  ? "executed"
           : exited ? "exited"
                    : "killed",
           pid, process.parentPid, process.user.c_str(), more.c_str(), process.cmdLine.c_str());
    NEUtils::Report report(NEUtils::kMsgProcess);
    report.Add(NEUtils::kTagEvent, static_cast<int>(event))
        .Add(NEUtils::kTagPid, pid)
        .Add(NEUtils::kTagParentPid, process.parentPid)
        .Add(NEUtils::kTagUser, process.user)
        .Add(NEUtils::kTagContainer, process.container)
        .Add(NEUtils::kTagCmdLine, process.cmdLine);
    if (!started) {
        report.Add(exited ? NEUtils::kTagExitCode : NEUtils::kTagSignal, code);
    }
    report.Push();
}

ProcessLog::Process& ProcessLog::Remember(int pid)
{
    if (processes_.size() + own_.size() >= limit_) {
        ForgetEnded();
    }
    return processes_[pid];
}

// Exits that the kernel could not deliver would otherwise stay for good.
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
