#pragma once

#include <linux/cn_proc.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "describe.h"
#include "process_monitor.h"
#include "repeats.h"
#include "report_messages.h"

// Which processes are reported.
struct ProcessLogSettings {
    bool executed = true;
    bool ended = true;
    std::vector<std::string> excludes;  // shell patterns of command lines that are left out
    std::uint64_t repeats = 100;        // of one program by one parent in a second; more are summed up, 0: never
};

// Turns process events into log records and reports. Details are gone by the time a process ends, so each process
// is remembered from its fork or exec on.
//
// The agent's own children (gzip for a roll, ps for the white list) are left out: a record about them
// could make the next roll, and that the next record, without end.
//
// Threads  one: the process monitor's, once it has started. LogRepeats: any.
// Limits   65,536 processes; above that, those whose end was lost are forgotten.
class ProcessLog {
public:
    // The kinds of events it needs.
    static constexpr unsigned int kEventKinds =
        NEUtils::kForkEvent | NEUtils::kExecEvent | NEUtils::kExitEvent | NEUtils::kUidEvent;

    explicit ProcessLog(ProcessLogSettings settings) : settings_(std::move(settings)), repeats_(settings_.repeats) {}

    // Reads which processes run now, and forgets all others: at the start, and some time after lost events.
    void LoadRunningProcesses();

    // Events were lost: it is no longer certain how many threads the known processes have.
    void DoubtCounts() { ++generation_; }

    void Handle(const proc_event& event);

    // Logs and reports what was only counted since the last call; to be called about once a second.
    void LogRepeats();

    std::uint64_t GetLeftOutCount() const { return leftOut_; }  // starts and ends that were not logged, by policy

private:
    struct Process {
        int parentPid = 0;
        std::string user = "?";
        std::string container = {};
        std::string cmdLine = kUnread;
        unsigned int threads = 1;
        unsigned int certainIn = 0;  // the generation in which all its threads were counted
    };

    void OnFork(int parent, int child);
    void OnNewThread(int pid);
    void OnExec(int pid);
    void OnThreadExit(int thread, int pid, unsigned int waitStatus);
    bool HasEnded(int thread, int pid, Process& process) const;
    Process& Remember(int pid);
    void ForgetEnded();
    bool IsLeftOut(const Process& process, bool isWanted);
    void LogEvent(NEUtils::ProcessEvent event, int pid, const Process& process, int code);

    const ProcessLogSettings settings_;
    Repeats repeats_;
    std::int64_t timeNs_ = 0;  // of the event under way, on the kernel's monotonic clock
    std::int64_t timeMs_ = 0;  // the same on the wall clock
    std::unordered_map<int, Process> processes_;
    std::unordered_set<int> own_;  // this process's children and theirs
    std::size_t limit_ = 65536;
    unsigned int generation_ = 1;
    std::uint64_t leftOut_ = 0;
};
