#pragma once

#include <linux/cn_proc.h>
#include <linux/netlink.h>
#include <pthread.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "neutils_api.h"

namespace NEUtils {

class EventCallbacks;
class EventReception;

// Kinds of events, as bits of a mask and as values of proc_event::what. Named here since the kernel's
// headers of different versions name them in different scopes.
inline constexpr std::uint32_t kForkEvent = 0x1;
inline constexpr std::uint32_t kExecEvent = 0x2;
inline constexpr std::uint32_t kUidEvent = 0x4;
inline constexpr std::uint32_t kGidEvent = 0x40;
inline constexpr std::uint32_t kSidEvent = 0x80;
inline constexpr std::uint32_t kPtraceEvent = 0x100;
inline constexpr std::uint32_t kCommEvent = 0x200;
inline constexpr std::uint32_t kCoredumpEvent = 0x40000000;
inline constexpr std::uint32_t kExitEvent = 0x80000000;

// Hands the kernel's process events (fork, exec, exit, id changes and the rest of proc_event) to
// callbacks, except those of white-listed processes: the platform's management tooling, a few system
// daemons, and the children of both. The monitor searches for them at its start and every ten minutes. A
// thread that a listed process starts later is listed with the next search: the kernel reports it as forked
// by the process's parent.
//
// Source   the netlink process connector; needs CAP_NET_ADMIN and the first user, pid and network
//          namespace.
// Threads  callbacks run on the monitor's thread, "monitor-process", one event at a time, and should
//          return soon: the thread takes 100 events a round and sleeps 20 ms between rounds.
//          Start, Stop and the destructor belong to one owner, everything else may be called by any.
//          A callback may stop the monitor, but neither start nor destroy it.
// Locks    none is held while a callback runs.
// Blocks   Stop waits for the thread: its wait of 500 ms, and then at most a second in which it hands on the
//          events that came before the stop. Those that it cannot hand on within half a second are counted
//          as lost. RemoveProcessEventCallback waits for the callback's call in progress. Hold no lock
//          meanwhile that a callback takes.
// Errors   logged. A monitor whose setup failed counts as running until it is stopped. Nothing throws but
//          AddProcessEventCallback and the constructor, std::bad_alloc.
class NEUTILS_API ProcessMonitor {
public:
    using Callback = void (*)(proc_event*);

    static constexpr std::uint32_t kAllEventKinds = 0xFFFFFFFFU;

    // What its thread does. Events that happen from kListening on are handed on, once the white list is made.
    enum Phase { kIdle, kStarting, kListening, kEnded };

    ProcessMonitor();
    ~ProcessMonitor();  // stops it if it runs
    ProcessMonitor(const ProcessMonitor&) = delete;
    ProcessMonitor& operator=(const ProcessMonitor&) = delete;

    // The event kinds that callbacks get, as a mask; before the start. The kernel drops all other kinds, so
    // that a flood of them cannot fill the socket's buffer (one process that renames itself makes hundreds of
    // thousands of events a second). The kernel's answer to the start (kind 0) comes only with all kinds, the
    // default.
    void SetEventKinds(std::uint32_t mask);

    // Callbacks get no fork and no exit of further threads; before the start. The kernel drops them, so that a
    // program that makes threads without end cannot fill the socket's buffer. An exit then means that the
    // process has ended, with its own status; where the first thread ends before the others, it comes up to
    // half a second after the last of them; if such a process ends very many threads, its status may be that of
    // an earlier one. Where another thread than the first executes a program and the
    // process ends at once, its exit may come twice.
    void SetProcessesOnly(bool processesOnly);

    void StartProcessMonitor();

    Phase GetPhase() const { return phase_; }  // kEnded also after a setup that failed

    // Milliseconds since the thread last came round or began with an event; -1 while there is no thread. For
    // WatchPlainThread (hips_guard.h).
    long long GetBeatAgeMs() const;

    // Called from within a callback it cannot wait for the thread: that is logged, and the next start,
    // stop or the destructor waits instead.
    void StopProcessMonitor();

    // A callback is held once and called once an event, in the order of the pointers. After
    // RemoveProcessEventCallback no call of it runs or will run. One that removes itself still runs until
    // it returns: its code must stay loaded until the monitor has been stopped.
    void AddProcessEventCallback(Callback callback);
    void RemoveProcessEventCallback(Callback callback);

    // Events since this object exists that the kernel dropped because its buffer was full, or that a stop left
    // behind. After a loss the white list is made anew.
    std::uint64_t GetLostEventCount() const;

    // Losses of a kernel that does not count what it drops: how many events each of them cost is unknown.
    std::uint64_t GetOverflowCount() const { return overflows_; }

    // Events that came, and of these the events that the white list or the mask of kinds kept from the callbacks.
    std::uint64_t GetEventCount() const { return events_; }
    std::uint64_t GetFilteredEventCount() const { return filteredEvents_; }

    static void* MonitorProcessThread(void* monitor);

    // Sends the control message to listen or to ignore. The header's payload, a connector message,
    // carries the mode (PROC_CN_MCAST_LISTEN or PROC_CN_MCAST_IGNORE); everything else is filled in
    // here, so the header must stand at the start of at least 40 bytes.
    bool SetNetlinkConnectorMode(int fd, nlmsghdr& header) const;

    // True for an event of a white-listed process. Follows forks and exits in the white list.
    bool FilterProcessEvent(const proc_event& event);

    // Makes the white list anew, or replaces the ids of the last search and keeps the children that were followed.
    // The monitor calls both by itself. They find what GetProcessPidsByPsCommand finds, by one look at /proc. Where
    // /proc cannot be read the list stays as it is, with a record, and the monitor tries again after half a minute.
    void ParseProcessWhiteList();
    void UpdateProcessWhiteList();

    // Appends the process ids whose line of "ps -ef" holds the pattern; none if the command fails.
    void GetProcessPidsByPsCommand(const std::string& pattern, std::vector<std::string>& pids);
    // Appends the thread ids of one process or of several; a process that is gone has none.
    void GetProcessTaskList(const std::string& pid, std::vector<std::string>& tasks);
    void GetProcessTasks(const std::vector<std::string>& pids, std::vector<std::string>& tasks);

private:
    void MonitorProcessEvent();
    void Listen(int fd);
    bool SetUpSocket(int fd) const;
    bool SendConnectorMode(int fd, proc_cn_mcast_op mode, nlmsghdr& header) const;
    void ReceiveEvents(int fd);
    void ReceiveRound(int fd, EventReception& reception);
    void MakeWhiteList();
    bool CountLosses(EventReception& reception);
    void ProcessEventHandle(proc_event& event);
    bool IsWanted(const proc_event& event) const;
    void Beat();
    bool RefreshWhiteList(bool anew);
    bool SearchWhiteList(std::map<std::string, std::vector<std::string>>& entries);
    static void LogFailedSearch(const std::string& pattern);
    bool JoinThread();
    bool IsOwnThread() const;

    pthread_t thread_{};
    bool joinable_ = false;
    std::atomic<bool> running_{false};
    std::atomic<Phase> phase_{kIdle};
    std::atomic<std::uint32_t> eventKinds_{kAllEventKinds};
    std::atomic<bool> processesOnly_{false};
    std::atomic<std::int64_t> beatNs_{0};
    std::atomic<std::uint64_t> lostEvents_{0};
    std::atomic<std::uint64_t> overflows_{0};
    std::atomic<std::uint64_t> events_{0};
    std::atomic<std::uint64_t> filteredEvents_{0};

    std::mutex whiteListMutex_;
    std::set<int> whiteSet_;                                        // process and thread ids
    std::map<std::string, std::vector<std::string>> whiteEntries_;  // ids by command pattern
    std::uint64_t whiteListNs_ = 0;                                 // when the last search was over

    std::unique_ptr<EventCallbacks> callbacks_;

    // Of the monitor's thread alone:
    std::chrono::steady_clock::time_point listMade_;    // the white list; 0: to be made anew
    std::chrono::steady_clock::time_point nextSearch_;  // after one that failed
    bool missedExits_ = false;
};

}  // namespace NEUtils
