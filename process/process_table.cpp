#include "process/process_table.h"

#include <vector>

#include "process/platform_processes.h"
#include "process/proc_directory.h"
#include "process_utils.h"

namespace NEUtils {

const ProcessTable::Entry* ProcessTable::Find(int pid, std::uint64_t startNs) const
{
    const auto found = entries_.find(pid);
    return found != entries_.end() && IsSameStart(found->second.startNs, startNs) ? &found->second : nullptr;
}

bool ProcessTable::FollowFork(const ProcessRecord& record)
{
    const Entry* const parent = Find(record.parentPid, record.parentStartNs);
    const bool listed = parent != nullptr && parent->listed;
    entries_[record.pid] = {record.startNs, record.parentStartNs, record.parentPid, listed};
    return !listed;
}

bool ProcessTable::Follow(ProcessRecord& record)
{
    if (record.kind == ProcessRecord::kFork) {
        return FollowFork(record);
    }
    const auto found = entries_.find(record.pid);
    bool listed = false;
    if (found != entries_.end()) {
        if (!IsSameStart(found->second.startNs, record.startNs)) {
            entries_.erase(found);  // its end was lost
            return Follow(record);
        }
        const Entry& entry = found->second;
        if (entry.parentPid != 0) {
            record.parentPid = entry.parentPid;
            record.parentStartNs = entry.parentStartNs;
        }
        listed = entry.listed;
    }
    if (record.kind == ProcessRecord::kExit) {
        if (found != entries_.end()) {
            entries_.erase(found);
        }
    } else if (!listed && IsPlatformProgram(record, checkProgram_)) {
        listed = true;
        entries_[record.pid] = {record.startNs, record.parentStartNs, record.parentPid, true};
    }
    return !listed;
}

void ProcessTable::CompareWithProc(const std::atomic<bool>& running)
{
    std::vector<int> pids;
    if (!ProcessUtils::GetProcessIds(pids)) {
        return;
    }
    std::unordered_map<int, Entry> living;
    for (const int pid : pids) {
        if (!running) {
            return;
        }
        const ProcDirectory process(pid);
        ProcessRecord record;
        ProcStat stat;
        if (!process.ReadRecord(record, stat)) {
            continue;
        }
        record.pid = pid;
        if (const Entry* const known = Find(pid, record.startNs)) {
            living.emplace(pid, *known);
        } else if (IsPlatformProgram(record, checkProgram_)) {
            living.emplace(pid, Entry{record.startNs, 0, 0, true});
        }
    }
    entries_.swap(living);
}

}  // namespace NEUtils
