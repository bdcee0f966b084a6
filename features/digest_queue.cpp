#include "digest_queue.h"

#include <utility>

#include "hips_guard.h"
#include "logger.h"
#include "sha256.h"
#include "thread_pool.h"

using NEUtils::Sha256;

namespace {

constexpr std::size_t kMaxPaths = 10000;

}  // namespace

void DigestQueue::Start(std::uint64_t maxSize, Tell tell)
{
    maxSize_ = maxSize;
    tell_ = std::move(tell);
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
    }
}

// From here on a change of the file is one to come: it queues the path anew.
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
    if (result == Sha256::kOk) {
        tell_(path, digest);
    } else if (result == Sha256::kUnreadable) {
        NE_LOG(WARN, "File has no digest, it cannot be read.[path=%s]", NEUtils::Printable(path).c_str());
    }
}
