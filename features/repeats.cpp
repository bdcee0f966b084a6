#include "repeats.h"

#include <cstddef>
#include <iterator>
#include <utility>

namespace {

constexpr std::int64_t kSecondNs = 1000000000;
constexpr std::size_t kMostEntries = 10000;
constexpr std::uint64_t kAllPrograms = 10;  // times the limit of one

}  // namespace

bool Repeats::Admit(const Sum& event, std::int64_t timeNs)
{
    const std::lock_guard<std::mutex> lock(mutex_);
    const Key key = {event.event, event.parentPid, event.program};
    const auto found = entries_.find(key);
    if (found != entries_.end() && !Admit(found->second, event, limit_, timeNs)) {
        return false;
    }
    Sum all = event;
    all.program = "(several)";
    Entry* const parent = EntryOf({event.event, event.parentPid, std::nullopt}, all, timeNs);
    if (parent != nullptr && !Admit(*parent, event, limit_ * kAllPrograms, timeNs)) {
        return false;
    }
    Entry* const program = found == entries_.end() ? EntryOf(key, event, timeNs) : nullptr;
    return program == nullptr || Admit(*program, event, limit_, timeNs);
}

// Null where there is no room for another one.
Repeats::Entry* Repeats::EntryOf(const Key& key, const Sum& first, std::int64_t timeNs)
{
    const auto found = entries_.find(key);
    if (found != entries_.end()) {
        return &found->second;
    }
    const bool hasRoom = limit_ != 0 && entries_.size() < kMostEntries;
    return hasRoom ? &entries_.emplace(key, Entry{first, timeNs}).first->second : nullptr;
}

bool Repeats::Admit(Entry& entry, const Sum& event, std::uint64_t limit, std::int64_t timeNs)
{
    const std::int64_t age = timeNs - entry.secondStart;  // negative where processors disagree
    if (age >= kSecondNs) {
        entry.isFlood = entry.inSecond > limit && age < 2 * kSecondNs;
        entry.secondStart = timeNs;
        entry.inSecond = 0;
    }
    entry.isIdle = false;
    if (++entry.inSecond <= limit && !entry.isFlood) {
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
