// What a full disk, gzip, hostile names and other processes do to a log file.
#include <sys/resource.h>

#include "tests/frame/log_file_fixture.h"
#include "util/clock.h"

struct LogFaultTest : LogFileTest {
    // Puts a program called gzip first in the path.
    void ReplaceGzip(const std::string& script) const
    {
        Write(dir_ / "gzip", "#!/bin/sh\n" + script);
        fs::permissions(dir_ / "gzip", fs::perms(0755));
        setenv("PATH", (dir_.Path() + ":" + savedPath_).c_str(), 1);
    }
    ~LogFaultTest() override { setenv("PATH", savedPath_.c_str(), 1); }

    const std::string savedPath_ = getenv("PATH");
};

// Lines are lost, but each is counted, and a line of which the disk took a piece does not swallow the next one.
TEST_F(LogFaultTest, AFullDiskCutsOneLineAndTheNextBeginsAnew)
{
    const std::string line = std::string(999, 'x') + "\n";
    EXPECT_EQ(Wait(Fork([&] {
                  rlimit limit = {4096, RLIM_INFINITY};
                  signal(SIGXFSZ, SIG_IGN);
                  setrlimit(RLIMIT_FSIZE, &limit);
                  LogFile file(path_, DEBUG, 0, 2);
                  Put(file, line, 4);
                  bool good = file.GetFault().empty() && file.GetFailedLineCount() == 0;
                  Put(file, line, 16);
                  good = good && Contains(file.GetFault(), "too large") && file.GetFailedLineCount() == 16 &&
                         LogSystem::GetFailedLineCount() == 16;
                  limit.rlim_cur = RLIM_INFINITY;
                  setrlimit(RLIMIT_FSIZE, &limit);
                  good = good && Put(file, "after\n", 2) && file.GetFault().empty();
                  return good && file.GetFailedLineCount() == 16 ? 0 : 1;
              })),
              0);
    EXPECT_EQ(Read(path_), line + line + line + line + std::string(96, 'x') + "\nafter\nafter\n");
}

// A program that closes what is not its own gives the number to its next descriptor. Lines must not be lost in there.
TEST_F(LogFaultTest, ALostDirectoryOrDescriptorReopensByItself)
{
    const std::string lost = dir_ / "lost";
    fs::create_directory(lost);
    LogFile file(lost + "/a.log", DEBUG, 0, 0);
    EXPECT_TRUE(Put(file, "1\n"));
    fs::remove_all(lost);
    EXPECT_FALSE(Put(file, "2\n"));
    EXPECT_EQ(file.GetFault(), "No such file or directory");
    fs::create_directory(lost);
    EXPECT_TRUE(Put(file, "3\n") && file.GetFault().empty());
    EXPECT_EQ(Read(lost + "/a.log"), "3\n");
    for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
        std::error_code gone;
        int ends[2];
        if (fs::read_symlink(entry, gone) == lost + "/a.log" && pipe(ends) == 0) {
            dup2(ends[0], std::stoi(entry.path().filename()));
        }
    }
    EXPECT_TRUE(Put(file, "4\n"));
    EXPECT_EQ(Read(lost + "/a.log"), "4\n");
}

// With a large log left over on a full disk, gzip at every record would hold up all who log.
TEST_F(LogFaultTest, AFailingGzipIsTriedAgainAfterAGrowingPause)
{
    const std::string runs = dir_ / "runs";
    ReplaceGzip("echo >>" + runs + "; cp $1 $1.gz; exit 1\n");
    Write(path_, "old");
    LogFile file(path_, DEBUG, 0, 2);
    std::size_t expected = 0;
    for (const int pauseMs : {0, 1000, 2000, 4000, 8000, 16000, 32000, 60000, 60000}) {
        Clock::monotonicOffsetNs += pauseMs / 2 * Clock::kNsPerMs;
        EXPECT_FALSE(Put(file, "lost\n", 10));
        EXPECT_EQ(Read(runs).size(), expected + (pauseMs == 0 ? 1 : 0)) << pauseMs;
        Clock::monotonicOffsetNs += (pauseMs / 2 + 100) * Clock::kNsPerMs;
        EXPECT_FALSE(Put(file, "lost\n", 10));
        EXPECT_EQ(Read(runs).size(), ++expected) << pauseMs;
    }
    EXPECT_EQ(file.GetFault(), "the old file cannot be rolled away");
    EXPECT_EQ(file.GetFailedLineCount(), 180U);
    // Somebody makes room: the next line is written, and the next failure waits a second again.
    fs::remove(path_);
    EXPECT_TRUE(Put(file, "new\n") && file.GetFault().empty());
    fs::remove(path_);
    Write(path_, "old again");
    Put(file, "lost\n", 20);
    Clock::monotonicOffsetNs += 1100 * Clock::kNsPerMs;
    Put(file, "lost\n", 20);
    EXPECT_EQ(Read(runs).size(), expected + 2);
    setenv("PATH", savedPath_.c_str(), 1);
    Clock::monotonicOffsetNs += 60100 * Clock::kNsPerMs;
    EXPECT_TRUE(Put(file, "rolled\n"));
    EXPECT_EQ(Unzipped(Copy(1)) + Read(path_), "old againrolled\n");
}

// A gzip that hangs shows in the status, which waits for nothing; so does a fork, whose child logs nowhere then.
TEST_F(LogFaultTest, AHangingGzipShowsAndHoldsNobodyElseUp)
{
    const std::string go = dir_ / "go";
    ReplaceGzip("until [ -e " + go + " ]; do sleep 0.01; done; exec /usr/bin/env PATH=" + savedPath_ +
                " gzip \"$@\"\n");
    Write(path_, "old");
    const auto file = std::make_shared<LogFile>(path_, DEBUG, 0, 2);
    ASSERT_TRUE(LogSystem::Register(file, kNormalLog, "a", &Echo));
    std::thread stuck([] { NE_LOG(INFO, "first"); });
    EXPECT_TRUE(file->GetFault().empty());
    Clock::monotonicOffsetNs += 11 * Clock::kNsPerSecond;
    EXPECT_TRUE(Eventually([&] {
        Clock::monotonicOffsetNs += 11 * Clock::kNsPerSecond;
        return Contains(file->GetFault(), " s for the disk or for gzip");
    }));
    EXPECT_EQ(Wait(Fork([&] {
                  alarm(20);
                  NE_LOG(INFO, "child");
                  LogSystem::CloseAllLogFile();
                  return LogSystem::Register(file, kNormalLog, "a", &Echo) ? 1 : 0;
              })),
              0);
    Write(go, "");
    stuck.join();
    NE_LOG(INFO, "second");
    LogSystem::CloseAllLogFile();
    EXPECT_EQ(Read(path_), "first\nsecond\n");
    EXPECT_TRUE(file->GetFault().empty());
}

// A program that waits for any child in its handler would take the status of gzip, and the roll look failed.
TEST_F(LogFaultTest, AHandlerThatReapsAllLeavesTheRollItsChild)
{
    Write(path_, "old");
    EXPECT_EQ(Wait(Fork([&] {
                  ReplaceGzip("kill -CHLD " + std::to_string(getpid()) +
                              "\nsleep 0.05\nexec /usr/bin/env PATH=" + savedPath_ + " gzip \"$@\"\n");
                  signal(SIGCHLD, [](int) {
                      const int error = errno;
                      while (waitpid(-1, nullptr, 0) > 0) {
                      }
                      errno = error;
                  });
                  return PutToNew("new") ? 0 : 1;
              })),
              0);
    EXPECT_EQ(Unzipped(Copy(1)) + Read(path_), "oldnew");
}

// A lock that another thread held at the fork is held for ever in the child.
TEST_F(LogFaultTest, AForkedChildLogsWhateverOthersWereDoing)
{
    alarm(60);
    const auto file = std::make_shared<LogFile>(path_, DEBUG, 0, 0);
    ASSERT_TRUE(LogSystem::Register(file, kNormalLog, "a", &Echo));
    ASSERT_TRUE(LogSystem::Register(file, kDotLog, "dots", &Echo));  // a file in two places
    NE_LOG(INFO, "open");  // a child that opened it would put a file of its own in its place
    std::vector<std::jthread> busy;
    for (int i = 0; i < 3; ++i) {
        busy.emplace_back([](const std::stop_token& stop) {
            while (!stop.stop_requested()) {
                NE_LOG(INFO, "busy");
                MessageBus::Subscribe(kDotLog, "busy", [](const NENormalLog&) {});
                MessageBus::Unsubscribe(kDotLog, "busy");
                LogSystem::UpdateLogConfig("a", INFO, 0, 0);
            }
        });
    }
    for (int i = 0; i < 300; ++i) {
        const int status = Wait(Fork([i] {
            alarm(20);
            LoggerWriteLog(i % 2 == 0 ? kDotLog : kNormalLog, INFO, "f.cpp", 1, "child %d.", i);
            return LogSystem::Unregister("a") ? 0 : 1;  // waits for no call of a thread that is not here
        }));
        ASSERT_EQ(status, 0) << i;
    }
    busy.clear();
    LogSystem::CloseAllLogFile();
    EXPECT_TRUE(Contains(Read(path_), "child 0.\n") && Contains(Read(path_), "child 299.\n"));
    alarm(0);
}

// An unchecked path would become a shell command of root's, also by way of the check that comes before Register.
TEST_F(LogFaultTest, NoPathReachesTheShellAndNoNameThatGzipRefuses)
{
    const std::string evil = dir_ / "x;touch${IFS}evil";
    Write(evil, "old");
    const std::string planted = fs::current_path() / "evil";
    EXPECT_FALSE(LogFile(evil, DEBUG, 0, 2).CheckLogInfo() || LogFile(evil + ".new", DEBUG, 0, 2).CheckLogInfo());
    LogFile(path_, DEBUG, 0, 2).RollFiles(evil, 2);
    EXPECT_TRUE(Read(evil) == "old" && !fs::remove(planted));
    Strings paths = {"", "-f"};
    for (const char special : std::string(" \n\t\x7f;&$()`|<>*'\"\\~#{}?[]!^")) {
        paths.push_back(std::string("/a") + special + "b");
    }
    for (const std::string& path : paths) {
        EXPECT_FALSE(LogSystem::Register(std::make_shared<LogFile>(path, DEBUG, 0, 2), kNormalLog, "n", &Echo)) << path;
    }
    std::vector<std::pair<std::string, bool>> names = {{std::string(241, 'n'), true}, {std::string(242, 'n'), false}};
    for (const char* suffix : {"-z", "_z", ".z", ".Z", ".gz", ".GZ", ".tgz", "-gz", ".taz"}) {
        names.emplace_back(std::string("name") + suffix, false);
        names.emplace_back(std::string("name") + suffix + ".log", true);
    }
    for (const auto& [name, good] : names) {
        const std::string path = dir_ / name;
        Write(path, "old");
        LogFile file(path, DEBUG, 0, 4294967295);
        EXPECT_EQ(Put(file, "new"), good) << name;
        EXPECT_EQ(LogSystem::Register(std::make_shared<LogFile>(path, DEBUG, 0, 2), kNormalLog, "n", &Echo), good);
        LogSystem::CloseAllLogFile();
        EXPECT_EQ(Read(path), good ? "new" : "old") << name;
        static_cast<void>(!std::system(("gzip -q " + path).c_str()));  // leaves as it is what is refused for its end
        EXPECT_EQ(fs::exists(path), !good && name.size() < 242) << name;
    }
}
