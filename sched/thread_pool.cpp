#include "thread_pool.h"

#include <algorithm>
#include <iterator>
#include <new>
#include <utility>

#include "hips_guard.h"
#include "hips_thread_instance.h"
#include "logger.h"
#include "util/clock.h"
#include "util/thread_name.h"

namespace NEUtils {

namespace {

constexpr int kSliceUs = 500000;
constexpr std::size_t kQueueLimit = 5000;
constexpr int kWaitAttempts = 600;
constexpr long long kAttemptNs = 100 * Clock::kNsPerMs;
constexpr char kWorkerName[] = "T-Thread";

}  // namespace

ThreadPool& ThreadPool::GetInstance()
{
    static auto& pool = *new ThreadPool;
    return pool;
}

ThreadPool::~ThreadPool()
{
    Stop();
    if (semaphoreReady_) {
        sem_destroy(&semaphore_);
    }
}

bool ThreadPool::Start(unsigned int minThreads, unsigned int maxThreads)
{
    if (!semaphoreReady_) {
        if (sem_init(&semaphore_, 0, 0) != 0) {
            NE_LOG(ERROR, "Init thread pool sem failed.");
            return false;
        }
        semaphoreReady_ = true;
    }
    std::list<Job> old;  // destroyed after the locks are gone
    bool made = true;
    {
        const std::lock_guard<std::mutex> lock(threadLock_);
        OpenQueue(old);
        minThreads_ = std::max(minThreads, 1U);
        maxThreads_ = std::max(maxThreads, minThreads_);
        running_ = true;
        while (made && alive_.size() < minThreads_) {
            made = AddWorker();
        }
    }
    if (!made) {
        NE_LOG(ERROR, "Create worker thread failed.");
    }
    return made;
}

// Under the thread lock. Jobs from before a stop never run.
void ThreadPool::OpenQueue(std::list<Job>& old)
{
    const std::lock_guard<std::mutex> lock(queueLock_);
    queueLimit_ = kQueueLimit;
    // Kept at 0 because callers count on queued jobs: a full queue refuses the new job and keeps the old ones.
    discardCount_ = 0;
    if (!running_) {
        old.swap(jobs_);
        while (sem_trywait(&semaphore_) == 0) {
        }
    }
}

// Under the thread lock, after a look at the running flag there: a stop cannot miss the new worker.
bool ThreadPool::AddWorker()
{
    try {
        std::set<std::uintptr_t> entry = {0};  // its memory first: a worker that runs is always in the set
        auto node = entry.extract(entry.begin());
        const std::string name = kWorkerName + std::to_string(alive_.size());
        node.value() = CreateHipsThreadEx(&ThreadPool::WorkerThread, this, kSliceUs, name.c_str());
        return node.value() != 0 && alive_.insert(std::move(node)).inserted;
    } catch (const std::bad_alloc&) {
        return false;
    }
}

bool ThreadPool::AddThread(void* (*func)(void*), void* arg, const char* name, std::shared_ptr<void> owner)
{
    if (!semaphoreReady_ || !Push(func, arg, name, std::move(owner))) {
        NE_LOG(ERROR, "Push thread task to queue failed.");
        return false;
    }
    sem_post(&semaphore_);
    bool made = true;
    {
        const std::lock_guard<std::mutex> lock(threadLock_);
        // Kept because operators know the names: at most one worker a call, numbered by those alive.
        if (running_ && busyCount_ + QueuedJobs() > alive_.size() && alive_.size() < maxThreads_) {
            made = AddWorker();
        }
    }
    if (!made) {
        NE_LOG(ERROR, "Add pool thread failed.");
    }
    return true;
}

bool ThreadPool::Push(void* (*func)(void*), void* arg, const char* name, std::shared_ptr<void> owner)
{
    std::list<Job> added;
    try {
        added.push_back({func, arg, name == nullptr ? "" : name, std::move(owner)});
    } catch (const std::bad_alloc&) {
        return false;
    }
    std::list<Job> dropped;  // destroyed after the lock is gone: it may hold the last reference to its owner
    const std::lock_guard<std::mutex> lock(queueLock_);
    if (jobs_.size() >= queueLimit_) {
        if (discardCount_ == 0) {
            return false;
        }
        const auto count = static_cast<std::ptrdiff_t>(std::min(discardCount_, jobs_.size()));
        dropped.splice(dropped.end(), jobs_, jobs_.begin(), std::next(jobs_.begin(), count));
    }
    jobs_.splice(jobs_.end(), added);
    return true;
}

void ThreadPool::DropJobs(const std::shared_ptr<void>& owner)
{
    std::list<Job> dropped;  // destroyed after the lock is gone
    {
        const std::lock_guard<std::mutex> lock(queueLock_);
        for (auto job = jobs_.begin(); job != jobs_.end();) {
            const auto next = std::next(job);
            if (job->owner == owner) {
                dropped.splice(dropped.end(), jobs_, job);
            }
            job = next;
        }
    }
    for (std::size_t i = 0; i < dropped.size() && semaphoreReady_; ++i) {
        sem_trywait(&semaphore_);  // no worker needs to wake for it; one that has woken finds nothing
    }
}

std::size_t ThreadPool::QueuedJobs()
{
    const std::lock_guard<std::mutex> lock(queueLock_);
    return jobs_.size();
}

bool ThreadPool::TakeJob(Job& job)
{
    const std::lock_guard<std::mutex> lock(queueLock_);
    if (jobs_.empty()) {
        return false;
    }
    job = std::move(jobs_.front());
    jobs_.pop_front();
    return true;
}

void ThreadPool::CleanThread()
{
    std::set<std::uintptr_t> ended;
    {
        const std::lock_guard<std::mutex> lock(threadLock_);
        for (auto handle = exiting_.begin(); handle != exiting_.end();) {
            const auto current = handle++;
            if (!IsHipsThreadRunningEx(*current)) {
                ended.insert(exiting_.extract(current));
            }
        }
    }
    for (const std::uintptr_t handle : ended) {
        CloseHipsThreadHandleEx(handle);
    }
}

void ThreadPool::Stop()
{
    std::set<std::uintptr_t> handles;
    std::size_t aliveCount = 0;
    {
        const std::lock_guard<std::mutex> lock(threadLock_);
        if (!running_) {
            return;
        }
        running_ = false;  // before the posts below: no worker that they wake takes a job
        aliveCount = alive_.size();
        handles.merge(alive_);
        handles.merge(exiting_);
    }
    NE_LOG(INFO, "Stop threads.Pool alive count.[count=%zu]", aliveCount);
    for (const std::uintptr_t handle : handles) {
        FastStopHipsThreadEx(handle);
        sem_post(&semaphore_);
    }
    for (const std::uintptr_t handle : handles) {
        StopHipsThreadEx(handle);
        CloseHipsThreadHandleEx(handle);
    }
}

std::uintptr_t ThreadPool::GetCurrentThreadHandle() const
{
    const auto own = static_cast<unsigned long>(pthread_self());
    const auto found = std::find_if(alive_.begin(), alive_.end(),
                                    [own](std::uintptr_t handle) { return GetHipsThreadIdEx(handle) == own; });
    return found == alive_.end() ? 0 : *found;
}

std::string ThreadPool::GetCurrentThreadName()
{
    return ThreadName(pthread_self());
}

void ThreadPool::SetCurrentThreadName(const std::string& name)
{
    SetThreadName(name);
}

int ThreadPool::WorkerThread(void* pool)
{
    return pool == nullptr ? -1 : static_cast<ThreadPool*>(pool)->WorkerProc();
}

int ThreadPool::WorkerProc()
{
    if (IsEnding()) {
        return -1;
    }
    SetCurrentThreadName(kWorkerName);
    WaitForWork();
    if (IsEnding()) {
        return -1;
    }
    Job job;
    if (TakeJob(job)) {
        RunJob(job);
        return 0;
    }
    return Retire() ? -1 : 0;
}

// Somebody stops the pool, or this worker.
bool ThreadPool::IsEnding() const
{
    HipsThreadInstance* worker = HipsThreadInstance::Current();
    return !running_ || (worker != nullptr && !worker->IsRunning());
}

// Waits at most about a minute, and beats while it does.
void ThreadPool::WaitForWork()
{
    for (int attempt = 0; attempt < kWaitAttempts && !IsEnding() && sem_trywait(&semaphore_) != 0; ++attempt) {
        Clock::SleepNs(kAttemptNs);
        KeepCurrentThreadAlive();
    }
}

void ThreadPool::RunJob(const Job& job)
{
    // Counted down again also when the job throws; the guard logs what it threw.
    struct Busy {
        explicit Busy(ThreadPool& owner) : pool(owner)
        {
            const std::lock_guard<std::mutex> lock(pool.threadLock_);
            ++pool.busyCount_;
        }
        ~Busy()
        {
            const std::lock_guard<std::mutex> lock(pool.threadLock_);
            if (pool.busyCount_ > 0) {
                --pool.busyCount_;
            }
        }
        Busy(const Busy&) = delete;
        Busy& operator=(const Busy&) = delete;
        ThreadPool& pool;
    };
    const Busy busy(*this);
    char name[kMaxThreadName + 1] = "T-";
    job.name.copy(name + 2, kMaxThreadName - 2);
    SetThreadName(name);
    job.func(job.arg);
}

// No job came: a worker above the minimum ends, and CleanThread releases its handle.
bool ThreadPool::Retire()
{
    const std::lock_guard<std::mutex> lock(threadLock_);
    if (alive_.size() <= minThreads_) {
        return false;
    }
    const std::uintptr_t own = GetCurrentThreadHandle();
    if (own != 0) {
        exiting_.insert(alive_.extract(own));
    }
    return true;
}

}  // namespace NEUtils
