#include "mr1w_lock.h"

#include "util/clock.h"

namespace NEUtils {

namespace {

constexpr unsigned int kPollMs = 100;

}  // namespace

void MR1WLock::LockForRead()
{
    const std::lock_guard<std::mutex> entry(writerMutex_);
    const std::lock_guard<std::mutex> count(countMutex_);
    ++readers_;
}

void MR1WLock::UnlockForRead()
{
    const std::lock_guard<std::mutex> count(countMutex_);
    if (readers_ > 0) {
        --readers_;
    }
}

bool MR1WLock::LockForWrite(unsigned int timeoutMs)
{
    std::unique_lock<std::mutex> writer(writerMutex_);
    // Kept because callers' time limits are set by it: the last wait is never followed by a look.
    for (unsigned int left = timeoutMs; HasReaders(); left -= kPollMs) {
        if (left <= kPollMs) {
            return false;
        }
        Clock::SleepNs(kPollMs * Clock::kNsPerMs);
        if (left - kPollMs <= kPollMs) {
            return false;
        }
    }
    writer.release();  // stays locked until UnlockForWrite
    return true;
}

void MR1WLock::UnlockForWrite()
{
    writerMutex_.unlock();
}

bool MR1WLock::HasReaders()
{
    const std::lock_guard<std::mutex> count(countMutex_);
    return readers_ > 0;
}

}  // namespace NEUtils
