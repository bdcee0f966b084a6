#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <variant>

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
class FeatureCounters {
public:
    using Detail = std::variant<std::uint64_t, std::string>;

    std::atomic<std::uint64_t> seen{0};       // events that came to it
    std::atomic<std::uint64_t> filtered{0};   // of these, the events that it left out on purpose
    std::atomic<std::uint64_t> lost{0};       // events that did not come, as counted
    std::atomic<std::uint64_t> watches{0};    // what it watches now
    std::atomic<std::uint64_t> lacking{0};    // what it should watch now, and cannot
    std::atomic<std::uint64_t> overflows{0};  // losses whose size is unknown
    std::atomic<std::uint64_t> waiting{0};    // what it will watch as soon as it is there

    // What else the status shall say of the feature, such as where its events come from; an empty text takes it away.
    // They throw std::bad_alloc.
    NEUTILS_API void SetDetail(const std::string& name, const std::string& text);
    NEUTILS_API void AddToDetail(const std::string& name, std::uint64_t number);  // from 0 on
    NEUTILS_API std::map<std::string, Detail> GetDetails() const;

    // The counters of a feature, made at the first call; the reference stays valid for good. Throws
    // std::bad_alloc.
    NEUTILS_API static FeatureCounters& Of(const std::string& feature);

    // The counters of all features that ever asked for theirs. Throws std::bad_alloc.
    NEUTILS_API static std::map<std::string, const FeatureCounters*> All();

private:
    mutable std::mutex mutex_;
    std::map<std::string, Detail> details_;
};

}  // namespace NEUtils
