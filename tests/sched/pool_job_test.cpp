#include "pool_job.h"

#include "hips_instance_manager.h"
#include "tests/sched/pool_fixture.h"

namespace {

struct PoolJobTest : PoolTest {
    PoolJobTest() { hold = true; }
    ~PoolJobTest() override
    {
        hold = false;
        job_.Stop();
        pool_.Stop();  // before what its last job may still use
    }
    void Start(const std::function<void()>& work)
    {
        pool_.Start(1, 2);
        job_.Start(pool_, "test", work);
    }
    void Work()
    {
        EXPECT_EQ(++inside_, 1);
        Job(nullptr);
        --inside_;
    }

    std::atomic<int> inside_{0};
    PoolJob job_;
};

}  // namespace

// A request that comes while the work ends must not be forgotten, nor a second worker do the same work.
TEST_F(PoolJobTest, RunsOnceMoreForAllRequestsThatComeMeanwhile)
{
    EXPECT_FALSE(job_.Request());
    Start([this] { Work(); });
    EXPECT_TRUE(job_.Request());
    ASSERT_TRUE(Runs(1));
    InThreads(4, [this](int) {
        for (int i = 0; i < 100; ++i) {
            EXPECT_TRUE(job_.Request());
        }
    });
    hold = false;
    ASSERT_TRUE(Eventually([this] { return runs == 2 && inside_ == 0; }));
    EXPECT_TRUE(job_.Request() && Runs(3));
}

// Work that runs on after a stop would use what its owner has freed, and code that has been unloaded.
TEST_F(PoolJobTest, StopWaitsForTheWorkAndLeavesNothingOfIt)
{
    auto held = std::make_shared<int>();
    Start([this, held] { Work(); });
    job_.Request();
    ASSERT_TRUE(Runs(1));
    std::jthread release([this] {
        while (!job_.IsStopping()) {
            std::this_thread::yield();
        }
        hold = false;
    });
    job_.Request();
    job_.Stop();
    EXPECT_TRUE(inside_ == 0 && runs == 1 && held.use_count() == 1 && !job_.Request());
    // A feature that starts and stops often would fill the queue with jobs that do nothing.
    for (int i = 0; i < 6000; ++i) {
        job_.Start(pool_, "test", [] {});
        ASSERT_TRUE(job_.Request()) << i;
        job_.Stop();
    }
    job_.Start(pool_, "test", [this] { job_.Stop(), Work(); });  // does not wait for itself
    EXPECT_TRUE(job_.Request() && Eventually([this] { return runs == 2 && inside_ == 0; }));
}

// Work that is asked for without end must not look like a worker that hangs: the guard would end the agent.
TEST_F(PoolJobTest, EachCallOfTheWorkIsAHeartbeat)
{
    hold = false;
    Start([this] { Work(), job_.Request(); });
    EXPECT_TRUE(job_.Request());
    for (int round = 0; round < 5; ++round) {
        const int before = runs;
        ASSERT_TRUE(Eventually([&] { return runs > before + 1; }));
        EXPECT_TRUE(HipsInstanceManager::CreateInstance(0, false, 0)->CheckInstanceList());
    }
    EXPECT_EQ(records_.CountWith("Check instance heart beat failed.[runtimeName=T-test"), 0);
}

// One turn that never ends in order would be the last.
TEST_F(PoolJobTest, GoesOnAfterAThrowAndAfterAJobThatThePoolDropped)
{
    hold = false;
    Start([this] {
        Work();
        if (runs == 1) {
            throw std::runtime_error("once");
        }
    });
    job_.Request();
    ASSERT_TRUE(Eventually([this] { return runs == 1 && inside_ == 0; }));
    ASSERT_TRUE(Eventually([this] { return job_.Request() && runs >= 2; }));
    pool_.Stop();
    const int before = runs;
    job_.Request();  // queued where nobody takes it
    pool_.Start(1, 2);
    EXPECT_TRUE(job_.Request() && Eventually([&] { return runs > before; }));
}
