#include "my_program.h"

#include <fcntl.h>
#include <sys/resource.h>

#include "instance_lock.h"
#include "tests/support/support.h"

static int g_signo;
static std::string g_stopped;
static volatile std::uintptr_t g_nowhere = 4096;

// In a signal handler: nothing that allocates.
static int Note(std::string_view who)
{
    return static_cast<int>(write(creat(g_stopped.c_str(), 0600), who.data(), who.size()));
}

constexpr int (*kStop)() = [] { return Note("own"); };
constexpr int (*kParentStop)() = [] { return Note("parent"); };
constexpr int (*kZero)() = [] { return 0; };
constexpr int (*kOne)() = [] { return 1; };

// A write to where nothing is, below as many calls.
[[gnu::noinline]] static int Fault(int depth)
{
    if (depth > 0) {
        return Fault(depth - 1) + 1;
    }
    *reinterpret_cast<volatile int*>(g_nowhere) = 1;
    return 0;
}

struct MyProgramTest : testing::Test {
    MyProgramTest()
    {
        fs::create_directory(root_ / "conf");
        setenv("RUNTIME_CENTER_PATH", root_.Path().c_str(), 1);
        pidFile_ = root_ / "conf/sentrel-agent.pid";
        g_stopped = root_ / "stopped";
        MyProgram::GetInstance().SetLogPath(root_.Path());
    }
    static bool Run(bool daemon, bool singleton, int (*mainFunc)(), int (*preRunFunc)() = nullptr)
    {
        return MyProgram::GetInstance().RunProgram(daemon, singleton, mainFunc, nullptr, preRunFunc, nullptr, nullptr);
    }

    // A child under the frame that raises a signal in its main function, or after it where it is refused; else 33.
    static int RunAndRaise(int signo)
    {
        g_signo = signo;
        return Wait(Fork([] {
            const auto main = [] { return raise(g_signo); };
            MyProgram::GetInstance().RunProgram(false, true, main, kStop, nullptr, kParentStop, nullptr);
            raise(g_signo);
            return 33;
        }));
    }

    // The report about a signal, in its order.
    std::string ExpectReport(int signo) const
    {
        const std::string report = Read(report_);
        const std::string number = std::to_string(signo);
        std::size_t at = report.find("hips maps.[hipsPid=");
        at = report.find("\nget maps file line.[line=", at);
        at = report.find("\nException Signal.[number=" + number + "]\nCall Stack :\n", at);
        at = report.find("sig_deal signo.[signo=" + number + ", pid=", at);
        EXPECT_NE(report.find(", processType=nodaemon]\n", at), std::string::npos) << signo;
        EXPECT_EQ(fs::status(report_).permissions(), fs::perms(0600));
        return report;
    }

    const TempDir root_;
    const Records records_;
    const std::string report_ = root_ / "coredump.log";
    const std::string lock_ = root_ / "conf/agent.lock";
    static inline std::string pidFile_;
    static inline std::string seen_;
};

TEST_F(MyProgramTest, ForegroundRunOwnsThePidFileWhileItRuns)
{
    // Kept because log readers look for it: all records of the frame carry this file name.
    const auto checkFile = [](const NENormalLog& record) { EXPECT_STREQ(record.fileName, "my_program.cpp"); };
    MessageBus::Subscribe(kNormalLog, "file", checkFile);
    EXPECT_TRUE(Run(false, true, [] {
        seen_ = Read(pidFile_);
        return fs::status(pidFile_).permissions() == fs::perms(0640) ? 0 : 1;
    }));
    EXPECT_EQ(seen_, std::to_string(getpid()));
    EXPECT_FALSE(fs::exists(pidFile_));
    EXPECT_FALSE(Run(false, true, kOne) || Run(false, false, kOne));
    fs::remove_all(root_ / "conf");
    EXPECT_TRUE(Run(false, true, kZero));  // reported, and no reason not to run
    EXPECT_TRUE(
        records_.Has("ERROR Unable to set pidfile.[filePath=" + pidFile_ + " errorInfo=No such file or directory]"));
    unsetenv("RUNTIME_CENTER_PATH");
    EXPECT_FALSE(Run(true, true, kZero));  // before it forks
    EXPECT_TRUE(records_.Has("ERROR Get env failed.[env=RUNTIME_CENTER_PATH]"));
    MessageBus::Unsubscribe(kNormalLog, "file");
}

// A start that is wrongly refused leaves the host unwatched; one wrongly allowed runs two agents.
TEST_F(MyProgramTest, PidFileDecidesWhetherToStart)
{
    const std::string own = std::to_string(getpid());
    const std::string self = fs::read_symlink("/proc/self/exe");
    const std::string dead = "INFO Can not find proc, maybe it dead, i would start working.[pid=";
    const std::string invalid = "ERROR invalid data.[filePath=" + pidFile_ + "]";
    const std::tuple<std::string, std::string, bool, std::string> rows[] = {
        {"", self, true, "ERROR read file failed.[filePath=" + pidFile_ + "]"},
        {"abc", self, false, invalid},
        {"-5", self, false, invalid},
        {"99999999999", self, false, invalid},
        {std::string("\0", 1), self, false, invalid},
        {"2147483647\n", self, true, dead + "2147483647]"},
        {own + "xyz", "/other", true, dead + own + "]"},  // alive, but another program
        {own + "\n", self, false, "ERROR Another program is running. exit."},
    };
    for (const auto& [text, exe, allowed, record] : rows) {
        const auto before = records_.Count(record);
        Write(pidFile_, text);
        EXPECT_EQ(MyProgram::GetInstance().CheckPidFilePathRun(pidFile_, exe), allowed) << text;
        EXPECT_EQ(records_.Count(record), before + 1) << record;
    }
}

// Kept because starters rely on it: they see 0, also where the fork fails, the run is true, and the pid file stays.
TEST_F(MyProgramTest, DaemonDetachesAndLeavesItsPidFile)
{
    const int status = Wait(Fork([] {
        const auto main = [] {
            seen_ += fs::read_symlink("/proc/self/fd/2").string() + (getsid(0) == getpid() ? " leader" : "");
            return 1;
        };
        const auto preRun = [] { return static_cast<int>(seen_.assign("pre ").size()); };
        const bool result = Run(true, true, main, preRun);
        Write(pidFile_ + ".end", seen_ + (result && Read(pidFile_) == std::to_string(getpid()) ? " true" : " false"));
        return 7;
    }));
    EXPECT_EQ(status, 0);
    EXPECT_TRUE(Eventually([] { return Read(pidFile_ + ".end") == "pre /dev/null leader true"; }));
    const auto cannotFork = [] {
        const rlimit none = {0, 0};
        const bool limited = BecomePlainUser() && setrlimit(RLIMIT_NPROC, &none) == 0;  // it does not hold for root
        return limited && Run(true, false, kOne) ? 4 : 2;
    };
    EXPECT_EQ(Wait(Fork(cannotFork)), 0);
}

TEST_F(MyProgramTest, ADaemonHoldsTheLockAndIsNamed)
{
    // Also where it begins without the standard descriptors, which the daemon opens anew.
    const auto start = [] { return close(0) + close(1) + close(2) + (Run(true, true, &pause) ? 0 : 1); };
    EXPECT_EQ(Wait(Fork(start)), 0);
    EXPECT_TRUE(Eventually([&] { return !Read(lock_).empty(); }));
    const std::string daemon = Read(lock_);
    EXPECT_EQ(Read(pidFile_), daemon);
    EXPECT_FALSE(Run(false, true, &pause));
    const Strings expected = {"INFO Init sigaction success.", "ERROR Another program is running. exit.",
                              "ERROR The other program's process.[pid=" + daemon + "]",
                              "ERROR check singleton running failed."};
    EXPECT_EQ(records_.Lines(), expected);
    kill(std::stoi(daemon), SIGKILL);
    fs::remove(pidFile_);
    // Free with the daemon's end; a start that the check refuses keeps nothing.
    Write(pidFile_, "rubbish");
    const std::string invalid = "ERROR invalid data.[filePath=" + pidFile_ + "]";
    EXPECT_TRUE(Eventually([&] { return !Run(false, true, &pause) && records_.Has(invalid); }));
    EXPECT_EQ(InstanceLock().Take(lock_), InstanceLock::Result::kTaken);
}

// A crash that leaves no report, or a stop that leaves the pid file, is found out at the worst moment.
TEST_F(MyProgramTest, StopAndFaultSignalsReportStopAndEndBySigterm)
{
    for (const int signo : {SIGINT, SIGQUIT, SIGTSTP, SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGABRT}) {
        const int status = RunAndRaise(signo);
        EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM) << signo;
        EXPECT_TRUE(Read(g_stopped) == "own" && !fs::exists(pidFile_)) << signo;
        ExpectReport(signo);
        EXPECT_TRUE(fs::remove(report_) && fs::remove(g_stopped));
    }
    Write(pidFile_, "rubbish");  // refused: the pid file of the instance that runs is not this one's to remove
    EXPECT_EQ(WTERMSIG(RunAndRaise(SIGINT)), SIGTERM);
    EXPECT_EQ(Read(pidFile_), "rubbish");
}

// Where the process was started with SIGTERM ignored or blocked, a fault that comes back at once would loop for ever.
TEST_F(MyProgramTest, ARealFaultEndsTheProcessWhateverItWasStartedWith)
{
    for (const bool ignored : {true, false}) {
        const int status = Wait(Fork([ignored] {
            sigset_t term;
            sigemptyset(&term);
            sigaddset(&term, SIGTERM);
            sigprocmask(ignored ? SIG_UNBLOCK : SIG_BLOCK, &term, nullptr);
            signal(SIGTERM, ignored ? SIG_IGN : SIG_DFL);
            alarm(20);  // a loop ends the test too
            const auto main = [] { return Fault(12); };
            const auto stop = [] {
                return WriteLog(creat(g_stopped.c_str(), 0600), "%d %s", MyProgram::GetStopSignal(),
                                MyProgram::GetReportPath());
            };
            MyProgram::GetInstance().RunProgram(false, true, main, stop, nullptr, nullptr, nullptr);
            return 0;
        }));
        EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM) << ignored;
        EXPECT_EQ(Read(g_stopped), "11 " + report_);  // what the stop function may ask for
        const std::string report = ExpectReport(SIGSEGV);
        const std::string stack = report.substr(report.find("Call Stack :\n") + 13);
        EXPECT_EQ(std::ranges::count(stack.substr(0, stack.find("sig_deal")), '\n'), 10);
        fs::remove(report_);
    }
}

// A stop that removes the pid file of another instance lets a third one start beside that: the lock rules that out.
TEST_F(MyProgramTest, OnlyWithoutTheLockThePidFileOfALivingStrangerIsLeft)
{
    const pid_t child = Fork([] { return pause(); });
    const pid_t dead = Fork([] { return 0; });
    Wait(dead);
    const std::tuple<std::string, bool, bool, bool> rows[] = {
        {std::to_string(getppid()), false, true, false},  // with the lock, whatever it holds
        {std::to_string(getppid()), false, false, true},
        {std::to_string(child), false, false, true},
        {std::to_string(child), true, false, false},
        {std::to_string(dead), false, false, false},
        {"", false, false, false},
    };
    for (const auto& [text, isChild, locked, left] : rows) {
        fs::remove(lock_);
        if (!locked) {
            fs::create_directory(lock_);
        }
        static std::string content;
        content = text;
        MyProgram::GetInstance().SetProcessRole(true, isChild ? child : 0);
        EXPECT_TRUE(Run(false, true, [] { return Write(pidFile_, content), 0; }));
        EXPECT_EQ(fs::remove(pidFile_), left) << text;
        const int status = Wait(Fork([] {
            const auto main = [] { return Write(pidFile_, content), raise(SIGINT); };
            return Run(false, true, main) ? 0 : 1;
        }));
        EXPECT_EQ(WTERMSIG(status), SIGTERM);
        EXPECT_EQ(fs::remove(pidFile_), left) << text;
    }
    Kill(child);
}

// Kept because a full disk must still take a report: it is written over the one before and not cut to its length.
TEST_F(MyProgramTest, Usr1OnlyReportsOverTheOldReport)
{
    const std::string old(1U << 20, 'o');
    Write(report_, old);
    EXPECT_EQ(WEXITSTATUS(RunAndRaise(SIGUSR1)), 33);
    EXPECT_FALSE(fs::exists(g_stopped));
    const std::string report = Read(report_);
    EXPECT_TRUE(Contains(report, "sig_deal signo.[signo=10, "));
    EXPECT_TRUE(report.size() == old.size() && report.back() == 'o');
}

// Kept because embedders switch the handling off so: without a log path every handled signal is swallowed.
TEST_F(MyProgramTest, WithoutALogPathSignalsAreSwallowed)
{
    MyProgram::GetInstance().SetLogPath(std::string(4083, 'x'));  // with its file one byte too long: none
    for (const int signo : {SIGINT, SIGSEGV, SIGUSR1}) {
        EXPECT_EQ(WEXITSTATUS(RunAndRaise(signo)), 33) << signo;
    }
    EXPECT_FALSE(fs::exists(g_stopped));
}

// A signal to process 0 would end the starter's whole group. A child that stops leaves the pid file to its guardian.
TEST_F(MyProgramTest, GuardianStopsItsChildAndNeverItsOwnGroup)
{
    static int terms = 0;
    static std::function<std::string()> inside;
    static std::string result;
    result = root_ / "result";
    const pid_t victim = Fork([] { return pause(); });
    const auto stop = [this](bool isParent, pid_t child) {
        MyProgram::GetInstance().SetProcessRole(isParent, child);
        raise(SIGUSR1);
        const std::string report = Read(report_);
        const std::string type = report.substr(report.rfind('=') + 1, report.rfind(']') - report.rfind('=') - 1);
        fs::remove(report_);
        Write(pidFile_, std::to_string(getpid()));
        terms = 0;
        raise(SIGINT);
        return type + " " + Read(g_stopped) + (fs::remove(pidFile_) ? " left " : " removed ") + std::to_string(terms) +
               ", ";
    };
    inside = [&] {
        signal(SIGTERM, [](int) { ++terms; });
        return stop(true, 0) + stop(true, victim) + stop(false, 0);
    };
    // The roles count until the main function runs.
    const auto preRun = [] { return Write(result, inside()), 0; };
    EXPECT_EQ(Wait(Fork([&] {
                  return MyProgram::GetInstance().RunProgram(true, true, kZero, kStop, preRun, kParentStop, nullptr);
              })),
              0);
    EXPECT_TRUE(Eventually([] { return Contains(Read(result), "own"); }));
    EXPECT_EQ(Read(result), "daemon parent removed 1, daemon parent removed 1, child own left 1, ");
    EXPECT_EQ(WTERMSIG(Wait(victim)), SIGTERM);
}

TEST_F(MyProgramTest, WriteLogCutsAtItsBuffer)
{
    const int fd = creat(report_.c_str(), 0600);
    EXPECT_EQ(WriteLog(fd, "%s", std::string(511, 'x').c_str()), 511);
    EXPECT_EQ(WriteLog(fd, "%s", std::string(512, 'x').c_str()), 511);
    EXPECT_LT(WriteLog(fd, "%ls", L"\x20ac"), 0);
    MyProgram::LogMapsInfo(2147483647, fd);
    EXPECT_EQ(Read(report_), std::string(1022, 'x') + "Failed to open hips maps path.\n");
    close(fd);
}
