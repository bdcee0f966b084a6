#include "repeats.h"

#include <cstddef>
#include <iterator>
#include <utility>

namespace {

constexpr std::int64_t kSecondNs = 1000000000;
constexpr std::size_t kMostEntries = 10000;

}  // namespace

bool Repeats::Admit(const Sum& event, std::int64_t timeNs)
{
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto key = std::make_tuple(static_cast<int>(event.event), event.parentPid, event.program);
    auto found = entries_.find(key);
    if (found == entries_.end()) {
        if (limit_ == 0 || entries_.size() >= kMostEntries) {
            return true;
        }
        found = entries_.emplace(key, Entry{event, timeNs}).first;
    }
    Entry& entry = found->second;
    const std::int64_t age = timeNs - entry.secondStart;  // negative where processors disagree
    if (age >= kSecondNs) {
        entry.isFlood = entry.inSecond > limit_ && age < 2 * kSecondNs;
        entry.secondStart = timeNs;
        entry.inSecond = 0;
    }
    entry.isIdle = false;
    if (++entry.inSecond <= limit_ && !entry.isFlood) {
        return true;
    }
    ++entry.sum.count;
    entry.sum.lastMs = event.lastMs;
    return false;
}

std::vector<Repeats::Sum> Repeats::Take()
{
    std::vector<Sum> sums;
    const std::lock_guard<std::mutex> lock(mutex_);
    for (auto next = entries_.begin(); next != entries_.end();) {
        Entry& entry = next->second;
        if (entry.sum.count > 0) {
            sums.push_back(entry.sum);
            entry.sum.count = 0;
        }
        const bool isIdle = std::exchange(entry.isIdle, true);
        next = isIdle ? entries_.erase(next) : std::next(next);
    }
    return sums;
}
