#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <unordered_set>

#include "pool_job.h"

// Files whose SHA-256 is wanted, taken off by one job of the process's pool: a job for each would be held to two
// a second per worker.
//
// Threads  Add: any. Digests are told on a worker of the pool, one at a time. Start and Stop: the owner's.
// Blocks   Stop: until the file under way gives up, at its next 64 KiB.
// Limits   10,000 files; one that is in the queue is not added again.
class DigestQueue {
public:
    using Tell = std::function<void(const std::string& path, const std::string& digest)>;

    // Files above maxSize bytes are left out, as are those that are gone by then.
    void Start(std::uint64_t maxSize, Tell tell);
    void Stop();

    // False if the queue is full.
    bool Add(const std::string& path);

private:
    void Drain();
    bool Take(std::string& path);
    void Digest(const std::string& path);

    std::uint64_t maxSize_ = 0;
    Tell tell_;
    std::mutex mutex_;
    std::deque<std::string> paths_;
    std::unordered_set<std::string> queued_;
    NEUtils::PoolJob job_;
};
