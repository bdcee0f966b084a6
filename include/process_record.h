#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace NEUtils {

// One start, exec or end of a process, with what the process was at that moment.
//
// Units    times in nanoseconds. A process id and the start time together name a process for good: records of
//          one tracer about one process give the same start time.
// Source   what comes from the process itself (comm, args) is its own choice: do not trust it.
struct ProcessRecord {
    enum Kind : std::uint8_t { kFork = 1, kExec = 2, kExit = 3 };  // kFork: the new process is the one described

    static constexpr std::uint32_t kNoId =
        0xFFFFFFFFU;  // no login user or session; with the connector also unknown ids

    Kind kind = kFork;
    bool whole = false;  // nothing is missing that this kind of record has; cut arguments are marked by argsCut

    std::int64_t wallNs = 0;   // when it happened, by the wall clock
    std::uint64_t bootNs = 0;  // and since the boot, sleep included

    int pid = 0;  // of the process, which is that of its thread group; as the host counts
    int tid = 0;  // the thread it was; for an exec the id that the thread had before it
    int parentPid = 0;
    int nsPid = 0;                    // the process's id in its own pid namespace; 0: unknown
    std::uint64_t startNs = 0;        // since the boot
    std::uint64_t parentStartNs = 0;  // 0: unknown

    std::uint32_t uid = kNoId;
    std::uint32_t gid = kNoId;
    std::uint32_t euid = kNoId;
    std::uint32_t egid = kNoId;
    std::uint32_t loginUid = kNoId;  // who logged in, whatever user became since
    std::uint32_t session = kNoId;   // of the login, as the audit system counts

    std::uint64_t cgroupId = 0;  // 0 with the connector
    std::string containerId;     // 64 hexadecimal digits; empty outside of containers
    std::uint32_t mountNs = 0;
    std::uint32_t pidNs = 0;
    bool foreignMountNs = false;  // not the one of the host's first process
    bool foreignPidNs = false;

    std::string comm;  // at most 15 bytes

    // Of an exec alone:
    // The program that runs, of a script its interpreter; not absolute if it could not be resolved. With the trace
    // programs the path that was asked for, with its links; exeInode is that of the file behind them.
    std::string exe;
    std::string exeGiven;           // what was asked for, where that was relative or a descriptor
    std::string script;             // the script, if it is one
    std::vector<std::string> args;  // from argv[0] on, each by itself, bytes as they are
    std::uint64_t argsSize = 0;     // bytes of all of them, each with its terminator
    std::uint64_t exeInode = 0;     // number of the executable's file
    std::uint32_t argCount = 0;     // of all arguments; 0: unknown
    bool argsCut = false;           // there are more; the last one here may be cut
    bool exeDeleted = false;        // the executable has no name left
    bool exeInMemory = false;       // and never had one (memfd_create)
    bool exeSetUid = false;         // its file has the set-user-id bit
    bool exeSetGid = false;

    // Of an exit alone:
    int exitCode = 0;
    int exitSignal = 0;  // that ended it, 0 if none
    bool coreDumped = false;
};

// How a process tracer works.
struct TracerSettings {
    enum Source { kNone, kAuto, kTrace, kConnector };  // kAuto: the programs where they work, else the connector

    Source source = kAuto;
    std::size_t ringSize = std::size_t{4} << 20;  // bytes; taken up to a power of two, 64 KiB to 1 GiB
    // The ring is read when a quarter of it is full, otherwise this long after the last time; 0: each record at
    // once, which costs ten times as much. The connector reads at these times, too (0: every millisecond).
    int wakeMs = 20;
    // The connector's reader of /proc asks for this priority under SCHED_FIFO; 0 for none.
    int priority = 1;
};

// What came since the last start. Both sources count exactly, but the connector cannot say of which kind lost
// events were.
struct TracerCounts {
    struct Kinds {
        std::uint64_t forks = 0;
        std::uint64_t execs = 0;
        std::uint64_t exits = 0;
        std::uint64_t unknown = 0;
        std::uint64_t Total() const { return forks + execs + exits + unknown; }
    };
    Kinds seen;                         // by the programs; by the connector what was received
    Kinds received;                     // by the tracer, filtered ones included
    Kinds lost;                         // for want of room: seen = received + lost, once everything is read
    std::uint64_t filtered = 0;         // kept from the callback by the white list
    std::uint64_t incomplete = 0;       // records that are not whole
    std::uint64_t malformed = 0;        // that could not be understood, or for which there was no memory
    std::uint64_t recursionMisses = 0;  // times that the kernel did not run a program
};

}  // namespace NEUtils
