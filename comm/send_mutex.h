#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>

namespace NEUtils {

class Connection;

// A mutex that is waited for only until a point in time, or until a connection goes down. (The timed mutexes
// of the standard library are unknown to the thread sanitizer.)
//
// Threads  any.
// Units    nanoseconds of the monotonic clock.
class SendMutex {
public:
    bool TryLock();
    bool LockUntil(std::int64_t endNs, const Connection& connection);
    void Unlock();

private:
    std::mutex mutex_;
    std::condition_variable freed_;
    bool taken_ = false;
    unsigned int waiters_ = 0;
};

}  // namespace NEUtils
