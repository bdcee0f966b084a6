#include <sys/stat.h>

#include <sstream>

#include "tests/frame/log_file_fixture.h"
#include "util/clock.h"

static void Log(LogFile& file, const char* content, LogLevel level, const LogSystem::Formatter& formatter = &Echo)
{
    static const struct tm kTime = {};
    file.WriteLog(formatter, {level, 42, "INFO", "src.cpp", content, &kTime});
}

// Kept because the old file and the copies' order are evidence: each start begins a new file and appends to none.
TEST_F(LogFileTest, RollsWhatItFindsAndKeepsTheNewestCopies)
{
    umask(077);
    for (const char* text : {"one", "two", "three", "four"}) {
        EXPECT_TRUE(PutToNew(text));
    }
    EXPECT_EQ(Read(path_) + Unzipped(Copy(1)) + Unzipped(Copy(2)), "fourthreetwo");
    EXPECT_FALSE(HasCopy(3) || fs::exists(path_ + ".gz"));
    EXPECT_EQ(fs::status(path_).permissions(), fs::perms(0640));  // whatever the mask
    EXPECT_EQ(fs::status(Copy(1)).permissions(), fs::perms(0440));
    Write(Copy(9), "left by a higher limit");
    EXPECT_TRUE(PutToNew("five", 1));
    EXPECT_EQ(Unzipped(Copy(1)), "four");
    EXPECT_FALSE(HasCopy(2) || HasCopy(9));
    // With a large limit only the copies that exist are looked for; all numbers would take hours under the file's lock.
    for (const char* number : {"7", "4294967294", "4294967295", "007", "x"}) {
        Write(path_ + "." + number + ".gz", number);
    }
    EXPECT_TRUE(PutToNew("six", 4294967295));
    for (const auto& [number, content] : {std::pair("8", "7"), std::pair("4294967295", "4294967294"),
                                          std::pair("007", "007"), std::pair("x", "x"), std::pair("7", "")}) {
        EXPECT_EQ(Read(path_ + "." + number + ".gz"), content) << number;
    }
    EXPECT_EQ(Unzipped(Copy(1)) + Unzipped(Copy(2)), "fivefour");
}

// Kept because a look costs a system call: the size is looked at with every 50th write, before it.
TEST_F(LogFileTest, RollsByTheSizeSeenAtEvery50thWrite)
{
    LogFile file(path_, DEBUG, 98, 1);
    Put(file, "xy", 50);  // at the limit when looked at, not above it
    Put(file, "xy", 49);
    EXPECT_FALSE(HasCopy(1));
    Put(file, "100th");
    EXPECT_EQ(Unzipped(Copy(1)).size(), 198U);
    EXPECT_EQ(Read(path_), "100th");
    Write(dir_ / "c.log", "old");
    LogFile alone(dir_ / "c.log", DEBUG, 10, 0);
    Put(alone, "text", 50);
    EXPECT_EQ(Read(dir_ / "c.log"), "text");  // without copies nothing is compressed
    EXPECT_FALSE(fs::exists(dir_ / "c.log.gz") || fs::exists(dir_ / "c.log.1.gz"));
}

// A planted link must not lead root's log elsewhere. Kept because copies are evidence: what may be forged is no copy.
TEST_F(LogFileTest, WhatIsNotAFileOfItsOwnIsRemoved)
{
    const std::string target = dir_ / "target";
    Write(target, "keep");
    const auto giveAway = [&](uid_t user, gid_t group) {
        Write(path_, "forged");
        static_cast<void>(!chown(path_.c_str(), user, group));
    };
    const std::vector<std::function<void()>> rows = {
        [&] { fs::create_symlink(target, path_); },
        [&] { fs::create_hard_link(target, path_); },
        [&] { fs::create_directory(path_); },
        [&] { giveAway(65534, static_cast<gid_t>(-1)); },
        [&] { giveAway(static_cast<uid_t>(-1), 65534); },
    };
    for (std::size_t row = 0; row < (geteuid() == 0 ? 5 : 3); ++row) {  // giving a file away needs root
        rows[row]();
        EXPECT_TRUE(PutToNew("a") && Read(path_) == "a" && Read(target) == "keep" && !HasCopy(1)) << row;
        fs::remove(path_);
    }
}

TEST_F(LogFileTest, LevelBudgetAndFormatterDecideWhatIsWritten)
{
    LogFile file(path_, WARN, 0, 2);
    LogFile other(dir_ / "b.log", DEBUG, 0, 2);
    LogSystem::SetGlobalRecordLines(3);
    Log(file, "low", INFO);  // below the level: no line of the budget spent
    Log(file, "1", WARN);
    Log(other, "2", INFO);
    Log(other, "3", INFO, [](const NENormalLog&, char*, unsigned int) { return 0U; });
    Log(file, "4", FATAL);
    EXPECT_EQ(Read(path_), "1\n");
    EXPECT_TRUE(LogSystem::IsBudgetUsedUp() && LogSystem::GetLinesOverBudget() == 1);
    // The period ends after a day; a step back prolongs it.
    for (const int offsetMs : {86399000, 86401000, -86401000, -86401000, -86401000}) {
        Clock::wallOffsetMs = offsetMs;
        Log(other, std::to_string(offsetMs).c_str(), INFO);
    }
    EXPECT_TRUE(LogSystem::IsBudgetUsedUp() && LogSystem::GetLinesOverBudget() == 3);
    Clock::wallOffsetMs = 172802000;
    EXPECT_FALSE(LogSystem::IsBudgetUsedUp());
    LogSystem::SetGlobalRecordLines(0);
    Log(other, "too long", INFO, [](const NENormalLog&, char*, unsigned int size) { return size; });
    const std::string failed = "[ERROR] Log conversion failed.[\nsrc.cpp:42]";
    EXPECT_EQ(Read(dir_ / "b.log"), "2\n" + failed + "86401000\n-86401000\n-86401000\n" + failed);
}

using LogSystemTest = LogFileTest;

static bool Register(const std::string& path, const std::string& name, const std::string& kind = kNormalLog)
{
    return LogSystem::Register(std::make_shared<LogFile>(path, INFO, 1000, 0), kind, name, &Echo);
}

TEST_F(LogSystemTest, FivePlacesEachPairOnce)
{
    for (const std::string name : {"n0", "n1", "n2", "n3", "n4"}) {
        EXPECT_TRUE(Register(dir_ / name, name));
        EXPECT_FALSE(Register(dir_ / name, name));
    }
    EXPECT_FALSE(Register(dir_ / "six", "six"));
    LogSystem::Unregister("n4");
    EXPECT_FALSE(LogSystem::Register(nullptr, "k", "n", &Echo) || Register("/x.log", "n", "") ||
                 Register("/x.log", ""));
    EXPECT_TRUE(Register(dir_ / "n4", "n4"));
    EXPECT_TRUE(LogSystem::UpdateLogConfig("n3", FATAL, 0, 1));
    NE_LOG(ERROR, "again");
    EXPECT_TRUE(Contains(Read(dir_ / "n4"), "again") && !Contains(Read(dir_ / "n3"), "again"));
    LogSystem::CloseAllLogFile();
    EXPECT_TRUE(Register(dir_ / "six", "six"));
}

// The text of this one cannot be read. Changed levels and new subscribers count from the next record on.
TEST_F(LogSystemTest, OnlyWhatSomebodyTakesIsFormatted)
{
    ASSERT_TRUE(Register(dir_ / "a", "a") && Register(dir_ / "b", "b"));
    const auto unreadable = reinterpret_cast<const char*>(std::uintptr_t{1});
    const auto debug = [](const char* text) { std::jthread([text] { NE_LOG(DEBUG, "%s", text); }); };
    debug(unreadable);
    LogSystem::UpdateLogConfig("b", DEBUG, 0, 0);
    debug("b");
    LogSystem::UpdateLogConfig("b", FATAL, 0, 0);
    debug(unreadable);
    NE_LOG(INFO, "a");
    std::string seen;
    MessageBus::Subscribe(kNormalLog, "other", [&](const NENormalLog& record) { seen += record.content; });
    debug("other");
    EXPECT_EQ(seen + Read(dir_ / "a") + Read(dir_ / "b"), "othera\nb\n");
    LogSystem::CloseAllLogFile();
}

// A file closed twice, written after its close or left subscribed would be use after free.
TEST_F(LogSystemTest, LateRecordsAreDroppedAndAFileMayComeBack)
{
    const auto file = std::make_shared<LogFile>(dir_ / "a", INFO, 0, 0);
    for (const std::string content : {"1", "2"}) {
        // What a formatter captured is destroyed without a lock.
        std::shared_ptr<void> last(nullptr, [](void*) { LogSystem::UpdateLogConfig("none", INFO, 0, 0); });
        const auto echo = [](const std::shared_ptr<void>&, auto... args) { return Echo(args...); };
        ASSERT_TRUE(LogSystem::Register(file, kNormalLog, "a", std::bind_front(echo, std::move(last))));
        NE_LOG(INFO, "%s", content.c_str());
        LogSystem::CloseAllLogFile();
        LogSystem::CloseAllLogFile();
        NE_LOG(INFO, "late");
        EXPECT_FALSE(file->FlushLogStream("late\n", 5));
        EXPECT_EQ(Read(dir_ / "a"), content + "\n");
    }
}

// A module that registers a log is unloaded afterwards: nobody may be in its formatter then, or hold it.
TEST_F(LogSystemTest, UnregisteringOneWaitsForItsLinesAndLeavesTheOthers)
{
    ASSERT_TRUE(Register(dir_ / "other", "other"));
    const auto token = std::make_shared<std::atomic<int>>(0);
    const auto file = std::make_shared<LogFile>(dir_ / "a", INFO, 0, 0);
    const auto slow = [token](const NENormalLog& record, char* out, unsigned int size) {
        *token = 1;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        *token = 2;
        return Echo(record, out, size);
    };
    ASSERT_TRUE(LogSystem::Register(file, kDotLog, "a", slow));
    const std::jthread logger([] { LoggerWriteLog(kDotLog, INFO, "f.cpp", 1, "last"); });
    EXPECT_TRUE(Eventually([&] { return *token == 1; }));
    EXPECT_TRUE(LogSystem::Unregister("a") && *token == 2 && token.use_count() == 2 && file.use_count() == 1);
    EXPECT_EQ(Read(dir_ / "a"), "last\n");
    EXPECT_FALSE(file->FlushLogStream("late\n", 5) || LogSystem::Unregister("a"));
    NE_LOG(INFO, "goes on");
    EXPECT_EQ(Read(dir_ / "other"), "goes on\n");
}

// Without its lock a file loses lines, mixes them or rolls twice at once.
TEST_F(LogSystemTest, ManyThreadsLoseNoLineWhileTheFileRolls)
{
    constexpr int kLines = 250;
    ASSERT_TRUE(LogSystem::Register(std::make_shared<LogFile>(dir_ / "a", INFO, 2000, 40), kNormalLog, "a", &Echo));
    InThreads(4, [](int i) {
        for (int n = 0; n < kLines; ++n) {
            NE_LOG(INFO, "%d %d %s", i, n, std::string(60, 'x').c_str());
        }
    });
    LogSystem::CloseAllLogFile();
    std::string all;
    for (int copy = 40; copy > 0; --copy) {
        all += Unzipped(dir_ / ("a." + std::to_string(copy) + ".gz"));
    }
    EXPECT_FALSE(all.empty());
    std::istringstream lines(all + Read(dir_ / "a"));
    int next[4] = {};
    for (std::string line; std::getline(lines, line);) {
        const int thread = line[0] - '0';
        ASSERT_TRUE(thread >= 0 && thread < 4) << line;
        EXPECT_EQ(line, std::to_string(thread) + " " + std::to_string(next[thread]++) + " " + std::string(60, 'x'));
    }
    EXPECT_EQ(std::vector<int>(next, next + 4), std::vector<int>(4, kLines));
}
