#pragma once

#include <linux/cn_proc.h>

#include <cstddef>
#include <string>
#include <unordered_map>
#include <unordered_set>

#include "process_monitor.h"
#include "report_messages.h"

// A text without what could steer a terminal: others choose command lines and file names.
std::string Printable(std::string text);

// The user and the command line of a process, as far as they can be read.
void DescribeProcess(int pid, std::string& user, std::string& cmdLine);

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

    // Takes up the processes there are, and forgets all others: at the start, and after lost events.
    void LoadRunningProcesses();

    void ReportToServer() { reports_ = true; }  // what is logged
    void Handle(const proc_event& event);

private:
    struct Process {
        int parentPid = 0;
        std::string user = "?";
        std::string cmdLine = "(ended before it could be read)";
        unsigned int threads = 1;
    };

    void OnFork(int parent, int child);
    void OnNewThread(int pid);
    void OnExec(int pid);
    void OnThreadExit(int thread, int pid, unsigned int waitStatus);
    Process& Remember(int pid);
    void ForgetEnded();
    void ReportEvent(NEUtils::ProcessEvent event, int pid, const Process& process, int code) const;

    std::unordered_map<int, Process> processes_;
    std::unordered_set<int> own_;  // this process's children and theirs
    std::size_t limit_ = 65536;
    bool reports_ = false;
};
