#include "pool_job.h"
#include "task_manager.h"
#include "tests/sched/pool_fixture.h"
#include "tests/support/failing_allocations.h"
#include "util/clock.h"

namespace {

struct ThreadPoolTest : PoolTest {
    std::ptrdiff_t Workers(const std::string& number) const
    {
        return records_.Count("DEBUG Create extend thread called.[name=T-Thread" + number + "]");
    }
};

}  // namespace

TEST_F(ThreadPoolTest, GrowsByOneACallUpToTheMaximum)
{
    EXPECT_FALSE(pool_.AddThread(&Job, nullptr, "early"));
    ASSERT_TRUE(pool_.Start(0, 3));
    EXPECT_EQ(Workers("0"), 1);
    hold = true;
    std::string name;
    EXPECT_TRUE(pool_.AddThread(&Job, &name, "a-long-job-name"));
    ASSERT_TRUE(Runs(1));
    for (int i = 0; i < 5; ++i) {
        EXPECT_TRUE(pool_.AddThread(&Job, nullptr, nullptr));
        EXPECT_EQ(Workers("1"), 1);  // from the first on: the only worker is busy
    }
    EXPECT_EQ(Workers("2"), 1);
    EXPECT_EQ(Workers("3"), 0);
    ASSERT_TRUE(Runs(3));
    hold = false;
    EXPECT_TRUE(Runs(6));
    EXPECT_EQ(name, "T-a-long-job-na");
}

// Kept because callers count on queued jobs: neither a full queue nor another start of the pool drops one.
TEST_F(ThreadPoolTest, QueueTakes5000JobsAndKeepsThemWhereTheRunningPoolIsStarted)
{
    ASSERT_TRUE(pool_.Start(1, 1));
    hold = true;
    pool_.AddThread(&Job, nullptr, "busy");
    ASSERT_TRUE(Runs(1));
    const auto owner = std::make_shared<int>(0);
    for (int i = 0; i < 5000; ++i) {
        ASSERT_TRUE(pool_.AddThread(&Job, nullptr, "waits", owner));
    }
    EXPECT_FALSE(pool_.AddThread(&Job, nullptr, "refused", owner));
    EXPECT_EQ(records_.FileOf("ERROR Push thread task to queue failed."), "thread_pool.cpp");
    EXPECT_TRUE(pool_.Start(3, 5));  // makes the workers that it lacks
    EXPECT_TRUE(Workers("0") == 1 && Workers("1") == 1 && Workers("2") == 1 && Workers("3") == 0);
    EXPECT_TRUE(Runs(3));
    EXPECT_EQ(owner.use_count(), 5001);
    hold = false;
    pool_.Stop();
    EXPECT_TRUE(records_.Has("INFO Stop threads.Pool alive count.[count=3]"));
}

// Jobs must neither run nor be lost to a leak after a stop, and a stop must not wait for the idle.
TEST_F(ThreadPoolTest, StopIsPromptAndLeavesQueuedJobsUnrun)
{
    auto pool = std::make_unique<ThreadPool>();
    ASSERT_TRUE(pool->Start(4, 2));
    const auto owner = std::make_shared<int>(0);
    std::this_thread::sleep_for(std::chrono::milliseconds(700));  // into the wait for work
    const auto start = Clock::MonotonicNs();
    std::jthread adder([&] {
        for (int i = 0; i < 200; ++i) {
            pool->AddThread(&Job, nullptr, "job", owner);
        }
    });
    pool->Stop();
    EXPECT_LT(Clock::MonotonicNs() - start, 2 * Clock::kNsPerSecond);
    adder.join();
    EXPECT_TRUE(records_.Has("INFO Stop threads.Pool alive count.[count=4]"));
    const int ran = runs;
    EXPECT_TRUE(pool->AddThread(&Job, nullptr, "after", owner));
    std::this_thread::sleep_for(std::chrono::milliseconds(700));
    EXPECT_EQ(runs, ran);
    pool.reset();
    EXPECT_EQ(owner.use_count(), 1);
    ASSERT_TRUE(pool_.Start(2, 2));
    std::this_thread::sleep_for(std::chrono::milliseconds(700));
    EXPECT_TRUE(UninitHipsGuard());  // before the pool: its idle workers must not wait for their minute
    EXPECT_LT(Clock::MonotonicNs() - start, 10 * Clock::kNsPerSecond);
}

TEST_F(ThreadPoolTest, IdleWorkersRetireToTheMinimumAndJobsMayThrow)
{
    ASSERT_TRUE(pool_.Start(1, 2));
    pool_.AddThread([](void*) -> void* { throw std::runtime_error("broken"); }, nullptr, "throws");
    pool_.AddThread(&Job, nullptr, "next");
    ASSERT_TRUE(Runs(1));
    EXPECT_TRUE(Eventually([this] { return Workers("1") == 1; }));
    Clock::sleepDivisor = 100;  // the idle wait is a minute
    const auto start = Clock::MonotonicNs();
    const auto released = [this] {
        pool_.CleanThread();
        return records_.CountWith("INFO Delete instance.[instanceName=T-Thread");
    };
    EXPECT_TRUE(Eventually([&] { return released() == 1; }));
    EXPECT_GT(Clock::MonotonicNs() - start, 580 * Clock::kNsPerMs);  // a slice may be nearly over by then
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));    // another idle wait
    EXPECT_EQ(released(), 1);
    Clock::sleepDivisor = 1;
    EXPECT_TRUE(pool_.AddThread(&Job, nullptr, "still served"));
    EXPECT_TRUE(Runs(2));
}

// Without the collected records, which need memory too.
struct SchedMemoryTest : PoolTest {
    SchedMemoryTest() { MessageBus::Unsubscribe(kNormalLog, "test-records"); }
};

TEST_F(SchedMemoryTest, EveryAllocationMayFail)
{
    using FailingAllocations::InTurn;
    using FailingAllocations::Mode;
    const std::string name = "a name that needs memory of its own";
    for (const Mode mode : {Mode::kOne, Mode::kAllFromThere}) {
        ThreadPool pool;
        bool done = false;
        const auto start = [&] { done = pool.Start(2, 2); };
        const auto again = [&](int) {
            EXPECT_TRUE(pool.Start(2, 2));
            pool.Stop();
        };
        EXPECT_GT(InTurn(mode, start, again), 4);
        EXPECT_TRUE(done && pool.Start(1, 9));
        runs = 0;
        int accepted = 0;
        const auto add = [&] { done = pool.AddThread(&Job, nullptr, name.c_str()); };
        EXPECT_GT(InTurn(mode, add, [&](int) { accepted += done ? 1 : 0; }), 1);
        EXPECT_TRUE(Runs(accepted));

        PoolJob job;
        std::atomic<int> worked = 0;
        job.Start(pool, name, [&worked] { ++worked; });
        const auto request = [&] { done = job.Request(); };
        const auto works = [&](int) {
            ASSERT_TRUE(job.Request() && Eventually([&] { return worked > 0; }));
            worked = 0;
        };
        EXPECT_GT(InTurn(mode, request, works), 2);
        job.Stop();

        TaskManager manager;
        ASSERT_TRUE(manager.Start(&pool));
        TASK_CONDITION condition = {};
        condition.createThread = true;
        std::uint32_t id = 0;
        const auto enter = [&] { id = manager.RegisterTask(TASK_ON_DEMAND, condition, &Job, nullptr, name); };
        EXPECT_GT(InTurn(mode, enter, [&](int) { EXPECT_EQ(manager.GetTask(id) == nullptr, id == 0); }), 2);
        EXPECT_GT(InTurn(mode, [&] { manager.GetTask(id)->RunTask(); }), 2);
        // What did not run has given its lock back.
        EXPECT_TRUE(Eventually([&] {
            runs = 0;
            manager.GetTask(id)->RunTask();
            return Eventually([] { return runs > 0; }, 1);
        }));
        const auto leaves = [&](int number) { EXPECT_EQ(manager.GetTask(id) == nullptr, number == 1); };
        InTurn(
            mode, [&] { manager.UnregisterTask(id); }, leaves);
        manager.Stop();
        pool.Stop();
    }
}
