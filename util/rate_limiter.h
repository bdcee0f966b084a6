#pragma once

#include <atomic>
#include <cstdint>

namespace NEUtils {

// Lets something through at most once a period, for example the log record about a failure that repeats.
//
// Threads  any; of several that ask at once, one is let through.
// Units    milliseconds, on whichever clock the caller reads; always the same one.
class RateLimiter {
public:
    constexpr explicit RateLimiter(std::int64_t periodMs) : periodMs_(periodMs) {}

    [[nodiscard]] bool Allow(std::int64_t nowMs)
    {
        std::int64_t last = lastMs_.load(std::memory_order_relaxed);
        return (last == kNever || nowMs - last > periodMs_) && lastMs_.compare_exchange_strong(last, nowMs);
    }

private:
    static constexpr std::int64_t kNever = INT64_MIN;

    const std::int64_t periodMs_;
    std::atomic<std::int64_t> lastMs_{kNever};
};

}  // namespace NEUtils
