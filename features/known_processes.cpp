#include "known_processes.h"

#include <unistd.h>

#include <algorithm>
#include <utility>
#include <vector>

#include "logger.h"
#include "process_tracer.h"
#include "process_utils.h"

namespace {

using NEUtils::ProcessRecord;

constexpr std::size_t kUsualLimit = 65536;
constexpr std::size_t kLongestComm = 15;
constexpr std::uint64_t kStartToleranceNs = 100000000;  // /proc rounds to 10 ms, and an event comes a little later

std::string BaseName(const std::string& path)
{
    return path.substr(path.rfind('/') + 1);
}

std::string CmdLineOf(const ProcessRecord& record)
{
    std::string line;
    for (const std::string& argument : record.args) {
        line.append(&argument == record.args.data() ? "" : " ").append(argument);
        if (line.size() >= kMaxCmdLine) {
            line.resize(kMaxCmdLine);
            break;
        }
    }
    if (!line.empty()) {
        return NEUtils::Printable(line);
    }
    const bool wasRead = record.argCount == 0 || !record.args.empty();
    return wasRead && !record.comm.empty() ? NEUtils::Printable("[" + record.comm + "]") : kUnread;
}

// True if the process calls itself other than its program. A login shell has a '-' before its name. With the connector
// the path is that behind all links, and only the name of the process says what it was called by. A descriptor has no
// name that could differ.
bool HasOtherName(const ProcessRecord& record)
{
    if (record.args.empty() || record.exe.empty() || record.exe.compare(0, 8, "/dev/fd/") == 0) {
        return false;
    }
    std::string name = BaseName(record.args[0]);
    name.erase(0, name.find_first_not_of('-') == 1 ? 1 : 0);
    const bool isKnown = name == BaseName(record.exe) || name == BaseName(record.exeGiven) ||
                         name.substr(0, kLongestComm) == record.comm;
    return name.empty() || !isKnown;
}

std::string NotesOf(const ProcessRecord& record)
{
    const std::pair<bool, const char*> notes[] = {
        {record.exeDeleted && !record.exeInMemory, "deleted"},
        {record.exeInMemory, "in-memory"},
        {HasOtherName(record), "other-name"},
        {record.exeSetUid, "set-user-id"},
        {record.exeSetGid, "set-group-id"},
        {record.foreignMountNs, "mount-namespace"},
        {record.foreignPidNs, "pid-namespace"},
        {!record.whole, "incomplete"},
    };
    std::string text;
    for (const auto& [holds, note] : notes) {
        if (holds) {
            text.append(text.empty() ? "" : ",").append(note);
        }
    }
    return text;
}

bool IsSameStart(std::uint64_t one, std::uint64_t other)
{
    return std::max(one, other) - std::min(one, other) < kStartToleranceNs;
}

}  // namespace

Program MakeProgram(const ProcessRecord& record)
{
    return {record.exe, record.script, CmdLineOf(record), NotesOf(record)};
}

KnownProcesses::KnownProcesses() : unread_(std::make_shared<Program>()), limit_(kUsualLimit) {}

const KnownProcesses::Entry* KnownProcesses::Find(int pid, std::uint64_t startNs) const
{
    const auto found = entries_.find(pid);
    const bool isIt = found != entries_.end() && (startNs == 0 || IsSameStart(found->second.startNs, startNs));
    return isIt ? &found->second : nullptr;
}

bool KnownProcesses::IsOwnChild(const ProcessRecord& record) const
{
    const Entry* const parent = Find(record.parentPid, record.parentStartNs);
    return record.parentPid == getpid() || (parent != nullptr && parent->isOwn);
}

void KnownProcesses::AddFork(const ProcessRecord& record)
{
    MakeRoom();
    const Entry* const parent = Find(record.parentPid, record.parentStartNs);
    const auto program = parent == nullptr ? nullptr : parent->program;
    entries_[record.pid] = {record.startNs, program == nullptr ? unread_ : program, IsOwnChild(record), false, program};
}

KnownProcesses::Entry KnownProcesses::AddExec(const ProcessRecord& record)
{
    MakeRoom();
    const Entry* const known = Find(record.pid, record.startNs);
    const bool isOwn = known == nullptr ? IsOwnChild(record) : known->isOwn;
    const auto parent = known == nullptr ? nullptr : known->parent;
    return entries_[record.pid] = {record.startNs, std::make_shared<Program>(MakeProgram(record)), isOwn, false,
                                   parent};
}

KnownProcesses::Entry KnownProcesses::TakeExit(const ProcessRecord& record)
{
    Entry entry = {record.startNs, unread_, IsOwnChild(record), false, nullptr};
    if (const Entry* const known = Find(record.pid, record.startNs)) {
        entry = *known;
        entries_.erase(record.pid);
    }
    return entry;
}

std::string KnownProcesses::FindExe(int pid, std::uint64_t startNs) const
{
    const Entry* const known = Find(pid, startNs);
    return known == nullptr ? std::string() : known->program->exe;
}

// What is known of a process that /proc has. Its exec may have been lost; otherwise the exec has said more.
KnownProcesses::Entry KnownProcesses::Refresh(const ProcessRecord& record) const
{
    Entry entry = {record.startNs, unread_, IsOwnChild(record), false, nullptr};
    if (const Entry* const known = Find(record.pid, record.startNs)) {
        entry = *known;
        entry.isMissing = false;
    }
    Program program = MakeProgram(record);
    if (program.cmdLine != entry.program->cmdLine) {
        entry.program = std::make_shared<Program>(std::move(program));
    }
    return entry;
}

void KnownProcesses::CompareWithProc()
{
    std::vector<int> pids;
    ProcessUtils::GetProcessIds(pids);
    Entries living;
    for (const int pid : pids) {
        ProcessRecord record;
        if (stopping_) {
            return;
        }
        if (NEUtils::ProcessTracer::ReadProcess(pid, record)) {
            living.emplace(pid, Refresh(record));
        }
    }
    for (auto& [pid, entry] : entries_) {
        if (!std::exchange(entry.isMissing, true)) {
            living.emplace(pid, entry);
        }
    }
    entries_.swap(living);
}

void KnownProcesses::MakeRoom()
{
    if (entries_.size() >= limit_) {
        CompareWithProc();
        limit_ = std::max(kUsualLimit, entries_.size() * 2);
    }
}
