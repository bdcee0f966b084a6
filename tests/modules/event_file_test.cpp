#include "event_file.h"

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include "hips_guard.h"
#include "tests/support/support.h"
#include "thread_pool.h"
#include "util/clock.h"

namespace {

struct EventFileTest : testing::Test {
    EventFileTest()
    {
        InitHipsGuard(0, 0, 0);
        ThreadPool::GetInstance().Start(1, 2);
    }
    ~EventFileTest() override
    {
        file_.Close();
        ThreadPool::GetInstance().Stop();
        UninitHipsGuard();
    }
    bool Waits() const { return file_.GetFigures().waiting > 0; }
    void WriteNumbers(int from, int to)
    {
        for (int i = from; i < to; ++i) {
            EXPECT_TRUE(file_.Write(Number(i)));
        }
        EXPECT_TRUE(Eventually([this] { return !Waits(); }));
    }
    static std::string Number(int i) { return "{\"n\":" + std::to_string(1000 + i) + "}"; }
    static std::string Numbers(int from, int to)
    {
        std::string text;
        for (int i = from; i < to; ++i) {
            text += Number(i) + "\n";
        }
        return text;
    }

    const TempDir dir_;
    const std::string path_ = dir_ / "events.jsonl";
    EventFile file_;
};

}  // namespace

// A file that would be followed, emptied or shared is somebody else's; one that holds the start is none.
TEST_F(EventFileTest, TakesOnlyAFileOfItsOwn)
{
    Write(dir_ / "other", "kept\n");
    const std::pair<const char*, std::function<void()>> rows[] = {
        {"link", [&] { fs::create_symlink(dir_ / "other", path_); }},
        {"hard link", [&] { fs::create_hard_link(dir_ / "other", path_); }},
        {"directory", [&] { fs::create_directory(path_); }},
        {"FIFO", [&] { mkfifo(path_.c_str(), 0600); }},
    };
    for (const auto& [name, make] : rows) {
        make();
        EXPECT_NE(file_.Open({path_}), "") << name;
        EXPECT_FALSE(file_.IsOpen() || file_.Write("x")) << name;
        fs::remove(path_);
    }
    EXPECT_EQ(Read(dir_ / "other"), "kept\n");
    EXPECT_TRUE(Contains(file_.Open({dir_ / "none/events"}), "none/events cannot be opened: No such file"));
    Write(path_, "before\ncut by a crash");
    ASSERT_EQ(file_.Open({path_}), "");
    EXPECT_EQ(file_.GetPath(), path_);
    WriteNumbers(0, 1);
    EXPECT_EQ(Read(path_), "before\ncut by a crash\n" + Number(0) + "\n");
    file_.Close();
    fs::remove(path_);
    ASSERT_EQ(file_.Open({path_}), "");
    EXPECT_EQ(fs::status(path_).permissions(), fs::perms(0640));
}

// Whatever becomes of the file, each line that was taken is in one file, whole and in order.
TEST_F(EventFileTest, RollsAndGoesOnWhereTheFileIsMovedAway)
{
    ASSERT_EQ(file_.Open({path_, 120, 2}), "");  // ten lines
    WriteNumbers(0, 35);
    EXPECT_EQ(Read(path_ + ".2") + Read(path_ + ".1") + Read(path_), Numbers(10, 35));
    EXPECT_EQ(Read(path_ + ".1"), Numbers(20, 30));
    EXPECT_FALSE(fs::exists(path_ + ".3"));
    fs::rename(path_, dir_ / "moved");
    WriteNumbers(35, 37);
    EXPECT_EQ(Read(dir_ / "moved"), Numbers(30, 35));
    EXPECT_EQ(Read(path_), Numbers(35, 37));
    file_.Close();
    ASSERT_EQ(file_.Open({path_, 120, 0}), "");  // goes on, and keeps no copy
    WriteNumbers(37, 46);
    EXPECT_EQ(Read(path_), Numbers(45, 46));
    EXPECT_EQ(Read(path_ + ".1"), Numbers(20, 30));
    EXPECT_EQ(file_.GetFigures().written, 46U);
}

TEST_F(EventFileTest, FullDiskCutsNoLineAndLosesNoneUnsaid)
{
    if (geteuid() != 0) {
        GTEST_SKIP() << "a small file system of its own needs CAP_SYS_ADMIN";
    }
    const std::string disk = dir_ / "disk";
    fs::create_directory(disk);
    ASSERT_EQ(mount("none", disk.c_str(), "tmpfs", 0, "size=64k"), 0);
    Records records;
    ASSERT_EQ(file_.Open({disk + "/events", 0, 0}), "");
    Write(disk + "/filler", std::string(60000, 'x'));
    for (int i = 0; i < 1000; ++i) {  // 12,000 bytes, of which 4,096 find room
        EXPECT_TRUE(file_.Write(Number(i)));
    }
    EXPECT_TRUE(Eventually([&] { return Contains(file_.GetFault(), "cannot be written: No space left on device"); }));
    EXPECT_EQ(file_.GetFigures().dropped, 0U);
    const std::string large(1 << 20, 'y');
    EXPECT_TRUE(file_.Write(large) && file_.Write(large) && file_.Write(large));
    EXPECT_FALSE(file_.Write(large));
    EXPECT_EQ(file_.GetFigures().dropped, 1U);
    EXPECT_EQ(records.Count("ERROR Events cannot be written.[reason=" + file_.GetFault() + "]"), 1) << "once a minute";
    fs::remove(disk + "/filler");
    EXPECT_EQ(mount("none", disk.c_str(), "tmpfs", MS_REMOUNT, "size=8m"), 0);
    EXPECT_TRUE(Eventually([&] {
        const bool isWritten = file_.GetFault().empty() && !Waits();
        Clock::monotonicOffsetNs += Clock::kNsPerSecond;  // to the next attempt, for which no line has to come
        return isWritten;
    }));
    EXPECT_EQ(Read(disk + "/events"), Numbers(0, 1000) + large + "\n" + large + "\n" + large + "\n");
    file_.Close();
    umount2(disk.c_str(), MNT_DETACH);
}

// Lines of several threads are never mixed; a stop writes what waits.
TEST_F(EventFileTest, ManyWritersAndAStop)
{
    ASSERT_EQ(file_.Open({path_, 0, 0}), "");
    InThreads(4, [&](int number) {
        for (int i = 0; i < 2000; ++i) {
            EXPECT_TRUE(file_.Write(Number(number)));
        }
    });
    file_.Close();
    std::map<std::string, int> counts;
    std::ifstream lines(path_);
    for (std::string line; std::getline(lines, line);) {
        ++counts[line];
    }
    EXPECT_EQ(counts,
              (std::map<std::string, int>{{Number(0), 2000}, {Number(1), 2000}, {Number(2), 2000}, {Number(3), 2000}}));
}
