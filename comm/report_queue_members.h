#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "comm/report_channel.h"
#include "comm/report_store.h"
#include "comm/server_watch.h"
#include "report_queue.h"
#include "util/rate_limiter.h"

namespace NEUtils {

// What a queue consists of: the part of its callers (report_queue.cpp) and that of "ReportSender", the thread
// that sends (report_sender.cpp).
//
// Locks    the mutex, for all but beatNs; not held during a send, a log call or GiveUp.
struct ReportQueue::Members {
    static constexpr std::int64_t kDropRecordPeriodMs = 60000;

    using Lock = std::unique_lock<std::mutex>;

    bool Add(std::shared_ptr<std::string> message);
    bool Refuse(std::uint64_t ReportAccount::*reason);
    void LogDrop(Lock& lock);
    void Answer(std::uint32_t seq);

    // Of the thread:
    void Run();
    void RunOnce(Lock& lock);
    void Wait(Lock& lock);
    void Rest(Lock& lock);
    void FollowChannel(std::int64_t now);
    void AddNotice();
    bool SendReports(Lock& lock, std::int64_t now);
    bool SendHeartbeat(Lock& lock);
    template <typename Function>
    bool SendUnlocked(Lock& lock, Function send);

    std::mutex mutex;
    std::condition_variable changed;   // for the sender
    std::condition_variable answered;  // for Drain
    std::condition_variable sent;      // for Stop
    ReportStore store;
    ServerWatch watch{0};
    RateLimiter dropRecords{kDropRecordPeriodMs};
    std::atomic<std::int64_t> beatNs{0};  // when the sender last came round; 0 while there is none
    std::uint32_t connections = 0;        // the channel's count when last looked at
    bool running = false;
    bool idle = false;     // the sender waits for the first report
    bool resting = false;  // it waits for others to join it
    bool sending = false;
    unsigned int drains = 0;  // callers of Drain: reports are sent at once

    std::unique_ptr<ReportChannel> channel;
    std::thread sender;
};

}  // namespace NEUtils
