#include "digest_queue.h"

#include <utility>

#include "hips_guard.h"
#include "thread_pool.h"

using NEUtils::Sha256;

namespace {

constexpr std::size_t kMaxPaths = 10000;

}  // namespace

void DigestQueue::Start(std::uint64_t maxSize, OnDigest onDigest)
{
    maxSize_ = maxSize;
    onDigest_ = std::move(onDigest);
    job_.Start(NEUtils::ThreadPool::GetInstance(), "file-digest", [this] { Drain(); });
}

void DigestQueue::Stop()
{
    job_.Stop();
}

bool DigestQueue::Add(const std::string& path)
{
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (queued_.count(path) != 0) {
            return true;
        }
        if (paths_.size() >= kMaxPaths) {
            return false;
        }
        queued_.insert(path);
        paths_.push_back(path);
    }
    job_.Request();  // where the pool refuses, the next one asks again
    return true;
}

void DigestQueue::Drain()
{
    for (std::string path; !job_.IsStopping() && Take(path);) {
        Digest(path);
        KeepCurrentThreadAlive();  // files that are gone may keep this busy too
    }
}

// A change of the file after this queues the path anew.
bool DigestQueue::Take(std::string& path)
{
    const std::lock_guard<std::mutex> lock(mutex_);
    if (paths_.empty()) {
        return false;
    }
    path = std::move(paths_.front());
    paths_.pop_front();
    queued_.erase(path);
    return true;
}

void DigestQueue::Digest(const std::string& path)
{
    const auto goOn = [this] {
        KeepCurrentThreadAlive();
        return !job_.IsStopping();
    };
    std::string digest;
    const Sha256::Result result = Sha256::DigestFile(path, maxSize_, digest, goOn);
    if (result == Sha256::kOk || result == Sha256::kTooLarge || result == Sha256::kUnreadable) {
        onDigest_(path, result, digest);
    }
}
