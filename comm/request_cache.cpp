#include "comm/request_cache.h"

#include <cstdlib>
#include <utility>

#include "util/clock.h"

namespace NEUtils {

namespace {

constexpr std::size_t kMostExhausted = 200;

bool IsExhausted(unsigned int retries)
{
    return retries >= RequestCache::kRetries;
}

}  // namespace

void RequestCache::Add(std::uint32_t seq, std::uint32_t type, Bytes message)
{
    Requests fresh;
    fresh.push_back({{seq, type, std::move(message)}, Clock::WallSeconds(), 0});
    const std::lock_guard<std::mutex> lock(mutex_);
    bySeq_.emplace(seq, fresh.begin());
    requests_.splice(requests_.end(), fresh);
}

bool RequestCache::Remove(std::uint32_t seq)
{
    Requests removed;  // freed outside the lock
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto found = bySeq_.find(seq);
    if (found == bySeq_.end()) {
        return false;
    }
    removed.splice(removed.end(), requests_, found->second);
    bySeq_.erase(found);
    return true;
}

void RequestCache::Clear()
{
    const std::lock_guard<std::mutex> lock(mutex_);
    bySeq_.clear();
    requests_.clear();
}

bool RequestCache::TakeDue(Due& due)
{
    const std::int64_t now = Clock::WallSeconds();
    const std::lock_guard<std::mutex> lock(mutex_);
    DropExhausted();
    for (auto request = requests_.begin(); request != requests_.end(); ++request) {
        if (IsExhausted(request->retries) || std::llabs(now - request->lastSend) <= kRetryAfterSeconds) {
            continue;
        }
        request->lastSend = now;
        ++request->retries;
        due = request->request;
        requests_.splice(requests_.end(), requests_, request);
        return true;
    }
    return false;
}

void RequestCache::DropExhausted()
{
    for (auto next = requests_.begin(); next != requests_.end() && requests_.size() > kMostExhausted;) {
        const auto request = next++;
        if (IsExhausted(request->retries)) {
            Erase(request);
        }
    }
}

void RequestCache::Erase(Requests::iterator request)
{
    const auto [begin, end] = bySeq_.equal_range(request->request.seq);
    for (auto entry = begin; entry != end; ++entry) {
        if (entry->second == request) {
            bySeq_.erase(entry);
            break;
        }
    }
    requests_.erase(request);
}

}  // namespace NEUtils
