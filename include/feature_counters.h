#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <string>

#include "neutils_api.h"

namespace NEUtils {

// What a feature has done since the process began, for whoever asks how it is. It belongs to the process, not
// to the feature's library, and outlives its stops.
//
// Threads  any.
struct FeatureCounters {
    std::atomic<std::uint64_t> seen{0};      // events that came to it
    std::atomic<std::uint64_t> filtered{0};  // of these, those that it left out
    std::atomic<std::uint64_t> lost{0};      // events that it knows it did not get
    std::atomic<std::uint64_t> watches{0};   // what it watches at the moment
    std::atomic<std::uint64_t> lacking{0};   // what it should watch besides, and cannot

    // The counters of a feature, made where there are none; valid for good.
    NEUTILS_API static FeatureCounters& Of(const std::string& feature);

    // Those of all features that ever asked for theirs.
    NEUTILS_API static std::map<std::string, const FeatureCounters*> All();
};

}  // namespace NEUtils
