#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <unordered_set>

#include "pool_job.h"
#include "sha256.h"

// Files whose SHA-256 is wanted, computed by one job of the process's pool, since a worker takes only two jobs a
// second.
//
// Threads  Add: any. The callback runs on a worker of the pool, one call at a time. Start and Stop: the owner's.
// Blocks   Stop: until the file under way gives up, at its next 64 KiB.
// Limits   10,000 files; one that is in the queue is not added again.
class DigestQueue {
public:
    using OnDigest =
        std::function<void(const std::string& path, NEUtils::Sha256::Result result, const std::string& digest)>;

    // The callback gets each file but those that are gone by then, are no regular ones, or are under way at the stop.
    // One above maxSize bytes is not read.
    void Start(std::uint64_t maxSize, OnDigest onDigest);
    void Stop();

    // False if the queue is full.
    bool Add(const std::string& path);

private:
    void Drain();
    bool Take(std::string& path);
    void Digest(const std::string& path);

    std::uint64_t maxSize_ = 0;
    OnDigest onDigest_;
    std::mutex mutex_;
    std::deque<std::string> paths_;
    std::unordered_set<std::string> queued_;
    NEUtils::PoolJob job_;
};
