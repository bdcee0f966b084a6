#include "process_log.h"

#include <sys/wait.h>
#include <unistd.h>

#include <vector>

#include "logger.h"
#include "process_utils.h"
#include "report.h"
#include "user_info.h"

namespace {

// Leaves room for the rest of a record.
constexpr std::size_t kMaxCmdLine = 3500;

std::string UserName(unsigned int uid)
{
    std::string name;
    return NEUtils::UserInfo::GetInstance().GetUserName(uid, name) ? name : std::to_string(uid);
}

// A kernel thread has no command line but a name, and so has a process that has just ended.
std::string Describe(int pid, const ProcessUtils::ProcessStatus& status)
{
    std::string cmdLine;
    if (!ProcessUtils::GetCmdLine(pid, cmdLine, kMaxCmdLine) || cmdLine.empty()) {
        return Printable("[" + status.name + "]");
    }
    return Printable(cmdLine);
}

}  // namespace

// Replaces control characters, the ones from 0x80 to 0x9f in both their forms, and what is not UTF-8.
std::string Printable(std::string text)
{
    unsigned int following = 0;  // bytes that the character under way still wants
    unsigned char before = 0;
    for (char& letter : text) {
        const auto byte = static_cast<unsigned char>(letter);
        const bool follows = (byte & 0xC0U) == 0x80 && following > 0 && !(before == 0xC2 && byte < 0xA0);
        if (follows) {
            --following;
        } else {
            following = byte >= 0xF0 ? 3 : byte >= 0xE0 ? 2 : byte >= 0xC0 ? 1 : 0;
            if (byte < ' ' || (byte >= 0x7F && byte < 0xC0)) {
                letter = '?';
            }
        }
        before = byte;
    }
    return text;
}

void DescribeProcess(int pid, std::string& user, std::string& cmdLine)
{
    ProcessUtils::ProcessStatus status;
    const bool found = ProcessUtils::GetProcessStatus(pid, status);
    user = found ? UserName(status.uid) : "?";
    cmdLine = found ? Describe(pid, status) : "(ended before it could be read)";
}

void ProcessLog::LoadRunningProcesses()
{
    processes_.clear();
    own_.clear();
    std::vector<int> pids;
    ProcessUtils::GetProcessIds(pids);
    for (const int pid : pids) {
        ProcessUtils::ProcessStatus status;
        if (ProcessUtils::GetProcessStatus(pid, status)) {
            processes_[pid] = {status.parentPid, UserName(status.uid), Describe(pid, status), status.threads};
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
    process.cmdLine = Process().cmdLine;
    ProcessUtils::ProcessStatus status;
    if (ProcessUtils::GetProcessStatus(pid, status)) {
        process.parentPid = status.parentPid;
        process.user = UserName(status.uid);
        process.cmdLine = Describe(pid, status);
    }
    NE_LOG(INFO, "Process executed.[pid=%d ppid=%d user=%s cmdLine=%s]", pid, process.parentPid, process.user.c_str(),
           process.cmdLine.c_str());
    ReportEvent(NEUtils::kProcessExecuted, pid, process, 0);
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
        if (--found->second.threads > 0) {
            return;
        }
        process = std::move(found->second);
        processes_.erase(found);
    } else if (thread != pid) {
        return;
    }
    const int status = static_cast<int>(waitStatus);
    if (WIFSIGNALED(status)) {
        NE_LOG(INFO, "Process killed.[pid=%d ppid=%d user=%s signal=%d cmdLine=%s]", pid, process.parentPid,
               process.user.c_str(), WTERMSIG(status), process.cmdLine.c_str());
        ReportEvent(NEUtils::kProcessKilled, pid, process, WTERMSIG(status));
    } else {
        NE_LOG(INFO, "Process exited.[pid=%d ppid=%d user=%s exitCode=%d cmdLine=%s]", pid, process.parentPid,
               process.user.c_str(), WEXITSTATUS(status), process.cmdLine.c_str());
        ReportEvent(NEUtils::kProcessExited, pid, process, WEXITSTATUS(status));
    }
}

void ProcessLog::ReportEvent(NEUtils::ProcessEvent event, int pid, const Process& process, int code) const
{
    if (!reports_) {
        return;
    }
    Report report(NEUtils::kMsgProcess);
    report.Add(NEUtils::kTagEvent, static_cast<int>(event))
        .Add(NEUtils::kTagPid, pid)
        .Add(NEUtils::kTagParentPid, process.parentPid)
        .Add(NEUtils::kTagUser, process.user)
        .Add(NEUtils::kTagCmdLine, process.cmdLine);
    if (event != NEUtils::kProcessExecuted) {
        report.Add(event == NEUtils::kProcessExited ? NEUtils::kTagExitCode : NEUtils::kTagSignal, code);
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
