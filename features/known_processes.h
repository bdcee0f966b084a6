#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>

#include "describe.h"
#include "process_record.h"

// A program as its exec said. A process that is forked from it runs the same.
struct Program {
    std::string exe;
    std::string script;
    std::string cmdLine = kUnread;
    std::string notes;  // what is unusual about it, with a comma between several
};

// The program of the record of an exec.
Program MakeProgram(const NEUtils::ProcessRecord& record);

// The living processes with their programs. Details are gone by the time that a process ends, so each one is
// remembered from its fork or exec on. An id and a start time together name a process: an id alone may belong to
// another one by now.
//
// This process's own children and theirs are marked, since nobody wants to read of them.
//
// Threads  one.
// Limits   65,536 processes; above that, those whose end was lost are forgotten.
class KnownProcesses {
public:
    struct Entry {
        std::uint64_t startNs = 0;
        std::shared_ptr<const Program> program;  // never null
        bool isOwn = false;
        bool isMissing = false;                 // it was not in /proc when that was looked at
        std::shared_ptr<const Program> parent;  // what its parent ran at the fork; null if that was not seen
    };

    KnownProcesses();

    // They take the record of a fork, an exec or an exit, and give what the process is.
    void AddFork(const NEUtils::ProcessRecord& record);
    Entry AddExec(const NEUtils::ProcessRecord& record);
    Entry TakeExit(const NEUtils::ProcessRecord& record);

    // The program of a living process; empty if it is not known.
    std::string FindExe(int pid, std::uint64_t startNs) const;

    // Takes what /proc says of processes that are not known, or that run another program. One that is not there stays
    // until the next time: its end may be on its way.
    void CompareWithProc();

    // Has a comparison given up. Any thread.
    void Stop() { stopping_ = true; }

private:
    using Entries = std::unordered_map<int, Entry>;

    const Entry* Find(int pid, std::uint64_t startNs) const;
    bool IsOwnChild(const NEUtils::ProcessRecord& record) const;
    Entry Refresh(const NEUtils::ProcessRecord& record) const;
    void MakeRoom();

    const std::shared_ptr<const Program> unread_;
    Entries entries_;
    std::size_t limit_;
    std::atomic<bool> stopping_{false};
};
