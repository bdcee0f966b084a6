#include "comm/send_mutex.h"

#include <chrono>

#include "comm/connection.h"
#include "util/clock.h"

namespace NEUtils {

namespace {

constexpr std::chrono::milliseconds kLookPeriod{50};  // at the clock and the connection

}  // namespace

bool SendMutex::TryLock()
{
    const std::lock_guard<std::mutex> lock(mutex_);
    const bool free = !taken_;
    taken_ = true;
    return free;
}

bool SendMutex::LockUntil(std::int64_t endNs, const Connection& connection)
{
    std::unique_lock<std::mutex> lock(mutex_);
    ++waiters_;
    while (taken_ && connection.IsUp() && Clock::MonotonicNs() < endNs) {
        freed_.wait_for(lock, kLookPeriod);
    }
    --waiters_;
    const bool free = !taken_ && connection.IsUp();
    taken_ = taken_ || free;
    return free;
}

void SendMutex::Unlock()
{
    bool wake = false;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        taken_ = false;
        wake = waiters_ > 0;
    }
    if (wake) {
        freed_.notify_one();
    }
}

}  // namespace NEUtils
