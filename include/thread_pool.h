#pragma once

#include <semaphore.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <set>
#include <string>

#include "neutils_api.h"

namespace NEUtils {

// Runs short jobs on a set of guarded threads that grows with the load and shrinks when it is idle.
//
// A worker takes at most one job per slice of 500 ms. A burst makes more workers, up to the maximum. A worker
// above the minimum that finds no job for about 60 s retires. Needs the guard (hips_guard.h). A job that runs
// longer than a minute calls KeepCurrentThreadAlive() now and then.
//
// Threads  any; Start and Stop belong to the owner.
// Locks    thread lock before queue lock; none is held while a job runs. A worker is made under the thread
//          lock, and logged there: a log subscriber must not use the pool.
// Blocks   Stop, and the destructor, wait for the jobs that run and at most a slice for the idle workers.
// Limits   5,000 waiting jobs; the one above is refused.
// Errors   false, with a record, also when memory has run out.
class NEUTILS_API ThreadPool {
public:
    // The process's own, which the agent runs for itself and its features; never destroyed.
    static ThreadPool& GetInstance();

    ThreadPool() = default;
    ~ThreadPool();  // stops it; jobs that still wait are dropped
    ThreadPool(const ThreadPool&) = delete;
    ThreadPool& operator=(const ThreadPool&) = delete;

    // A minimum of 0 counts as 1, a maximum below the minimum as the minimum. On a pool that runs it sets both
    // anew and makes the workers that are missing; waiting jobs stay. False if a worker cannot be made; those
    // made before keep running until Stop.
    bool Start(unsigned int minThreads, unsigned int maxThreads);

    // Queues a job. The worker bears the job's name while it runs it (null: none). The owner, if one is given,
    // is held until the job has run or is dropped. False before Start and when the queue is full. After Stop a
    // job is queued but never runs: the next Start, or the destructor, drops it.
    bool AddThread(void* (*func)(void*), void* arg, const char* name, std::shared_ptr<void> owner = nullptr);

    // Drops the owner's jobs that no worker has begun.
    void DropJobs(const std::shared_ptr<void>& owner);

    // Releases the handles of workers that have retired.
    void CleanThread();

    // From within a job it does not wait for that job's worker: the pool must then outlive it.
    void Stop();

    // The calling worker's handle, 0 on any other thread. The caller holds the thread lock.
    std::uintptr_t GetCurrentThreadHandle() const;
    static std::string GetCurrentThreadName();
    static void SetCurrentThreadName(const std::string& name);  // its first 15 characters

    // One slice of a worker: non-zero ends it.
    static int WorkerThread(void* pool);
    int WorkerProc();

private:
    struct Job {
        void* (*func)(void*) = nullptr;
        void* arg = nullptr;
        std::string name;
        std::shared_ptr<void> owner;
    };

    void OpenQueue(std::list<Job>& old);
    bool AddWorker();
    bool Push(void* (*func)(void*), void* arg, const char* name, std::shared_ptr<void> owner);
    bool TakeJob(Job& job);
    bool IsEnding() const;
    void WaitForWork();
    void RunJob(const Job& job);
    bool Retire();
    std::size_t QueuedJobs();

    std::atomic<bool> running_{false};

    std::mutex queueLock_;
    std::list<Job> jobs_;
    std::size_t queueLimit_ = 0;
    std::size_t discardCount_ = 0;

    std::mutex threadLock_;
    std::set<std::uintptr_t> alive_;
    std::set<std::uintptr_t> exiting_;
    unsigned int busyCount_ = 0;

    unsigned int minThreads_ = 0;
    unsigned int maxThreads_ = 0;
    sem_t semaphore_{};
    std::atomic<bool> semaphoreReady_{false};
};

}  // namespace NEUtils
