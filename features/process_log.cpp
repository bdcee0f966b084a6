#include "process_log.h"

#include <fnmatch.h>

#include <algorithm>
#include <cstddef>

namespace {

using NEUtils::ProcessRecord;

constexpr std::int64_t kNsPerMs = 1000000;
constexpr std::uint64_t kNsPerUs = 1000;

// A command line without its arguments.
std::string ProgramOf(const std::string& cmdLine)
{
    return cmdLine == kUnread ? cmdLine : cmdLine.substr(0, cmdLine.find(' '));
}

std::string NameOf(std::uint32_t uid)
{
    return uid == ProcessRecord::kNoId ? "?" : UserName(uid);
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

// Begins the event with what all of them have.
void AddIds(NEUtils::ProcessEvent kind, const ProcessRecord& record, Event& event)
{
    event.AddToReport(NEUtils::kTagEvent, kind)
        .Add("pid", NEUtils::kTagPid, record.pid)
        .Add("ppid", NEUtils::kTagParentPid, record.parentPid)
        .Add("user", NEUtils::kTagUser, NameOf(record.uid));
}

void AddEnd(const ProcessRecord& record, Event& event)
{
    if (record.exitSignal != 0) {
        event.Add("signal", NEUtils::kTagSignal, record.exitSignal);
    } else {
        event.Add("exitCode", NEUtils::kTagExitCode, record.exitCode);
    }
    if (record.startNs != 0 && record.startNs <= record.bootNs) {
        event.AddLong("duration", NEUtils::kTagDuration, (record.bootNs - record.startNs) / kNsPerMs);
    }
}

void AddArguments(const ProcessRecord& record, Event& event)
{
    event.AddList("args", NEUtils::kTagArgs, record.args);
    if (record.argsCut) {
        event.AddLong("argsSize", NEUtils::kTagArgsSize, record.argsSize);
    }
}

}  // namespace

void ProcessLog::Handle(const ProcessRecord& record)
{
    switch (record.kind) {
    case ProcessRecord::kFork:
        processes_.AddFork(record);
        break;
    case ProcessRecord::kExec:
        OnExec(record);
        break;
    case ProcessRecord::kExit:
        OnExit(record);
        break;
    }
}

void ProcessLog::OnExec(const ProcessRecord& record)
{
    const Process process = processes_.AddExec(record);
    if (process.isOwn || IsLeftOut(process, settings_.executed) || !Admit(NEUtils::kProcessExecuted, record, process)) {
        return;
    }
    Event event(KindOf(NEUtils::kProcessExecuted), record.wallNs / kNsPerMs);
    AddIds(NEUtils::kProcessExecuted, record, event);
    AddProcess(record, process, event);
    AddArguments(record, event);
    event.Send("cmdLine", NEUtils::kTagCmdLine, process.program->cmdLine);
}

void ProcessLog::OnExit(const ProcessRecord& record)
{
    const Process process = processes_.TakeExit(record);
    const auto kind = record.exitSignal != 0 ? NEUtils::kProcessKilled : NEUtils::kProcessExited;
    if (process.isOwn || IsLeftOut(process, settings_.ended) || !Admit(kind, record, process)) {
        return;
    }
    Event event(KindOf(kind), record.wallNs / kNsPerMs);
    AddIds(kind, record, event);
    AddEnd(record, event);
    AddProcess(record, process, event);
    event.Send("cmdLine", NEUtils::kTagCmdLine, process.program->cmdLine);
}

bool ProcessLog::IsLeftOut(const Process& process, bool isWanted)
{
    const auto matches = [&process](const std::string& pattern) {
        return fnmatch(pattern.c_str(), process.program->cmdLine.c_str(), 0) == 0;
    };
    const bool isLeftOut = !isWanted || std::any_of(settings_.excludes.begin(), settings_.excludes.end(), matches);
    leftOut_ += isLeftOut ? 1 : 0;
    return isLeftOut;
}

// False: it is only counted.
bool ProcessLog::Admit(NEUtils::ProcessEvent kind, const ProcessRecord& record, const Process& process)
{
    return repeats_.Admit(
        {kind, record.parentPid, ProgramOf(process.program->cmdLine), NameOf(record.uid), 0, record.wallNs / kNsPerMs},
        static_cast<std::int64_t>(record.bootNs));
}

void ProcessLog::AddProcess(const ProcessRecord& record, const Process& process, Event& event) const
{
    const Program& program = *process.program;
    event.Add("container", NEUtils::kTagContainer, record.containerId)
        .AddLong("startTime", NEUtils::kTagStartTime, record.startNs / kNsPerUs);
    if (record.euid != record.uid) {
        event.Add("effectiveUser", NEUtils::kTagEffectiveUser, NameOf(record.euid));
    }
    if (record.loginUid != ProcessRecord::kNoId) {
        event.Add("loginUser", NEUtils::kTagLoginUser, NameOf(record.loginUid));
    }
    if (record.session != ProcessRecord::kNoId) {
        event.Add("session", NEUtils::kTagSession, static_cast<int>(record.session));
    }
    const bool knowsParent = process.parent != nullptr && !process.parent->exe.empty();
    event.AddPath("exe", NEUtils::kTagExe, program.exe)
        .AddPath("script", NEUtils::kTagScript, program.script)
        .AddPath("parentExe", NEUtils::kTagParentExe,
                 knowsParent ? process.parent->exe : processes_.FindExe(record.parentPid, record.parentStartNs))
        .Add("notes", NEUtils::kTagNotes, program.notes);
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
