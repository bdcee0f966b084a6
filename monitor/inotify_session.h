#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "file_watch.h"
#include "monitor/file_tracker.h"
#include "monitor/inotify_host.h"
#include "monitor/mount_watch.h"
#include "monitor/turns.h"
#include "util/unique_fd.h"

namespace NEUtils {

// All that an inotify monitor has between its Init and its DeInit. Whoever works with it holds a reference, so that
// it lives until he is done.
//
// The thread in Run takes records off the kernel's descriptors into bounded memory before anything else, and again
// during long work, so that the kernel's small queues hold what comes meanwhile. It hands them to the tracker one
// after the other, and the tracker's notifications to the callbacks.
//
// Threads  Run: one. The others: any. Only one at a time works on the tracker: whoever has the turn.
// Locks    mutex_ for the tables here, held over no call. The turn is no lock: it is never held over a callback or a
//          log record of this class, and a stop does not wait for it.
// Limits   262,144 records in memory. Beyond them the kernel's queues fill, and overflow.
// Errors   where memory runs out the thread goes on: what it was at may be lost, which is logged and counted, and all
// is
//          compared once there is memory again.
class InotifySession {
public:
    using Rule = Monitor::FileWatchRule;

    InotifySession();
    ~InotifySession();
    bool Init();
    bool AddRule(const Rule& rule);
    bool RemoveRule(const Rule& rule);
    Monitor::WatchState GetState(const Rule& rule) const;
    void Run();   // until Stop
    void Stop();  // for good
    std::size_t GetWatchCount() const { return host_.CountWatches(); }
    std::size_t GetLackingCount() const { return lacking_; }
    std::size_t GetWaitingCount() const { return waiting_; }
    std::uint64_t GetOverflowCount() const { return host_.CountOverflows() + losses_; }

private:
    class Turn;

    WatchRulePtr Find(const Rule& rule) const;  // under mutex_
    bool AddToTracker(const WatchRulePtr& rule);
    void RunOnce();
    void WaitForWork();
    void TakeRecords();
    bool GoOn();
    void CountLoss();
    void LogLosses();
    void HandleRecords();
    void HandleQuiet();
    void HandleMounts();
    void EndTurn();
    void LogLack();
    void Deliver();
    void Wake() const;
    static void Call(const Notification& notification);

    InotifyHost host_;
    FileTracker tracker_;
    UniqueFd wakeEvent_;
    MountWatch mounts_;
    std::atomic<bool> stopping_{false};
    std::atomic<bool> hasMoves_{false};
    std::atomic<bool> hasSuspects_{false};
    std::atomic<bool> hasLoggedLack_{false};
    std::atomic<bool> hasLost_{false};  // memory ran out
    std::atomic<std::uint64_t> losses_{0};
    std::atomic<std::size_t> lacking_{0};
    std::atomic<std::size_t> waiting_{0};
    std::atomic<std::thread::id> runner_{};

    Turns turns_;
    bool isCleared_ = false;  // changed by whoever has the turn

    mutable std::mutex mutex_;
    WatchRuleList rules_;
    Notifications notifications_;

    // Of the thread in Run alone:
    std::deque<WatchRecord> records_;
    std::uint64_t overflows_ = 0;
    std::uint64_t loggedOverflows_ = 0;
    std::uint64_t loggedLosses_ = 0;
    Notifications delivered_;  // what is being delivered
    std::int64_t triedRoomNs_ = 0;
};

}  // namespace NEUtils
