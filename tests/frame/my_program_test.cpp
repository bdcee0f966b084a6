#include "my_program.h"

#include <fcntl.h>
#include <sys/resource.h>

#include "tests/support/support.h"

static int g_signo;
static std::string g_stopped;

// In a signal handler: nothing that allocates.
static int Note(std::string_view who)
{
    return static_cast<int>(write(creat(g_stopped.c_str(), 0600), who.data(), who.size()));
}

constexpr int (*kStop)() = [] { return Note("own"); };
constexpr int (*kParentStop)() = [] { return Note("parent"); };
constexpr int (*kZero)() = [] { return 0; };
constexpr int (*kOne)() = [] { return 1; };

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

    const TempDir root_;
    const Records records_;
    const std::string report_ = root_ / "coredump.log";
    static inline std::string pidFile_;
    static inline std::string seen_;
};

TEST_F(MyProgramTest, ForegroundRunOwnsThePidFileWhileItRuns)
{
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
        {own + "xyz", "/other", true, dead + own + "]"},  // kept: alive, but another program
        {own + "\n", self, false, "ERROR Another program is running. exit."},
    };
    for (const auto& [text, exe, allowed, record] : rows) {
        const auto before = records_.Count(record);
        Write(pidFile_, text);
        EXPECT_EQ(MyProgram::GetInstance().CheckPidFilePathRun(pidFile_, exe), allowed) << text;
        EXPECT_EQ(records_.Count(record), before + 1) << record;
    }
}

// Kept: a starter takes 0 for handed over, also when there is nobody to hand over to.
TEST_F(MyProgramTest, FailedForkLeavesWithZero)
{
    const int status = Wait(Fork([] {
        const rlimit none = {0, 0};
        const bool limited = BecomePlainUser() && setrlimit(RLIMIT_NPROC, &none) == 0;  // it does not hold for root
        return limited && Run(true, false, kOne) ? 4 : 2;
    }));
    EXPECT_EQ(status, 0);
}

// Kept: the starting process leaves with 0, the daemon's run is true and its pid file stays.
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
}

// A crash that leaves no report, or a stop that leaves the pid file, is found out at the worst moment.
TEST_F(MyProgramTest, StopAndFaultSignalsReportStopAndEndBySigterm)
{
    for (const int signo : {SIGINT, SIGQUIT, SIGTSTP, SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGABRT}) {
        const int status = RunAndRaise(signo);
        EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM) << signo;
        EXPECT_TRUE(Read(g_stopped) == "own" && !fs::exists(pidFile_)) << signo;
        const std::string report = Read(report_);
        const std::string number = std::to_string(signo);
        std::size_t at = report.find("hips maps.[hipsPid=");
        at = report.find("\nget maps file line.[line=", at);
        at = report.find("\nException Signal.[number=" + number + "]\nCall Stack :\n", at);
        at = report.find("sig_deal signo.[signo=" + number + ", pid=", at);
        EXPECT_NE(report.find(", processType=nodaemon]\n", at), std::string::npos) << signo;
        EXPECT_EQ(fs::status(report_).permissions(), fs::perms(0600));
        EXPECT_TRUE(fs::remove(report_) && fs::remove(g_stopped));
    }
}

// The pid file of the instance that runs is not this one's to remove.
TEST_F(MyProgramTest, RefusedInstanceLeavesThePidFileAlone)
{
    Write(pidFile_, "rubbish");
    EXPECT_EQ(WTERMSIG(RunAndRaise(SIGINT)), SIGTERM);
    EXPECT_EQ(Read(pidFile_), "rubbish");
}

// Kept: the report is written over the one before and not cut to its length.
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

// Kept: without a report to write every handled signal is swallowed, a crash signal too.
TEST_F(MyProgramTest, WithoutALogPathSignalsAreSwallowed)
{
    MyProgram::GetInstance().SetLogPath(std::string(4083, 'x'));  // with its file one byte too long: none
    for (const int signo : {SIGINT, SIGSEGV, SIGUSR1}) {
        EXPECT_EQ(WEXITSTATUS(RunAndRaise(signo)), 33) << signo;
    }
    EXPECT_FALSE(fs::exists(g_stopped));
}

// A signal to process 0 would end the whole group, the starter's shell with it.
TEST_F(MyProgramTest, GuardianStopsItsChildAndNeverItsOwnGroup)
{
    const pid_t victim = Fork([] { return pause(); });
    const int status = Wait(Fork([victim] {
        setpgid(0, 0);
        MyProgram& program = MyProgram::GetInstance();
        // A start that fails after it has stored what it was given: no root for the single instance.
        unsetenv("RUNTIME_CENTER_PATH");
        program.RunProgram(true, true, kStop, kStop, nullptr, kParentStop, nullptr);
        signal(SIGTERM, [](int) { _exit(9); });
        MyProgram::DealStopSig();  // no child yet
        const bool parent = Read(g_stopped) == "parent";
        program.SetProcessRole(true, victim);
        MyProgram::DealStopSig();
        program.SetProcessRole(false, 0);
        MyProgram::DealStopSig();
        return parent && Read(g_stopped) == "own" ? 0 : 1;
    }));
    EXPECT_EQ(status, 0);
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
