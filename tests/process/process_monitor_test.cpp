#include "process_monitor.h"

#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>

#include "logger.h"
#include "process/event_filter.h"
#include "process/process_search.h"
#include "tests/process/children.h"
#include "util/clock.h"

// What came of a process, by its id; the kernel has no higher ones.
struct Seen {
    std::atomic<unsigned int> kinds, exits, status;
};
static Seen g_seen[1U << 22];
static std::atomic<ProcessMonitor*> g_monitor{nullptr};
static std::atomic<bool> g_done{false};
static std::atomic<bool> g_hold{true};
static std::atomic<int> g_furtherThreads{0};
static std::atomic<std::uint64_t> g_renames{0};

static void Collect(proc_event* event)
{
    const bool fork = event->what == kForkEvent;
    Seen& seen = g_seen[fork ? event->event_data.fork.child_pid : event->event_data.exec.process_pid];
    g_furtherThreads += IsOfFurtherThread(*event) ? 1 : 0;
    g_renames += event->what == kCommEvent ? 1 : 0;
    if (event->what == kExitEvent) {
        seen.status = event->event_data.exit.exit_code;
        ++seen.exits;
    }
    seen.kinds |= event->what;
}

constexpr unsigned int kRenames = 600000;

static int Flood()
{
    for (unsigned int i = 0; i < kRenames; ++i) {
        prctl(PR_SET_NAME, (i & 1) == 0 ? "even" : "odd");
    }
    return 0;
}

struct ProcessMonitorTest : testing::Test {
    void SetUp() override
    {
        if (geteuid() != 0) {
            GTEST_SKIP() << "the process connector needs CAP_NET_ADMIN";
        }
        monitor_.AddProcessEventCallback(&Collect);
    }

    static bool Saw(int pid, unsigned int kinds, int seconds = 20)
    {
        return Eventually([=] { return (g_seen[pid].kinds & kinds) != 0; }, seconds);
    }

    // Listens once the white list is read: then events of new processes arrive.
    bool Start()
    {
        monitor_.StartProcessMonitor();
        return Eventually([] { return Saw(RunTrue(), kExitEvent, 1); });
    }

    // A shell by a name on the white list, which starts a program and ends once it can read its file "in".
    bool StartListed(void (ProcessMonitor::*search)() = &ProcessMonitor::ParseProcessWhiteList)
    {
        const std::string script = "read x <" + (dir_ / "in") + "; sleep 0.01 & echo $! >" + (dir_ / "out") + "; wait";
        mkfifo((dir_ / "in").c_str(), 0600);
        listed_ = Fork([&] { return execl("/bin/sh", "/usr/sbin/setroubleshootd", "-c", script.c_str(), nullptr); });
        return Eventually([this, search] {
            (monitor_.*search)();
            return Filters(kExecEvent, listed_);
        });
    }

    bool Filters(std::uint32_t kind, int pid, int child = 0, long long timeNs = 0)
    {
        proc_event event = {};
        event.what = static_cast<decltype(event.what)>(kind);
        event.timestamp_ns = static_cast<std::uint64_t>(timeNs);
        // The other kinds begin with their thread and process, too.
        event.event_data.fork = {pid + furtherThread_, pid, child, child + 1};
        return monitor_.FilterProcessEvent(event);
    }

    static constexpr int kChild = 40000001;
    const TempDir dir_;
    const Records records_;
    ProcessMonitor monitor_;
    pid_t listed_ = 0;
    int furtherThread_ = 0;
};

TEST_F(ProcessMonitorTest, RealEventsArriveAndOtherKindsDoNot)
{
    monitor_.SetEventKinds(kExecEvent | kExitEvent);
    monitor_.AddProcessEventCallback([](proc_event*) {
        const std::string status = Read("/proc/thread-self/status");  // SIGINT, SIGQUIT and SIGTSTP
        g_done = Contains(status, "Name:\tmonitor-process\n") && Contains(status, "SigBlk:\t0000000000080006\n");
    });
    ASSERT_TRUE(Start());
    const pid_t pid = RunTrue();
    EXPECT_TRUE(Saw(pid, kExitEvent) && Eventually([] { return g_done.load(); }));
    monitor_.StartProcessMonitor();
    monitor_.StopProcessMonitor();
    monitor_.StopProcessMonitor();
    EXPECT_TRUE(records_.Has("WARN The process monitor is running.") &&
                records_.Has("WARN The process monitor has stopped."));
    EXPECT_EQ(g_seen[pid].kinds, kExecEvent | kExitEvent);  // not its fork
    EXPECT_EQ(g_seen[0].kinds, 0U);
    EXPECT_TRUE(Start());  // and again
}

TEST_F(ProcessMonitorTest, WhiteListedProcessesAndTheirChildrenStayUnreported)
{
    ASSERT_TRUE(StartListed() && Start());
    Write(dir_ / "in", "x\n");
    Wait(listed_);
    EXPECT_TRUE(Saw(RunTrue(), kExitEvent));
    EXPECT_EQ(g_seen[listed_].kinds, 0U);
    EXPECT_EQ(g_seen[std::stoi(Read(dir_ / "out"))].kinds, 0U);
}

// An id that stays listed for too long hides the next process that gets it.
TEST_F(ProcessMonitorTest, FilterFollowsForksAndExitsAndARefresh)
{
    ASSERT_TRUE(StartListed(&ProcessMonitor::UpdateProcessWhiteList));
    EXPECT_TRUE(Filters(kForkEvent, listed_, kChild));
    EXPECT_FALSE(Filters(kForkEvent, 1, kChild));  // from before the search, which may have found the process
    EXPECT_TRUE(Filters(kExecEvent, kChild));
    EXPECT_FALSE(Filters(kForkEvent, 1, kChild, Clock::MonotonicNs()));  // a new one has got the id
    EXPECT_FALSE(Filters(kExecEvent, kChild));
    EXPECT_TRUE(Filters(kForkEvent, listed_, kChild));
    EXPECT_TRUE(Filters(kCommEvent, kChild + 1));
    EXPECT_FALSE(Filters(kExecEvent, 0));
    NE_LOG(INFO, "The first record.");  // a sanitizer needs descriptors for the first look at each type of object
    rlimit limit;
    getrlimit(RLIMIT_NOFILE, &limit);
    const rlimit none = {0, limit.rlim_max};
    setrlimit(RLIMIT_NOFILE, &none);
    monitor_.UpdateProcessWhiteList();
    monitor_.ParseProcessWhiteList();
    setrlimit(RLIMIT_NOFILE, &limit);
    EXPECT_TRUE(Filters(kExecEvent, listed_) && Filters(kExecEvent, kChild));  // a search that fails empties nothing
    const std::string popen = R"(WARN Can't popen.[cmdLine=ps -ef | grep "/usr/sbin/setroubleshootd" | grep -v grep )";
    EXPECT_EQ(records_.FileOf(popen + "| awk '{print $2}']"), "process_monitor.cpp");
    Kill(listed_);
    monitor_.UpdateProcessWhiteList();
    EXPECT_FALSE(Filters(kExecEvent, listed_));  // no longer found
    EXPECT_TRUE(Filters(kExitEvent, kChild));    // followed until its exit
    EXPECT_FALSE(Filters(kExitEvent, kChild));
    monitor_.SetProcessesOnly(true);
    furtherThread_ = 1;
    EXPECT_TRUE(Filters(kExecEvent, kChild + 1));
    monitor_.ParseProcessWhiteList();  // made anew, as after a loss or a restart
    EXPECT_FALSE(Filters(kExecEvent, kChild + 1));
}

// Kept: after a failed setup the monitor counts as running until it is stopped.
TEST_F(ProcessMonitorTest, FailedSetUpIsLoggedAndEnds)
{
    const int status = Wait(Fork([this] {
        BecomePlainUser();
        monitor_.StartProcessMonitor();
        const bool ended = Eventually([this] { return records_.Has("INFO The process event detection has stopped."); });
        monitor_.StopProcessMonitor();
        const std::string fault = "ERROR Fail to set socket receive buff.[errno=1 errmsg=Operation not permitted]";
        return ended && records_.Has(fault) && records_.Has("INFO The process monitor stopped successfully.") ? 0 : 1;
    }));
    EXPECT_EQ(status, 0);
}

TEST_F(ProcessMonitorTest, StopFromACallbackNeitherHangsNorPreventsARestartAndAHangShows)
{
    EXPECT_EQ(monitor_.GetBeatAgeMs(), -1);
    g_monitor = &monitor_;
    monitor_.AddProcessEventCallback([](proc_event*) {
        if (ProcessMonitor* monitor = g_monitor.exchange(nullptr)) {
            monitor->StopProcessMonitor();
            monitor->StartProcessMonitor();
            g_hold.wait(true);
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
            g_done = true;
        }
    });
    monitor_.StartProcessMonitor();
    EXPECT_LT(monitor_.GetBeatAgeMs(), 20000);
    const std::string failed = "ERROR Fail to wait the process monitor thread to terminate.";
    EXPECT_TRUE(Eventually([&] { return RunTrue() > 0 && records_.Count(failed) == 2; }));  // both from within
    EXPECT_TRUE(Eventually([this] { return monitor_.GetBeatAgeMs() > 1500; }));
    g_hold = false;
    g_hold.notify_all();
    monitor_.StopProcessMonitor();  // not running any more, but waits for the thread all the same
    EXPECT_TRUE(g_done && monitor_.GetBeatAgeMs() == -1);
    EXPECT_TRUE(Start() && Eventually([this] { return monitor_.GetBeatAgeMs() < 1000; }));
}

// A process that renames itself in a loop once filled the socket's buffer and blinded the monitor.
TEST_F(ProcessMonitorTest, FloodOfUnwantedKindsIsDroppedInTheKernelAndLossesAreCounted)
{
    monitor_.SetEventKinds(kExecEvent | kExitEvent);
    ASSERT_TRUE(Start());
    Wait(Fork(&Flood));
    EXPECT_TRUE(Saw(RunTrue(), kExitEvent));
    EXPECT_EQ(monitor_.GetLostEventCount(), 0U);
    monitor_.StopProcessMonitor();
    monitor_.SetEventKinds(ProcessMonitor::kAllEventKinds);
    ASSERT_TRUE(Start() && StartListed());
    EXPECT_TRUE(Filters(kForkEvent, listed_, kChild));
    Wait(Fork(&Flood));
    const std::string overflow =
        "WARN Do not receive message from kernel.[errno=105, errmsg=No buffer space available]";
    EXPECT_TRUE(Eventually([&] { return monitor_.GetLostEventCount() > 1000 && records_.Has(overflow); }, 60));
    // The child's exit may be among the lost events, so the list is made anew.
    EXPECT_TRUE(Eventually([this] { return !Filters(kExecEvent, kChild); }));
    monitor_.StopProcessMonitor();
    EXPECT_GE(g_renames + monitor_.GetLostEventCount(), kRenames);
}

// A process must neither be called ended while it runs, nor never, where its first thread ends before the others.
TEST_F(ProcessMonitorTest, ProcessEndsWithItsLastThread)
{
    mkfifo((dir_ / "end").c_str(), 0600);
    const auto leaveTo = [](const std::function<void()>& work) {
        std::thread(work).detach();
        return syscall(SYS_exit, 0), 0;
    };
    const Children children({[&] { return leaveTo([this] { Read(dir_ / "end"), _exit(7); }); },
                             [&] { return leaveTo([] { sleep(60); }); },
                             [] {
                                 std::thread([] { execlp("sleep", "sleep", "0.7", nullptr); }).join();
                                 return 1;
                             },
                             [] { return std::thread([] {}).join(), 0; }});
    monitor_.SetProcessesOnly(true);
    ASSERT_TRUE(Start());
    const pid_t late = children.Start(0);
    const pid_t killed = children.Start(1);
    const pid_t executed = children.Start(2);
    EXPECT_TRUE(Saw(executed, kExecEvent));
    EXPECT_TRUE(Saw(RunTrue(), kExitEvent));
    EXPECT_EQ(g_seen[late].exits + g_seen[killed].exits + g_seen[executed].exits, 0U);
    Write(dir_ / "end", "");
    kill(killed, SIGKILL);
    for (const auto& [pid, status] : {std::pair(late, 7U << 8), std::pair(killed, 9U), std::pair(executed, 0U)}) {
        children.Wait(pid);  // so /proc can no longer tell the status
        EXPECT_TRUE(Saw(pid, kExitEvent));
        EXPECT_EQ(g_seen[pid].status, status);
    }
    EXPECT_TRUE(Saw(RunTrue(), kExitEvent));
    EXPECT_EQ(g_seen[late].exits * 100 + g_seen[killed].exits * 10 + g_seen[executed].exits, 111U);
    EXPECT_EQ(g_furtherThreads, 0);  // they once blinded the monitor for 40 s
    monitor_.StopProcessMonitor();
    monitor_.SetProcessesOnly(false);
    ASSERT_TRUE(Start());
    children.Run(3);
    EXPECT_TRUE(Eventually([] { return g_furtherThreads >= 2; }));
}

// What came before a stop must reach the callbacks, or be counted as lost.
TEST_F(ProcessMonitorTest, StopHandsOnWhatCameBefore)
{
    ASSERT_TRUE(Start());
    std::vector<pid_t> pids(300);
    std::ranges::generate(pids, [] { return RunTrue(); });
    monitor_.StopProcessMonitor();
    EXPECT_EQ(std::ranges::count_if(pids, [](pid_t pid) { return (g_seen[pid].kinds & kExitEvent) != 0; }), 300);
    monitor_.AddProcessEventCallback([](proc_event*) { std::this_thread::sleep_for(std::chrono::milliseconds(50)); });
    monitor_.StartProcessMonitor();
    ASSERT_TRUE(Eventually([this] { return monitor_.GetPhase() == ProcessMonitor::kListening; }));
    std::ranges::generate(pids, [] { return RunTrue(); });
    const auto lost = monitor_.GetLostEventCount();
    monitor_.StopProcessMonitor();  // hands on as many as it has time for
    const auto ended = std::ranges::count_if(pids, [](pid_t pid) { return (g_seen[pid].kinds & kExitEvent) != 0; });
    EXPECT_LT(ended, 300);
    EXPECT_GE(monitor_.GetLostEventCount() - lost, 300U - static_cast<unsigned int>(ended));
}

// The list was made by shell commands once, and who is on it stays the same.
TEST(ProcessSearchTest, FindsWhatTheCommandsFind)
{
    const TempDir dir;
    const std::string pattern = "/opt/x.y/" + dir.Path().substr(dir.Path().size() - 6) + "/agent";
    std::string any = pattern;  // character in place of its dot
    any[6] = '#';
    const std::vector<Strings> commands = {{pattern},
                                           {pattern + " --daemon"},
                                           {"sleep", "60", pattern},
                                           {any},
                                           {pattern + "\n2", "\tx"},
                                           {pattern + " grep"},
                                           {"egrep", pattern},
                                           {pattern.substr(1)},
                                           {std::string(20000, 'x') + pattern},
                                           {pattern + "\xc3\xa4\xff"}};
    std::vector<pid_t> children;
    int full[2];
    ASSERT_EQ(pipe(full), 0);  // holds them up, since nobody reads
    for (const Strings& words : commands) {
        children.push_back(Fork([&] {
            dup2(full[1], STDOUT_FILENO);
            return Execute("/usr/bin/yes", words);
        }));
    }
    Strings expected;
    EXPECT_TRUE(Eventually([&] {
        expected.clear();
        ProcessMonitor().GetProcessPidsByPsCommand(pattern, expected);
        return expected.size() == 7;
    }));
    EXPECT_EQ(ProcessSearch().Find(pattern), expected);
    std::ranges::for_each(children, &Kill);
    close(full[0]);
    close(full[1]);
}

TEST(NetlinkConnectorTest, ControlMessageIsExact)
{
    int pair[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM, 0, pair), 0);
    std::vector<std::uint32_t> block(68, 0xEEEEEEEEU);
    block[9] = PROC_CN_MCAST_IGNORE;
    const Records records;
    // A pair of sockets takes no netlink address: the message is complete, the send fails and is logged.
    EXPECT_FALSE(
        ProcessMonitor().SetNetlinkConnectorMode(pair[0], *static_cast<nlmsghdr*>(static_cast<void*>(block.data()))));
    EXPECT_EQ(records.Lines().size(), 1U);
    const std::uint32_t expected[] = {40, 3, 0, static_cast<std::uint32_t>(getpid()), 1, 1, 0, 0, 4, 2, 0xEEEEEEEEU};
    EXPECT_TRUE(std::equal(std::begin(expected), std::end(expected), block.begin()));
}
