#include "hips_guard.h"

#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <thread>

#include "config.h"
#include "hips_instance_manager.h"
#include "hips_resource_manager.h"
#include "tests/support/support.h"
#include "util/clock.h"

using NEUtils::HipsInstanceManager;
namespace Clock = NEUtils::Clock;

namespace {

std::atomic<int> g_runs{0};
std::atomic<bool> g_hold{false};
std::atomic<std::uintptr_t> g_handle{0};

int Count(void*)
{
    ++g_runs;
    return 0;
}
int Hold(void*)
{
    ++g_runs;
    while (g_hold) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return 0;
}
int StopSelf(void*)
{
    while (g_handle == 0) {
        std::this_thread::yield();
    }
    EXPECT_TRUE(StopHipsThreadEx(g_handle));
    ++g_runs;
    return 0;
}

bool CheckRound()
{
    return HipsInstanceManager::CreateInstance(0, false, 0)->CheckInstanceList();
}

class HipsGuardTest : public testing::Test {
protected:
    HipsGuardTest()
    {
        g_runs = 0;
        EXPECT_EQ(InitHipsGuard(0, 0, 0), 0);
    }
    ~HipsGuardTest() override
    {
        g_hold = false;
        UninitHipsGuard();
    }
    Records records_;
};

}  // namespace

TEST_F(HipsGuardTest, SlicesComeAfterTheirSleepUntilStopped)
{
    const std::uintptr_t handle = CreateHipsThreadEx(&Count, nullptr, 50000, "a-name-that-is-too-long");
    ASSERT_NE(handle, 0U);
    EXPECT_EQ(g_runs, 0);
    ASSERT_TRUE(Eventually([] { return g_runs >= 3; }));
    EXPECT_TRUE(records_.Has("DEBUG Create extend thread called.[name=a-name-that-is-too-long]"));
    EXPECT_TRUE(IsHipsThreadRunningEx(handle));
    EXPECT_NE(GetHipsThreadIdEx(handle), 0U);
    EXPECT_TRUE(StopHipsThreadEx(handle));
    const int runs = g_runs;
    EXPECT_FALSE(IsHipsThreadRunningEx(handle));
    EXPECT_TRUE(StopHipsThreadEx(handle));  // again, with nothing left to wait for
    EXPECT_TRUE(CloseHipsThreadHandleEx(handle));
    EXPECT_EQ(g_runs, runs);
    EXPECT_FALSE(CloseHipsThreadHandleEx(handle));
    EXPECT_FALSE(StopHipsThreadEx(handle) || FastStopHipsThreadEx(handle) || IsHipsThreadRunningEx(handle) ||
                 KeepHipsThreadAlive(handle));
    EXPECT_TRUE(records_.Has("ERROR Hips guard is not initialized or invalid thread handle."));
    EXPECT_NE(CreateHipsThreadEx(&Count, nullptr, 0, nullptr), handle);
}

// Stop in every state: a thread that is left behind uses freed memory, a stop that hangs holds the agent.
TEST_F(HipsGuardTest, StopsInEveryState)
{
    const std::uintptr_t self = CreateHipsThreadEx(&StopSelf, nullptr, 0, "self");
    g_handle = self;
    ASSERT_TRUE(Eventually([self] { return !IsHipsThreadRunningEx(self); }));
    EXPECT_TRUE(StopHipsThreadEx(self));  // waits for the thread that was let go
    EXPECT_EQ(g_runs, 1);

    g_runs = 0;
    g_hold = true;
    const std::uintptr_t busy = CreateHipsThreadEx(&Hold, nullptr, 0, "busy");
    ASSERT_TRUE(Eventually([] { return g_runs == 1; }));
    std::vector<std::thread> stoppers;
    for (int i = 0; i < 3; ++i) {
        stoppers.emplace_back([busy] {
            EXPECT_TRUE(StopHipsThreadEx(busy));
            EXPECT_FALSE(g_hold);  // nobody comes back before the routine has
        });
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    g_hold = false;
    for (auto& stopper : stoppers) {
        stopper.join();
    }

    g_runs = 0;
    const std::uintptr_t sleeping = CreateHipsThreadEx(&Count, nullptr, 500000, "sleeping");
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_TRUE(StopHipsThreadEx(sleeping));
    EXPECT_EQ(g_runs, 1);  // kept: the slice still runs once
    g_hold = true;
    const std::uintptr_t closed = CreateHipsThreadEx(&Hold, nullptr, 0, "closed");
    ASSERT_TRUE(Eventually([] { return g_runs == 2; }));
    EXPECT_TRUE(CloseHipsThreadHandleEx(closed));
    std::thread releaser([] {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        g_hold = false;
    });
    EXPECT_TRUE(UninitHipsGuard());  // waits for a thread without a handle too
    EXPECT_FALSE(g_hold);
    releaser.join();
}

TEST_F(HipsGuardTest, EndsAndBeginsAgain)
{
    EXPECT_EQ(InitHipsGuard(0, 0, 0), 0);
    // Nothing else: measured over an instant, the start itself looked like an overload.
    EXPECT_EQ(records_.Lines(), std::vector<std::string>{"INFO Hips guard has been initialized."});
    g_hold = true;
    for (int i = 0; i < 4; ++i) {
        ASSERT_NE(CreateHipsThreadEx(&Hold, nullptr, 1000 * i, "held"), 0U);
    }
    std::thread ender([] { EXPECT_TRUE(UninitHipsGuard()); });
    ASSERT_TRUE(Eventually([] { return CreateHipsThreadEx(&Count, nullptr, 0, "late") == 0; }));
    g_hold = false;
    ender.join();
    EXPECT_FALSE(UninitHipsGuard());
    EXPECT_EQ(CreateHipsThreadEx(&Count, nullptr, 0, "off"), 0U);
    EXPECT_EQ(GetMemoryUsage(), 0);
    EXPECT_FALSE(FastStopAll() || SetResourceLimit(1, 1, 1) || KeepCurrentThreadAlive());
    EXPECT_TRUE(records_.Has("ERROR Hips guard is not initialized."));
    NEUtils::Config::ParseConfig("TrivaneRole=broker", false, {});
    EXPECT_EQ(InitHipsGuard(1000, 0, 8.0), 0);
    EXPECT_TRUE(records_.Has("INFO Set self resource threshold.[cpu=4.000000, mem=1000]"));
    EXPECT_GT(GetMemoryUsage(), 1000);
    EXPECT_GT(GetFdUsage(), 2);
}

// A thread that hangs unseen is an agent that only seems to watch.
TEST_F(HipsGuardTest, HungThreadIsReportedAndEndsTheProcess)
{
    g_hold = true;
    const std::uintptr_t handle = CreateHipsThreadEx(&Hold, nullptr, 0, "hung");
    ASSERT_TRUE(Eventually([] { return g_runs == 1; }));
    EXPECT_TRUE(CheckRound());
    EXPECT_EQ(records_.Count("ERROR Terminate signal will be sent to main thread."), 0);
    EXPECT_TRUE(CheckRound());
    const std::string failed =
        "ERROR Check instance heart beat failed.[runtimeName=hung instanceId=" + std::to_string(handle) +
        " failedCount=1 timeSlice=";
    EXPECT_EQ(records_.Lines().back().substr(0, failed.size()), failed);
    EXPECT_TRUE(KeepHipsThreadAlive(handle));
    const std::size_t said = records_.Lines().size();
    EXPECT_TRUE(CheckRound());  // counts from the beginning again
    EXPECT_EQ(records_.Lines().size(), said);
    g_hold = false;
    EXPECT_TRUE(StopHipsThreadEx(handle));
}

TEST_F(HipsGuardTest, LongRunIsToldAfterItsEndAndFastStopIsSeen)
{
    const auto slow = [](void*) {
        Clock::monotonicOffsetNs = 121 * Clock::kNsPerSecond;
        return 0;
    };
    const std::uintptr_t handle = CreateHipsThreadEx(slow, nullptr, 0, "slow");
    const std::string told = "INFO The task running more than 2min.[name=slow, time=121s]";
    EXPECT_TRUE(Eventually([&] { return records_.Has(told); }));
    Clock::monotonicOffsetNs = 0;
    EXPECT_TRUE(FastStopAll());
    EXPECT_TRUE(Eventually([handle] { return !IsHipsThreadRunningEx(handle); }));
    EXPECT_TRUE(StopHipsThreadEx(handle));
}

TEST(HipsInstanceManagerTest, ThirdMissEndsTheProcessBySigterm)
{
    const int status = Wait(Fork([] {
        HipsInstanceManager::CreateInstance(0, false, 0)->Configure(pthread_self(), true, 3600);
        auto instance = std::make_shared<NEUtils::HipsThreadInstance>(
            new NEUtils::HipsThreadObject([](void*) { return pause(); }, nullptr, 0), "stuck");
        HipsInstanceManager::CreateInstance(0, false, 0)->AddInstance(instance, nullptr);
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        for (int round = 0; round < 4; ++round) {
            CheckRound();
        }
        return 5;
    }));
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM);
}

TEST_F(HipsGuardTest, LongSliceIsSleptInPiecesThatBeat)
{
    const std::uintptr_t handle = CreateHipsThreadEx(&Count, nullptr, 7000000, "long");
    std::this_thread::sleep_for(std::chrono::milliseconds(200));  // behind the beat of its start
    for (int round = 0; round < 4; ++round) {
        CheckRound();
        std::this_thread::sleep_for(std::chrono::milliseconds(1300));
    }
    // The fourth round finds a third miss, had there been no beat after three seconds.
    EXPECT_EQ(records_.Count("ERROR Terminate signal will be sent to main thread."), 0);
    const auto start = Clock::MonotonicNs();
    EXPECT_TRUE(StopHipsThreadEx(handle));
    EXPECT_LT(Clock::MonotonicNs() - start, 3 * Clock::kNsPerSecond);
    EXPECT_EQ(g_runs, 1);
}

TEST(HipsResourceManagerTest, SaysSoOnceWhenALimitIsCrossed)
{
    const Records records;
    NEUtils::HipsResourceManager resources(0, 1, 0);
    const auto crossed = [&records] {
        std::ptrdiff_t count = 0;
        for (const std::string& line : records.Lines()) {
            count += line.find("ERROR Self resource usage is above its limit.[measure=memory KiB") == 0 ? 1 : 0;
        }
        return count;
    };
    EXPECT_TRUE(resources.Update() && resources.Update());
    EXPECT_EQ(crossed(), 1);
    Clock::monotonicOffsetNs = 16 * 60 * Clock::kNsPerSecond;
    EXPECT_TRUE(resources.Update());
    EXPECT_EQ(crossed(), 2);
    resources.SetLimits(1L << 30, 3, 0);
    EXPECT_TRUE(resources.Update());
    EXPECT_EQ(records.Lines().size(), 4U);  // memory back below, descriptors above
    EXPECT_GT(resources.GetMemoryUsage(), 1000);
}
