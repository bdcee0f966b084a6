#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <string>

#include "neutils_api.h"

namespace NEUtils {

// What a feature has done since the process began, for the agent's status. The counters belong to the
// process, not to the feature's library: they stay when the feature is stopped or unloaded.
//
// Some losses have a size and some do not. `lost` holds only events that somebody counted: the kernel, or
// the feature itself. Where the kernel says that its queue overflowed, but not by how much (inotify,
// fanotify), the feature adds one to `overflows` and nothing to `lost`: the number of lost events is
// unknown, and whoever shows it writes "unknown".
//
// Threads  any.
struct FeatureCounters {
    std::atomic<std::uint64_t> seen{0};       // events that came to it
    std::atomic<std::uint64_t> filtered{0};   // of these, the events that it left out on purpose
    std::atomic<std::uint64_t> lost{0};       // events that did not come, as counted
    std::atomic<std::uint64_t> watches{0};    // what it watches now
    std::atomic<std::uint64_t> lacking{0};    // what it should watch now, and cannot
    std::atomic<std::uint64_t> overflows{0};  // losses whose size is unknown
    std::atomic<std::uint64_t> waiting{0};    // what it will watch as soon as it is there

    // The counters of a feature, made at the first call; the reference stays valid for good. Throws
    // std::bad_alloc.
    NEUTILS_API static FeatureCounters& Of(const std::string& feature);

    // The counters of all features that ever asked for theirs. Throws std::bad_alloc.
    NEUTILS_API static std::map<std::string, const FeatureCounters*> All();
};

}  // namespace NEUtils
