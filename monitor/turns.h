#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace NEUtils {

// Gives the right to work on something to one thread at a time. It is no lock: nothing is locked while a thread has the
// turn, and a thread can go on without it after a short wait.
//
// Threads  any.
class Turns {
public:
    enum Wait {
        kUntilFree,
        kShortly,  // 5 ms, and behind all that wait until it is free
    };

    // True if the caller has the turn now.
    bool Take(Wait wait)
    {
        std::unique_lock<std::mutex> lock(mutex_);
        const auto isFree = [this, wait] { return !isTaken_ && (wait == kUntilFree || waiting_ == 0); };
        if (wait == kUntilFree) {
            ++waiting_;
            ended_.wait(lock, isFree);
            --waiting_;
        } else if (!ended_.wait_for(lock, std::chrono::milliseconds(5), isFree)) {
            return false;
        }
        isTaken_ = true;
        return true;
    }

    // Ends the turn, unless a condition holds at that moment. True if it has ended.
    template <typename Condition>
    bool EndUnless(Condition condition)
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (condition()) {
            return false;
        }
        isTaken_ = false;
        ended_.notify_all();
        return true;
    }

private:
    std::mutex mutex_;
    std::condition_variable ended_;
    bool isTaken_ = false;
    int waiting_ = 0;
};

}  // namespace NEUtils
