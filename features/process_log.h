#pragma once

#include <linux/cn_proc.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "process_monitor.h"
#include "report_messages.h"

// What is told of the processes.
struct ProcessLogSettings {
    bool executed = true;
    bool ended = true;
    std::vector<std::string> excludes;  // shell patterns of command lines that are left out
};

// Turns process events into log records and reports, with details that are gone by the time of the event:
// whoever ends can no longer be asked, so each process is remembered from its fork or exec on.
//
// The agent's own children (gzip for a roll, ps for the white list) are left out: a record about them
// could make the next roll, and that the next record, without end.
//
// Threads  one: the process monitor's, once it has started.
// Limits   65,536 processes; above that, those that ended unseen are forgotten.
class ProcessLog {
public:
    // The kinds of events it needs.
    static constexpr unsigned int kEventKinds =
        NEUtils::kForkEvent | NEUtils::kExecEvent | NEUtils::kExitEvent | NEUtils::kUidEvent;

    explicit ProcessLog(ProcessLogSettings settings) : settings_(std::move(settings)) {}

    // Takes up the processes there are, and forgets all others: at the start, and some time after lost events.
    void LoadRunningProcesses();

    // Events were lost: what threads the known processes have is not certain any more.
    void DoubtCounts() { ++generation_; }

    void Handle(const proc_event& event);

    std::uint64_t GetLeftOutCount() const { return leftOut_; }  // processes whose start or end was not told

private:
    struct Process {
        int parentPid = 0;
        std::string user = "?";
        std::string container = {};
        std::string cmdLine = "(ended before it could be read)";
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
    bool IsLeftOut(const Process& process, bool told);
    void Tell(NEUtils::ProcessEvent event, int pid, const Process& process, int code) const;

    const ProcessLogSettings settings_;
    std::unordered_map<int, Process> processes_;
    std::unordered_set<int> own_;  // this process's children and theirs
    std::size_t limit_ = 65536;
    unsigned int generation_ = 1;
    std::uint64_t leftOut_ = 0;
};
