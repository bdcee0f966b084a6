// What the scheduling layer costs: the reader-writer lock beside std::shared_mutex, a tick of the task
// manager in which nothing is due, a job handed to the thread pool, and the memory of idle workers.
//
// Times are wall time divided by the operations of all threads together. It ends before the guard, which
// looks once a minute, can find it too busy.
#include <benchmark/benchmark.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <memory>
#include <shared_mutex>
#include <string>
#include <thread>

#include "hips_guard.h"
#include "median_reporter.h"
#include "mr1w_lock.h"
#include "task_manager.h"
#include "thread_pool.h"

namespace {

using NEUtils::MR1WLock;
using NEUtils::TaskManager;
using NEUtils::ThreadPool;

constexpr std::array<int, 3> kThreadCounts = {1, 2, 4};
constexpr int kJobs = 4000;  // the pool's queue takes 5,000
constexpr unsigned int kWorkers = 64;
constexpr std::int64_t kDayMs = 24LL * 3600 * 1000;

void Require(bool done, const char* what)
{
    if (!done) {
        std::fprintf(stderr, "failed: %s\n", what);
        std::abort();
    }
}

void* DoNothing(void*)
{
    return nullptr;
}

// Readers of one lock.

MR1WLock g_lock;
std::shared_mutex g_sharedMutex;

void MR1WLockRead(benchmark::State& state)
{
    for ([[maybe_unused]] auto step : state) {
        g_lock.LockForRead();
        g_lock.UnlockForRead();
    }
}

void SharedMutexRead(benchmark::State& state)
{
    for ([[maybe_unused]] auto step : state) {
        g_sharedMutex.lock_shared();
        g_sharedMutex.unlock_shared();
    }
}

// A tick. Each manager's own thread is stopped, so that it does not look at the tasks meanwhile.

ThreadPool g_taskPool;
std::map<std::int64_t, TaskManager> g_managers;  // by their number of tasks

TaskManager& ManagerOf(std::int64_t count)
{
    TaskManager& manager = g_managers[count];
    Require(manager.Start(&g_taskPool), "start of a task manager");
    manager.StopAllThreads();
    const std::int64_t nowMs =
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::system_clock::now().time_since_epoch())
            .count();
    NEUtils::TASK_CONDITION daily = {};
    daily.firstDelayMs = daily.intervalMs = kDayMs;
    daily.firstLaunchTime = daily.nextLaunchTime = nowMs + kDayMs;
    daily.createThread = true;
    for (std::int64_t task = 0; task < count; ++task) {
        Require(manager.RegisterTask(NEUtils::TASK_FIXED_INTERVAL, daily, &DoNothing, nullptr, "bench") != 0,
                "registration");
    }
    return manager;
}

void DoSchedule(benchmark::State& state)
{
    const std::int64_t count = state.range(0);
    const auto known = g_managers.find(count);
    TaskManager& manager = known == g_managers.end() ? ManagerOf(count) : known->second;
    while (state.KeepRunningBatch(count)) {
        manager.DoSchedule();
    }
}

// Jobs for a pool that is made anew for each batch, whose one worker takes a job every half second.

std::unique_ptr<ThreadPool> g_jobPool;

void OpenPool(const benchmark::State&)
{
    g_jobPool = std::make_unique<ThreadPool>();
    Require(g_jobPool->Start(1, 1), "start of a pool");
}

void ClosePool(const benchmark::State&)
{
    g_jobPool.reset();
}

void AddThread(benchmark::State& state)
{
    for ([[maybe_unused]] auto step : state) {
        Require(g_jobPool->AddThread(&DoNothing, nullptr, "bench"), "a job, the queue is full");
    }
}

void Settle(benchmark::internal::Benchmark* bench)
{
    bench->UseRealTime()->Repetitions(5)->ReportAggregatesOnly(true);
}

void SettleThreads(benchmark::internal::Benchmark* bench)
{
    Settle(bench);
    bench->MinTime(0.2);
    for (const int threads : kThreadCounts) {
        bench->Threads(threads);
    }
}

BENCHMARK(MR1WLockRead)->Apply(SettleThreads);
BENCHMARK(SharedMutexRead)->Apply(SettleThreads);
BENCHMARK(DoSchedule)->Apply(Settle)->MinTime(0.2)->Arg(10)->Arg(1000)->Arg(100000);
BENCHMARK(AddThread)->Apply(Settle)->Iterations(kJobs)->Setup(OpenPool)->Teardown(ClosePool);

long ResidentKiB()
{
    std::ifstream status("/proc/self/status");
    std::string word;
    while (status >> word && word != "VmRSS:") {
    }
    long kib = 0;
    Require(static_cast<bool>(status >> kib), "VmRSS");
    return kib;
}

// What the workers add, once each has waited for work a while.
long WorkersKiB()
{
    ThreadPool pool;
    const long before = ResidentKiB();
    Require(pool.Start(kWorkers, kWorkers), "start of the workers");
    std::this_thread::sleep_for(std::chrono::seconds(2));
    return ResidentKiB() - before;
}

class SchedReporter : public MedianReporter {
public:
    void Finalize() override
    {
        PrintRows("operation", "ns/operation");
        std::printf("\n%-20s %8s %12s\n", "ratio", "threads", "MR1W/shared");
        for (const int threads : kThreadCounts) {
            std::printf("%-20s %8d %12s\n", "", threads,
                        Ratio({"MR1WLockRead", threads}, {"SharedMutexRead", threads}).c_str());
        }
        std::printf("\na task's share of a tick grows (aim: 1 or less): 10 to 1,000 %s, 1,000 to 100,000 %s\n",
                    Ratio({"DoSchedule/1000", 1}, {"DoSchedule/10", 1}).c_str(),
                    Ratio({"DoSchedule/100000", 1}, {"DoSchedule/1000", 1}).c_str());
    }
};

}  // namespace

int main(int argc, char** argv)
{
    Require(InitHipsGuard(0, 0, 0) == 0, "start of the guard");
    const long workersKiB = WorkersKiB();  // first: later, memory that was freed would be taken again
    Require(g_taskPool.Start(1, 1), "start of the pool");
    SchedReporter reporter;
    const int code = RunBenchmarks(argc, argv, reporter);
    std::printf("\n%u idle workers: %ld KiB resident, %.1f KiB each\n", kWorkers, workersKiB,
                static_cast<double>(workersKiB) / kWorkers);
    g_managers.clear();  // stops them
    g_taskPool.Stop();
    return UninitHipsGuard() ? code : 1;
}
