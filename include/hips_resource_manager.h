#pragma once

#include <cstdint>
#include <mutex>

#include "neutils_api.h"

namespace NEUtils {

// Measures what the agent itself uses and says so when it is too much. Nothing is ended for it.
//
// Threads  any.
// Units    KiB of resident memory, processor percent of one core, open descriptors.
// Errors   a threshold crossed is one ERROR record with figure and limit, at most once in 15 minutes
//          and measure, and one INFO record once the figure is back below.
// Source   /proc/self.
class NEUTILS_API HipsResourceManager {
public:
    // The thread is the one that the process is known by. A limit of 0 or less is none.
    HipsResourceManager(unsigned long mainThread, long memLimitKiB, double cpuPercent);

    // Measures once; the processor figure is the mean since the last time, which must be a second ago.
    // False if /proc cannot be read.
    bool Update();

    void SetLimits(long memLimitKiB, int fdLimit, double cpuPercent);

    // As of the last Update.
    double GetCpuUsage() const;
    long GetMemoryUsage() const;
    int GetFdUsage() const;

private:
    // One measure against its limit.
    struct Watch {
        double used = 0;
        double limit = 0;
        bool above = false;            // said so, and not yet below again
        std::int64_t nextErrorNs = 0;  // not said again before this
    };
    enum Verdict { kQuiet, kCrossed, kBack };

    static Verdict Judge(Watch& watch, double used, std::int64_t nowNs);

    const unsigned long mainThread_;
    mutable std::mutex mutex_;
    Watch cpu_;
    Watch memory_;
    Watch fds_;
    std::int64_t lastNs_ = 0;
    std::int64_t lastCpuNs_ = 0;
};

}  // namespace NEUtils
