#include <poll.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include "config.h"
#include "log_system.h"
#include "my_program.h"
#include "tests/support/support.h"

struct StopTest : testing::Test {
    StopTest() { MyProgram::GetInstance().SetLogPath(dir_.Path()); }

    // A child under the frame, with a log; its stop function logs and closes the log.
    pid_t Start(
        int (*main)(), unsigned int copies = 0, const std::function<void()>& first = [] {}) const
    {
        return Fork([this, main, copies, first] {
            first();
            LogSystem::Register(std::make_shared<LogSystem::LogFile>(log_, INFO, 0, copies), kNormalLog, "log", &Echo);
            const auto stop = [] {
                stopping = true;
                other = {};  // joins it
                std::string value;
                Config::GetConfigValue("key", value);
                NE_LOG(INFO, "stopped by %d", MyProgram::GetStopSignal());
                LogSystem::CloseAllLogFile();
                return 0;
            };
            MyProgram::GetInstance().RunProgram(false, false, main, stop, nullptr, nullptr, nullptr);
            return 3;
        });
    }
    bool Logged(const std::string& text) const
    {
        return Eventually([&] { return Contains(Read(log_), text); });
    }
    // None sent to the process is left pending.
    static bool TakesSignals(pid_t pid)
    {
        const std::string status = "/proc/" + std::to_string(pid) + "/status";
        return Eventually([&] { return Contains(Read(status), "ShdPnd:\t0000000000000000"); });
    }
    // Ended by SIGTERM as each stop does; one that hangs is killed after a while.
    static bool EndsBySigterm(pid_t pid)
    {
        int status = 0;
        const bool ended = Eventually([&] { return waitpid(pid, &status, WNOHANG) == pid; });
        return ended ? WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM : Kill(pid) == SIGTERM;
    }

    static inline std::atomic<bool> started{false};
    static inline std::atomic<bool> stopping{false};
    static inline std::jthread other;
    const TempDir dir_;
    const std::string log_ = dir_ / "log";
};

// For stop functions that log in a handler, each of which ThreadSanitizer reports.
struct StopInHandlerTest : StopTest {
    void SetUp() override
    {
#ifdef __SANITIZE_THREAD__
        GTEST_SKIP() << "ThreadSanitizer reports each stop function that logs in a handler, which is the case here";
#endif
    }
};

// The stop function takes the locks that the interrupted call holds, and does not run in the middle of itself.
TEST_F(StopInHandlerTest, AMainFunctionThatIsBusyInTheFrameIsStoppedOnce)
{
    static const std::string text = "key=" + std::string(100, 'v');
    static const auto again = std::make_shared<LogSystem::LogFile>(dir_ / "again", INFO, 0, 0);
    const std::pair<const char*, void (*)()> mains[] = {
        {"logs", [] { NE_LOG(INFO, "busy"); }},
        {"configures", [] { Config::ParseConfig(text, false, {}); }},
        {"registers",
         [] {
             LogSystem::Register(again, kDotLog, "d", &Echo);
             LogSystem::Unregister("d");
         }},
        {"counts",
         [] {
             LogSystem::SetGlobalRecordLines(1U << 30);
             static_cast<void>(LogSystem::IsBudgetUsedUp());
         }},
    };
    static void (*step)();
    for (const auto& [name, main] : mains) {
        step = main;
        for (int i = 0; i < 36; ++i) {
            const int signo = i % 3 == 0 ? SIGINT : i % 3 == 1 ? SIGQUIT : SIGSEGV;
            const pid_t pid = Start([] {
                for (NE_LOG(INFO, "begins");; step()) {
                }
                return 0;
            });
            EXPECT_TRUE(Logged("begins\n"));
            std::this_thread::sleep_for(std::chrono::microseconds(i * 10));
            for (int n = 0; n < (signo == SIGSEGV ? 1 : 20); ++n) {
                kill(pid, signo);
            }
            EXPECT_TRUE(EndsBySigterm(pid)) << name << signo;
            // A fault does not wait for the call, so what the stop function logs may be dropped.
            const std::string last = "\nstopped by " + std::to_string(signo) + "\n";
            EXPECT_TRUE(signo == SIGSEGV || Read(log_).find(last) == Read(log_).size() - last.size()) << name;
            fs::remove(log_);
        }
    }
}

// A subscriber whose copy, made under the registry's lock, is a fault.
struct FaultyCopy {
    FaultyCopy() = default;
    FaultyCopy(const FaultyCopy&) { armed ? raise(SIGSEGV) : 0; }
    void operator()(const NENormalLog&) const {}
    static inline bool armed = false;
};

// The interrupted thread keeps its lock for ever. A thread that waited for it could not be joined by the stop function.
TEST_F(StopInHandlerTest, AFaultUnderALockHoldsNoOtherThreadUp)
{
    const pid_t pid = Start([] {
        MessageBus::GetSubList<const NENormalLog&>()[kDotLog]["faulty"] = FaultyCopy();
        other = std::jthread([] {
            MyProgram::BlockStopSignals();
            while (!stopping) {
                NE_LOG(INFO, "other");
                started = true;
            }
        });
        FaultyCopy::armed = Eventually([] { return started.load(); });
        LoggerWriteLog(kDotLog, INFO, "f.cpp", 1, "x");
        return 0;
    });
    EXPECT_TRUE(EndsBySigterm(pid));
}

// A record that hangs, here while its file rolls, must not keep the program from stopping.
TEST_F(StopInHandlerTest, ALaterStopSignalDoesNotWaitForTheRecord)
{
    const std::string gzip = dir_ / "gzip";
    const auto rolls = [&] { return Read(gzip + ".pid").ends_with("\n"); };
    Write(gzip, "#!/bin/sh\necho $$ >" + gzip + ".pid\nexec sleep 60\n");
    fs::permissions(gzip, fs::perms(0755));
    setenv("PATH", (dir_.Path() + ":" + getenv("PATH")).c_str(), 1);
    Write(log_, "old");
    const pid_t pid =
        Start([] { return 0; }, 1,
              [&] {
                  other = std::jthread([&] {  // the stop function joins it, and it logs to the file that stays locked
                      MyProgram::BlockStopSignals();
                      Eventually(rolls);
                      while (!stopping) {
                          NE_LOG(INFO, "other");
                      }
                  });
              });
    EXPECT_TRUE(Eventually(rolls));
    kill(pid, SIGINT);
    EXPECT_TRUE(TakesSignals(pid));
    EXPECT_EQ(waitpid(pid, nullptr, WNOHANG), 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(1100));  // those within a second are one
    kill(pid, SIGINT);
    EXPECT_TRUE(EndsBySigterm(pid));
    kill(std::stoi(Read(gzip + ".pid")), SIGKILL);
    EXPECT_EQ(Read(log_), "old");
}

// SIGUSR1 asks for a report and no more: a wait that ends with it would end the agent.
TEST_F(StopTest, WaitingGoesOnAfterAReportAndEndsInTheStop)
{
    const auto waits = [] {
        NE_LOG(INFO, "waits");
        return MyProgram::WaitForStop() ? 1 : 2;
    };
    const auto polls = [] {
        MyProgram::BlockStopSignals();
        NE_LOG(INFO, "waits");
        pollfd wanted = {MyProgram::GetStopDescriptor(), POLLIN, 0};
        while (poll(&wanted, 1, -1) < 0 || !MyProgram::HandlePendingStop()) {
        }
        return 1;
    };
    for (int (*const main)() : {+waits, +polls}) {
        const pid_t pid = Start(main);
        EXPECT_TRUE(Logged("waits\n"));
        for (int i = 0; i < 3; ++i) {
            fs::remove(dir_ / "coredump.log");
            kill(pid, SIGUSR1);
            EXPECT_TRUE(Eventually([&] { return Contains(Read(dir_ / "coredump.log"), "signo=10"); }));
        }
        kill(pid, SIGTSTP);
        EXPECT_TRUE(EndsBySigterm(pid));
        EXPECT_TRUE(Read(log_).ends_with("waits\nstopped by 20\n"));
        fs::remove(log_);
    }
}

// Kept because embedders switch the handling off so: without a report to write a stop is swallowed, and the wait goes
// on. Where the program handles SIGTERM, it ends.
TEST_F(StopInHandlerTest, ASwallowedStopDoesNotEndTheWait)
{
    MyProgram::GetInstance().SetLogPath("/none");
    const int status = Wait(Fork([&] {
        static std::string directory;
        directory = dir_.Path();
        MyProgram::BlockStopSignals();
        raise(SIGINT);
        const bool handled = MyProgram::HandlePendingStop() || MyProgram::HandlePendingStop();
        signal(SIGTERM, SIG_IGN);
        signal(SIGUSR1, [](int) {
            MyProgram::GetInstance().SetLogPath(directory);
            raise(SIGINT);
        });
        raise(SIGINT);
        const std::jthread later([main = pthread_self()] {
            sigset_t pending;
            do {  // the first one has been taken
                std::this_thread::yield();
                sigpending(&pending);
            } while (sigismember(&pending, SIGINT) == 1);
            pthread_kill(main, SIGUSR1);
        });
        return !handled && MyProgram::WaitForStop() && MyProgram::GetStopSignal() == SIGINT ? 7 : 1;
    }));
    EXPECT_EQ(WEXITSTATUS(status), 7);
}

// A stop that arrives while a log rolls would be lost, and the program waits for it for ever.
TEST_F(StopTest, ARollLeavesAPendingStopAndTheSignalsAsTheyAre)
{
    EXPECT_EQ(Wait(Fork([&] {
                  MyProgram::BlockStopSignals();
                  raise(SIGINT);
                  raise(SIGQUIT);
                  for (const char* text : {"one", "two"}) {
                      LogSystem::LogFile(log_, DEBUG, 0, 1).FlushLogStream(text, 3);
                  }
                  sigset_t pending;
                  sigpending(&pending);
                  return sigismember(&pending, SIGINT) + sigismember(&pending, SIGQUIT);
              })),
              2 << 8);
    EXPECT_EQ(Unzipped(log_ + ".1.gz"), "one");
}

// Handlers that nest until the stack is full would end the program by what is meant to look at it.
TEST_F(StopTest, ReportsDoNotNest)
{
#ifdef __SANITIZE_THREAD__
    GTEST_SKIP() << "ThreadSanitizer runs no handler while a system call blocks";
#endif
    const std::string report = dir_ / "coredump.log";
    mkfifo(report.c_str(), 0600);  // nobody reads: each report takes until the next signal interrupts it
    const pid_t pid = Start([] {
        const rlimit small = {262144, RLIM_INFINITY};
        setrlimit(RLIMIT_STACK, &small);
        NE_LOG(INFO, "ready");
        while (pause() != 0) {
        }
        return 0;
    });
    ASSERT_TRUE(Logged("ready\n"));
    for (int i = 0; i < 500; ++i) {
        kill(pid, SIGUSR1);
        ASSERT_TRUE(TakesSignals(pid));
    }
    EXPECT_EQ(waitpid(pid, nullptr, WNOHANG), 0);
    fs::remove(report);
    EXPECT_TRUE(Eventually([&] {
        kill(pid, SIGUSR1);
        return Contains(Read(report), "sig_deal signo.[signo=10");
    }));
    Kill(pid);
}

static bool g_raiseInFork = false;
// Added before the logger's handlers, so it runs while they hold the locks.
static const int kHandlerAdded = pthread_atfork([] { g_raiseInFork ? raise(SIGINT) : 0; }, nullptr, nullptr);

// A child inherits no pending signal, so one that was put off over the fork is the parent's alone.
TEST_F(StopInHandlerTest, AStopDuringAForkIsTheParentsAlone)
{
    static std::string child;
    child = dir_ / "child";
    const pid_t pid = Start([] {
        g_raiseInFork = kHandlerAdded == 0;
        if (fork() == 0) {
            Write(child, "goes on");
            _exit(0);
        }
        return 0;
    });
    EXPECT_TRUE(EndsBySigterm(pid) && Eventually([] { return Read(child) == "goes on"; }));
}
