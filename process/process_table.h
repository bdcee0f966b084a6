#pragma once

#include <atomic>
#include <cstdint>
#include <unordered_map>

#include "process_record.h"

namespace NEUtils {

// The living processes as far as they were seen to start, and the platform's: who started whom, and of whom nobody is
// notified.
// A process stays the child of the one that forked it, also after that has ended.
//
// Threads  of the tracer's thread alone.
class ProcessTable {
public:
    // With checkProgram the name alone does not make a platform process.
    explicit ProcessTable(bool checkProgram) : checkProgram_(checkProgram) {}

    // Notes what a record says of its process, and puts the first parent into the record. False: notify nobody of it.
    bool Follow(ProcessRecord& record);

    // Looks for the platform's processes in /proc, and drops those that have ended unseen. Given up on a stop.
    void CompareWithProc(const std::atomic<bool>& running);

    std::size_t GetSize() const { return entries_.size(); }

private:
    struct Entry {
        std::uint64_t startNs = 0;
        std::uint64_t parentStartNs = 0;
        int parentPid = 0;
        bool listed = false;
    };

    bool FollowFork(const ProcessRecord& record);
    const Entry* Find(int pid, std::uint64_t startNs) const;

    const bool checkProgram_;
    std::unordered_map<int, Entry> entries_;
};

}  // namespace NEUtils
