#include <sched.h>
#include <sys/resource.h>

#include "hips_guard.h"
#include "hips_instance_manager.h"
#include "hips_resource_manager.h"
#include "tests/support/support.h"
#include "util/clock.h"

namespace {

std::atomic<bool> g_hold{false};
std::atomic<int> g_runs{0};
std::atomic<long long> g_age{0};

int Hold(void*)
{
    ++g_runs;
    while (g_hold) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return 0;
}

bool CheckRound()
{
    return HipsInstanceManager::CreateInstance(0, false, 0)->CheckInstanceList();
}

struct HeartbeatTest : testing::Test {
    HeartbeatTest() { InitHipsGuard(0, 0, 0); }
    ~HeartbeatTest() override
    {
        g_hold = false;
        UninitHipsGuard();
    }
    std::ptrdiff_t Misses() const { return records_.CountWith("ERROR Check instance heart beat failed."); }
    const Records records_;
};

// A process whose guarded thread hangs, with the checker's minute cut to 200 ms. What its main thread does
// afterwards is the body's affair. Gives how the process ended.
int StatusOfHungProcess(const std::function<void()>& body)
{
    return Wait(Fork([&] {
        alarm(20);  // so that a guard that does nothing shows as SIGALRM
        Clock::sleepDivisor = 300;
        g_hold = true;
        InitHipsGuard(0, 0, 0);
        CreateHipsThreadEx(&Hold, nullptr, 0, "hung");
        body();
        return 5;
    }));
}

void Hang()
{
    for (;;) {
        pause();
    }
}

}  // namespace

// A thread that hangs unseen is an agent that only seems to watch.
TEST_F(HeartbeatTest, MissesAreLoggedUntilTheThreadComesRound)
{
    g_hold = true;
    const std::uintptr_t handle = CreateHipsThreadEx(&Hold, nullptr, 0, "hung");
    const std::uintptr_t ended = CreateHipsThreadEx([](void*) { return 1; }, nullptr, 0, "ended");
    ASSERT_TRUE(Eventually([&] { return g_runs == 1 && !IsHipsThreadRunningEx(ended); }));
    Clock::monotonicOffsetNs = 7 * Clock::kNsPerSecond;
    EXPECT_TRUE(CheckRound());
    EXPECT_EQ(Misses(), 0);
    for (const std::string count : {"1", "2"}) {
        EXPECT_TRUE(CheckRound());
        const std::string line = records_.Lines().back();
        EXPECT_TRUE(line.starts_with("ERROR Check instance heart beat failed.[runtimeName=hung instanceId=" +
                                     std::to_string(handle) + " failedCount=" + count + " timeSlice=7"))
            << line;
    }
    Clock::monotonicOffsetNs = 0;
    HipsInstanceManager::CreateInstance(0, false, 0)->Configure(0, false, 0);  // a hung thread does not end the process
    EXPECT_TRUE(CheckRound());
    EXPECT_TRUE(KeepHipsThreadAlive(handle) && CheckRound());
    EXPECT_EQ(Misses(), 3);
    EXPECT_EQ(records_.Count("ERROR Terminate signal will be sent to main thread."), 0);
}

TEST_F(HeartbeatTest, PlainThreadsAreCheckedWhileThereIsOne)
{
    const std::uintptr_t handle = WatchPlainThread(
        "plain", [](void* age) { return static_cast<std::atomic<long long>*>(age)->load(); }, &g_age);
    const auto instances = HipsInstanceManager::CreateInstance(0, false, 0)->GetInstances();
    ASSERT_TRUE(instances.size() == 1 && instances[0]->GetName() == "plain" && instances[0]->IsRunning());
    const auto round = [&](long long age) {
        g_age = age;
        CheckRound();
        return Misses();
    };
    EXPECT_EQ(round(0), 0);
    EXPECT_EQ(round(100000), 1);  // not since the last round
    EXPECT_EQ(round(100000), 2);
    EXPECT_EQ(instances[0]->GetBeatAgeMs(), 100000);
    EXPECT_EQ(round(0), 2);
    EXPECT_EQ(round(-1), 2);
    EXPECT_FALSE(instances[0]->IsRunning());
    EXPECT_TRUE(UnwatchPlainThread(handle));
    EXPECT_FALSE(UnwatchPlainThread(handle) || StopHipsThreadEx(handle));
    g_age = 100000;
    EXPECT_EQ(instances[0]->GetBeatAgeMs(), -1);  // it may be gone: not asked any more
}

// Rounds must come at their time whatever else wakes the checker; a new thread used to begin the minute anew.
TEST(HeartbeatCheckerTest, RoundsComeOnTimeAlsoWhileThreadsAreMade)
{
    const Records records;
    Clock::sleepDivisor = 60;
    InitHipsGuard(0, 0, 0);
    const auto rounds = [&] { return records.Count("DEBUG ......CheckInstance end......"); };
    const auto start = Clock::MonotonicNs();
    while (rounds() < 3 && Clock::MonotonicNs() - start < 20 * Clock::kNsPerSecond) {
        CloseHipsThreadHandleEx(CreateHipsThreadEx([](void*) { return 1; }, nullptr, 0, "short"));
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    EXPECT_EQ(rounds(), 3);
    EXPECT_GE(Clock::MonotonicNs() - start, 2900 * Clock::kNsPerMs);  // a minute each
    EXPECT_EQ(records.Count("DEBUG ......CheckInstance start......"), 3);
    EXPECT_EQ(records.FileOf("DEBUG ......CheckInstance end......"), "hips_guard.cpp");
    Clock::sleepDivisor = 1;
    UninitHipsGuard();
}

// Whatever the main thread does, and whatever the hung thread holds, the process ends.
TEST(HeartbeatCheckerTest, HungThreadEndsTheProcess)
{
    static std::mutex logLock;
    static sigset_t terminate;
    sigemptyset(&terminate);
    sigaddset(&terminate, SIGTERM);
    const auto takeSignal = [] {
        int signo = 0;
        pthread_sigmask(SIG_BLOCK, &terminate, nullptr);
        sigwait(&terminate, &signo);
    };
    const std::tuple<const char*, int, std::function<void()>> rows[] = {
        {"default action", SIGTERM, &Hang},
        {"a hung main thread has blocked it", SIGTERM, [] { pthread_sigmask(SIG_BLOCK, &terminate, nullptr), Hang(); }},
        {"it is ignored", SIGTERM, [] { signal(SIGTERM, SIG_IGN), Hang(); }},
        {"the main thread takes it and stops", 5 << 8,
         [&] {
             MessageBus::Subscribe(kNormalLog, "time", [](const NENormalLog& record) {
                 if (Contains(record.content, "Terminate signal")) {
                     Clock::sleepDivisor = 1;  // its whole ten seconds
                 }
             });
             takeSignal();
         }},
        {"it takes it and waits for the hung thread", SIGTERM, [&] { takeSignal(), UninitHipsGuard(); }},
        {"the log hangs", SIGTERM,
         [] {
             MessageBus::Subscribe(kNormalLog, "hung", [](const NENormalLog&) { const std::lock_guard lock(logLock); });
             const std::lock_guard lock(logLock);
             Hang();
         }},
    };
    for (const auto& [name, status, body] : rows) {
        EXPECT_EQ(StatusOfHungProcess(body), status) << name;
    }
    if (geteuid() == 0) {  // the kernel keeps SIGTERM's default action from the first process of a container
        EXPECT_EQ(Wait(Fork([] {
                      return unshare(CLONE_NEWPID) == 0 && StatusOfHungProcess(&Hang) == (128 + SIGTERM) << 8 ? 0 : 1;
                  })),
                  0);
    }
}

// The records come before the signal: its default action leaves no time for them.
TEST(HeartbeatCheckerTest, SaysWhyItEndsTheProcess)
{
    const TempDir dir;
    EXPECT_EQ(StatusOfHungProcess([&] {
                  MessageBus::Subscribe(kNormalLog, "file", [&](const NENormalLog& record) {
                      std::this_thread::sleep_for(std::chrono::milliseconds(20));
                      std::ofstream(dir / "log", std::ios::app) << record.content << "\n";
                  });
                  Clock::sleepDivisor = 100;
                  Hang();
              }),
              SIGTERM);
    const std::string log = Read(dir / "log");
    const auto third = log.find("failedCount=3");
    EXPECT_TRUE(third != std::string::npos && third < log.find("Terminate signal will be sent to main thread.\n"))
        << log;
    EXPECT_FALSE(Contains(log, "failedCount=4"));
}

TEST(HipsResourceManagerTest, LogsOnceWhenALimitIsCrossed)
{
    const Records records;
    const TempDir dir;
    const std::ifstream files[] = {std::ifstream("/dev/null"), std::ifstream("/dev/null"), std::ifstream("/dev/null")};
    HipsResourceManager resources(0, 1, 0);
    const std::string crossed = "ERROR Self resource usage is above its limit.[measure=memory KiB";
    EXPECT_TRUE(resources.Update() && resources.Update());
    EXPECT_EQ(records.CountWith(crossed), 1);
    Clock::monotonicOffsetNs = 16 * 60 * Clock::kNsPerSecond;
    EXPECT_TRUE(resources.Update());
    EXPECT_EQ(records.CountWith(crossed), 2);
    resources.SetLimits(1L << 30, 2, 0);
    EXPECT_TRUE(resources.Update());
    EXPECT_EQ(records.Lines().size(), 4U);  // memory back below, descriptors above
    Clock::monotonicOffsetNs = 0;
}

TEST(HipsResourceManagerTest, FiguresAreThoseOfTheKernel)
{
    HipsResourceManager resources(0, 0, 0);
    const auto end = Clock::MonotonicNs() + 1100 * Clock::kNsPerMs;
    rusage before = {};
    rusage after = {};
    getrusage(RUSAGE_SELF, &before);
    while (Clock::MonotonicNs() < end) {
    }
    getrusage(RUSAGE_SELF, &after);
    ASSERT_TRUE(resources.Update());
    const double usedMs = static_cast<double>(after.ru_utime.tv_sec - before.ru_utime.tv_sec) * 1000 +
                          static_cast<double>(after.ru_utime.tv_usec - before.ru_utime.tv_usec) / 1000;
    EXPECT_NEAR(resources.GetCpuUsage(), usedMs / 11, 20);
    const std::string status = Read("/proc/self/status");
    const long kib = std::stol(status.substr(status.find("VmRSS:") + 6));
    EXPECT_NEAR(static_cast<double>(resources.GetMemoryUsage()), static_cast<double>(kib),
                static_cast<double>(kib) / 10);
    const auto descriptors = std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator());
    EXPECT_EQ(resources.GetFdUsage(), descriptors - 1);  // but for the one that reads the directory
}
