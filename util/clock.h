#pragma once

#include <sys/time.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <ctime>

// The clocks of the library, with offsets by which tests step them without root, and a divisor by which
// they shorten its sleeps.
namespace NEUtils::Clock {

constexpr long long kNsPerMs = 1000000;
constexpr long long kNsPerSecond = 1000000000;

inline std::atomic<std::int64_t> wallOffsetMs{0};
inline std::atomic<std::int64_t> monotonicOffsetNs{0};
inline std::atomic<int> sleepDivisor{1};

// The system's wall clock; steps when the administrator or NTP steps it.
inline timeval WallTime()
{
    timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    const std::int64_t offset = wallOffsetMs.load(std::memory_order_relaxed);
    const std::int64_t us = std::int64_t{now.tv_sec} * 1000000 + now.tv_nsec / 1000 + offset * 1000;
    return {static_cast<time_t>(us / 1000000), static_cast<suseconds_t>(us % 1000000)};
}

inline std::int64_t WallMs()
{
    const timeval now = WallTime();
    return std::int64_t{now.tv_sec} * 1000 + now.tv_usec / 1000;
}

inline std::int64_t WallSeconds()
{
    return WallTime().tv_sec;
}

// Time since some point in the past; never steps.
inline std::int64_t MonotonicNs()
{
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return std::int64_t{now.tv_sec} * kNsPerSecond + now.tv_nsec + monotonicOffsetNs.load(std::memory_order_relaxed);
}

// Sleeps the whole time, also when a signal interrupts it.
inline void SleepNs(long long ns)
{
    ns /= sleepDivisor.load(std::memory_order_relaxed);
    if (ns <= 0) {
        return;
    }
    timespec rest = {static_cast<time_t>(ns / kNsPerSecond), static_cast<long>(ns % kNsPerSecond)};
    while (nanosleep(&rest, &rest) != 0 && errno == EINTR) {
    }
}

}  // namespace NEUtils::Clock
