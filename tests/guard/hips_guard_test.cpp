#include "hips_guard.h"

#include "config.h"
#include "hips_instance_manager.h"
#include "tests/support/failing_allocations.h"
#include "tests/support/support.h"
#include "util/clock.h"

namespace {

std::atomic<int> g_runs{0};
std::atomic<bool> g_hold{false};

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
struct HipsGuardTest : testing::Test {
    HipsGuardTest()
    {
        g_runs = 0;
        EXPECT_EQ(InitHipsGuard(0, 0, 0), 0);
    }
    ~HipsGuardTest() override
    {
        g_hold = false;
        Clock::sleepDivisor = 1;
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
    EXPECT_EQ(records_.FileOf("DEBUG Create extend thread called.[name=a-name-that-is-too-long]"), "hips_guard.cpp");
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
    static std::atomic<std::uintptr_t> handle{0};
    const auto stopSelf = [](void*) {
        handle.wait(0);
        EXPECT_TRUE(StopHipsThreadEx(handle));
        return Count(nullptr);
    };
    const std::uintptr_t self = CreateHipsThreadEx(stopSelf, nullptr, 0, "self");
    handle = self;
    handle.notify_all();
    ASSERT_TRUE(Eventually([self] { return !IsHipsThreadRunningEx(self); }));
    EXPECT_TRUE(StopHipsThreadEx(self));  // waits for the thread that was let go
    EXPECT_EQ(g_runs, 1);
    const auto exits = [](void*) -> int { pthread_exit(nullptr); };
    const std::uintptr_t exited = CreateHipsThreadEx(exits, nullptr, 0, "exited");
    ASSERT_TRUE(Eventually([exited] { return !IsHipsThreadRunningEx(exited); }, 5));
    EXPECT_TRUE(CloseHipsThreadHandleEx(exited));  // the end of the guard waits for it too

    g_runs = 0;
    g_hold = true;
    const std::uintptr_t busy = CreateHipsThreadEx(&Hold, nullptr, 0, "busy");
    ASSERT_TRUE(Eventually([] { return g_runs == 1; }));
    InThreads(4, [busy](int number) {
        if (number == 3) {
            std::this_thread::sleep_for(std::chrono::milliseconds(30));
            g_hold = false;
        }
        EXPECT_TRUE(StopHipsThreadEx(busy));
        EXPECT_FALSE(g_hold);  // nobody comes back before the routine has
    });

    g_runs = 0;
    const std::uintptr_t sleeping = CreateHipsThreadEx(&Count, nullptr, 500000, "sleeping");
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_TRUE(StopHipsThreadEx(sleeping));
    EXPECT_EQ(g_runs, 1);  // kept because a stop is looked for before the sleep: the slice still runs once
    g_hold = true;
    const std::uintptr_t closed = CreateHipsThreadEx(&Hold, nullptr, 0, "closed");
    ASSERT_TRUE(Eventually([] { return g_runs == 2; }));
    EXPECT_TRUE(CloseHipsThreadHandleEx(closed));
    const std::jthread releaser([] {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        g_hold = false;
    });
    EXPECT_TRUE(UninitHipsGuard());  // waits for a thread without a handle too
    EXPECT_FALSE(g_hold);
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
    Config::ParseConfig("TrivaneRole=broker", false, {});
    EXPECT_EQ(InitHipsGuard(1000, 0, 8.0), 0);
    EXPECT_TRUE(records_.Has("INFO Set self resource threshold.[cpu=4.000000, mem=1000]"));
    EXPECT_GT(GetMemoryUsage(), 1000);
    EXPECT_GT(GetFdUsage(), 2);
}

TEST_F(HipsGuardTest, LongRunIsLoggedAfterItsEndAndFastStopIsSeen)
{
    const auto slow = [](void*) {
        Clock::monotonicOffsetNs = 121 * Clock::kNsPerSecond;
        return 0;
    };
    const std::uintptr_t handle = CreateHipsThreadEx(slow, nullptr, 0, "slow");
    const std::string record = "INFO The task running more than 2min.[name=slow, time=121s]";
    EXPECT_TRUE(Eventually([&] { return records_.Has(record); }));
    Clock::monotonicOffsetNs = 0;
    EXPECT_TRUE(FastStopAll());
    EXPECT_TRUE(Eventually([handle] { return !IsHipsThreadRunningEx(handle); }));
    EXPECT_TRUE(StopHipsThreadEx(handle));
}

// One that throws must neither end the process nor its thread.
TEST_F(HipsGuardTest, RoutinesMayThrowAnything)
{
    const auto throws = [](void*) -> int {
        if (++g_runs % 2 == 1) {
            throw g_runs.load();
        }
        throw std::runtime_error("odd");
    };
    const std::uintptr_t handle = CreateHipsThreadEx(throws, nullptr, 0, "throws");
    EXPECT_TRUE(Eventually([] { return g_runs > 4; }) && StopHipsThreadEx(handle));
    EXPECT_TRUE(records_.Has("ERROR Thread routine has thrown.[name=throws what=odd]") &&
                records_.Has("ERROR Thread routine has thrown.[name=throws what=unknown]"));
}

// A stop must be seen at the end of a piece of 3 s, and many sleeping threads must not be waited for in a row.
TEST_F(HipsGuardTest, LongSlicesAreSleptInPiecesAndStopSideBySide)
{
    Clock::sleepDivisor = 10;  // pieces of 0.3 s in slices of 20
    for (const bool ask : {true, false}) {
        g_runs = 0;
        std::vector<std::uintptr_t> handles;
        for (int i = 0; i < 40; ++i) {
            handles.push_back(CreateHipsThreadEx(&Count, nullptr, 200000000, "long"));
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
        for (const auto& thread : HipsInstanceManager::CreateInstance(0, false, 0)->GetInstances()) {
            EXPECT_LT(thread->GetBeatAgeMs(), 450);  // each piece beats
        }
        EXPECT_EQ(g_runs, 0);
        const auto start = Clock::MonotonicNs();
        if (ask) {
            EXPECT_TRUE(FastStopAll());
            for (const std::uintptr_t handle : handles) {
                EXPECT_TRUE(StopHipsThreadEx(handle));
            }
        }
        EXPECT_TRUE(UninitHipsGuard());
        EXPECT_LT(Clock::MonotonicNs() - start, 5 * Clock::kNsPerSecond);
        EXPECT_EQ(g_runs, 40);
        InitHipsGuard(0, 0, 0);
    }
}

// A handle that is closed while the guard ends must not leave its thread behind.
TEST_F(HipsGuardTest, EndWaitsForHandlesThatAreClosedMeanwhile)
{
    for (int round = 0; round < 200; ++round) {
        std::vector<std::uintptr_t> handles;
        for (int i = 0; i < 4; ++i) {
            handles.push_back(CreateHipsThreadEx(&Count, nullptr, 0, "closed"));
        }
        std::jthread closer([&] { std::ranges::for_each(handles, &CloseHipsThreadHandleEx); });
        ASSERT_TRUE(UninitHipsGuard());
        const int runs = g_runs;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
        ASSERT_EQ(g_runs, runs);
        closer.join();
        InitHipsGuard(0, 0, 0);
    }
}

// Without memory the guard answers 0 or false; it used to free twice, and to end the process.
TEST(HipsGuardMemoryTest, EveryAllocationMayFail)
{
    using FailingAllocations::InTurn;
    using FailingAllocations::Mode;
    for (const Mode mode : {Mode::kOne, Mode::kAllFromThere}) {
        int begun = -1;
        const auto begin = [&] { begun = InitHipsGuard(0, 0, 0); };
        EXPECT_GT(InTurn(mode, begin, [&](int) { EXPECT_EQ(UninitHipsGuard(), begun == 0); }), 1);
        InitHipsGuard(0, 0, 0);
        std::uintptr_t handle = 0;
        const auto finish = [&](int) {
            EXPECT_TRUE(handle == 0 || StopHipsThreadEx(handle));
            const auto left = HipsInstanceManager::CreateInstance(0, false, 0)->GetInstances().size();
            EXPECT_EQ(left, handle == 0 ? 0U : 1U);
            EXPECT_TRUE(handle == 0 || CloseHipsThreadHandleEx(handle));
        };
        const auto create = [&] { handle = CreateHipsThreadEx(&Count, nullptr, 0, "a-name-beyond-small-strings"); };
        EXPECT_GT(InTurn(mode, create, finish), 4);
        const auto age = [](void*) { return 0LL; };
        const auto watch = [&] { handle = WatchPlainThread("a-name-beyond-small-strings", age, nullptr); };
        const auto unwatch = [&](int) { EXPECT_TRUE(handle == 0 || UnwatchPlainThread(handle)); };
        EXPECT_GT(InTurn(mode, watch, unwatch), 3);
        std::vector<std::uintptr_t> handles(50);
        InTurn(
            mode,
            [&] {
                for (std::uintptr_t& one : handles) {
                    KeepHipsThreadAlive(one) && FastStopHipsThreadEx(one) && CloseHipsThreadHandleEx(one);
                }
                HipsInstanceManager::CreateInstance(0, false, 0)->CheckInstanceList();
                FastStopAll();
                UninitHipsGuard();
            },
            [&](int) {
                InitHipsGuard(0, 0, 0);
                std::ranges::generate(handles, [] { return CreateHipsThreadEx(&Count, nullptr, 1000, "closed"); });
            });
        EXPECT_TRUE(UninitHipsGuard());
    }
}
