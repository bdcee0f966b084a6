#include "inotify_watcher.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/inotify.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <unistd.h>

#include <set>

#include "monitor/inotify_host.h"
#include "tests/support/support.h"
#include "util/clock.h"
#include "util/unique_fd.h"

namespace {

using Events = std::vector<InotifyWatcher::Event>;

const std::string kAllowanceFile = "/proc/sys/fs/inotify/max_user_watches";

Strings NamesOf(const Events& events)
{
    Strings names;
    std::ranges::transform(events, std::back_inserter(names), &InotifyWatcher::Event::name);
    return names;
}

struct Watcher : InotifyWatcher {
    ~Watcher() { close(GetFd()); }

    Strings Names(std::size_t more = 0) const
    {
        Events events(more);
        EXPECT_TRUE(ReadEvent(events));
        return NamesOf(events);
    }
};

// A record of watch 5 as the kernel makes it.
std::string Record(std::string name, std::uint32_t length)
{
    const std::uint32_t header[] = {5, IN_CREATE, 0, length};
    name.resize(length);
    return std::string(reinterpret_cast<const char*>(header), sizeof(header)) + name;
}

// Lets a watcher read bytes of ours.
void Feed(const Watcher& watcher, const std::string& bytes)
{
    const TempDir directory;
    Write(directory / "bytes", bytes);
    const UniqueFd file(open((directory / "bytes").c_str(), O_RDONLY));
    ASSERT_GE(dup2(file.Get(), watcher.GetFd()), 0);
}

}  // namespace

// Kept: a carry that is not taken back makes the loop read behind bytes that it has already used.
TEST(InotifyWatcherTest, ReadsBehindTheLastCutRecord)
{
    Watcher watcher;
    ASSERT_TRUE(watcher.Init());
    std::string bytes;
    Strings expected;
    for (int i = 100; i < 142; ++i) {  // the buffer's end cuts the 22nd behind its header
        expected.push_back(std::to_string(i));
        bytes += Record(expected.back(), 32);
    }
    bytes += Record("", 0);  // with it the second read ends as a record does
    Feed(watcher, bytes + Record("lost", 32));
    expected.emplace_back("\x05");  // the header of the 22nd once more, before the last record
    EXPECT_EQ(watcher.Names(), expected);
    Feed(watcher, Record("", 2000).substr(0, 1024) + Record("y", 16));
    EXPECT_EQ(watcher.Names(), Strings());  // kept: a full carry ends the loop
    EXPECT_EQ(watcher.Names(), Strings{"y"});
}

TEST(InotifyWatcherTest, FollowsWatchesAndNamesTheirEvents)
{
    const Records records;
    const TempDir directory;
    const std::string file = directory / "file";
    const std::string link = directory / "link";
    Watcher watcher;
    ASSERT_TRUE(watcher.Init());
    EXPECT_FALSE(watcher.Poll());
    Write(file, "");
    fs::create_directory_symlink(directory.Path(), link);
    fs::create_hard_link(file, directory / "hard");
    const int top = watcher.AddWatch(directory.Path(), IN_MODIFY);
    const int item = watcher.AddWatch(file, IN_ATTRIB);
    EXPECT_EQ(watcher.AddWatch(directory / "hard", IN_MODIFY), item);
    EXPECT_EQ(watcher.GetPathByWatch(item), file);  // kept: the first path
    const int linked = watcher.AddWatch(link, IN_MODIFY);
    EXPECT_NE(linked, top);  // kept: not followed, yet watched as the directory that it leads to
    const std::string info = Read("/proc/self/fdinfo/" + std::to_string(watcher.GetFd()));
    EXPECT_TRUE(Contains(info, "mask:2 ") && info.find("mask:fc2 ") < info.rfind("mask:fc2 ")) << info;
    fs::rename(directory / "hard", directory / "new");
    fs::resize_file(file, 1);
    EXPECT_TRUE(watcher.Poll());
    EXPECT_EQ(watcher.Names(), (Strings{"hard", "new", "file", file}));
    watcher.RmInvalidWatch(item);
    fs::resize_file(file, 2);
    EXPECT_EQ(watcher.Names(), Strings{"file"});

    fs::remove(link);
    const std::size_t told = records.Lines().size();
    watcher.RmWatch(99);
    EXPECT_EQ(watcher.AddWatch(link, IN_MODIFY), 0);
    EXPECT_EQ(records.Lines().size(), told);
    watcher.RmWatch(linked);  // the kernel has ended it
    watcher.RmWatch(linked);
    EXPECT_EQ(records.Lines().back(), "ERROR Remove watch failed.[path=" + link + " errorInfo=Invalid argument]");
    EXPECT_EQ(records.Lines().size(), told + 1);
    watcher.Stop();
    EXPECT_EQ(records.Lines().back(), "INFO Inotify monitoring stopped.");
    EXPECT_EQ(watcher.GetPathByWatch(top), "");
    EXPECT_GT(watcher.AddWatch(directory.Path(), IN_MODIFY), top);
}

TEST(InotifyWatcherTest, CountsOverflowsAndEndsABatch)
{
    const TempDir directory;
    Watcher watcher;
    ASSERT_TRUE(watcher.Init());
    ASSERT_GT(watcher.AddWatch(directory.Path(), IN_ATTRIB), 0);
    const std::size_t queue = std::stoul(Read("/proc/sys/fs/inotify/max_queued_events"));
    Write(directory / "0", "");
    Write(directory / "1", "");
    for (std::size_t i = 0; i < queue + 10; ++i) {
        fs::permissions(directory / std::to_string(i % 2), fs::perms::owner_all);
    }
    std::size_t count = watcher.Names(299).size() - 299;
    EXPECT_EQ(count, 32U);  // one read, of 32 bytes an event
    for (std::size_t got = 300; got >= 300; count += got) {
        got = watcher.Names().size();
    }
    EXPECT_EQ(count, queue);
    EXPECT_EQ(watcher.GetOverflowCount(), 1U);
}

TEST(InotifyWatcherTest, TellsWhatTheSystemRefuses)
{
    const Records records;
    Watcher watcher;
    EXPECT_EQ(watcher.AddWatch("/", IN_MODIFY), 0);
    EXPECT_EQ(records.Lines().back(), "ERROR Add watch failed.[path=/ errorInfo=Bad file descriptor]");
    rlimit files = {0, 1024};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &files), 0);
    EXPECT_FALSE(watcher.Init());
    files.rlim_cur = 1024;  // a sanitizer needs some
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &files), 0);
    EXPECT_EQ(records.Lines().back(), "ERROR Init inotify with new init failed.[error=Too many open files]");

    // Kept: a signal in the wait is told. It waits behind the thread's mask, which the wait lifts.
    signal(SIGUSR1, [](int) {});
    sigset_t blocked;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGUSR1);
    pthread_sigmask(SIG_BLOCK, &blocked, nullptr);
    raise(SIGUSR1);
    EXPECT_FALSE(watcher.Poll());
    EXPECT_EQ(records.Lines().back(), "ERROR Inotify poll failed.[errorInfo=Interrupted system call]");
}

TEST(InotifyWatcherTest, HoldsToTheAllowanceAndTellsRefusalsOnceInAQuarterOfAnHour)
{
    if (geteuid() != 0 || std::stoul(Read(kAllowanceFile)) < 12000) {
        GTEST_SKIP() << "needs root, to mount, and an allowance of more watches than the limit";
    }
    const Records records;
    const TempDir directory;
    const std::string allowance = directory / "allowance";
    const auto taken = [&](const std::string& text) {
        Write(allowance, text);
        Watcher watcher;
        EXPECT_TRUE(watcher.Init());
        int count = 0;
        while (count < 10242 && watcher.AddWatch(directory / std::to_string(count), IN_MODIFY) > 0) {
            ++count;
        }
        return count;
    };
    std::thread other([&] {  // sees our file in the place of the kernel's
        ASSERT_EQ(unshare(CLONE_NEWNS), 0);
        ASSERT_EQ(mount("", "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0);
        ASSERT_EQ(mount("none", directory.Path().c_str(), "tmpfs", 0, nullptr), 0);
        Write(allowance, "");
        ASSERT_EQ(mount(allowance.c_str(), kAllowanceFile.c_str(), nullptr, MS_BIND, nullptr), 0);
        for (int i = 0; i < 10242; ++i) {
            Write(directory / std::to_string(i), "");
        }
        InotifyWatcher watcher;
        EXPECT_FALSE(watcher.SetLimit());
        EXPECT_EQ(records.Lines().back(), "ERROR Read file failed.[file=" + kAllowanceFile + ", error=Success]");
        Write(allowance, "many");
        EXPECT_THROW(watcher.SetLimit(), std::invalid_argument);
        EXPECT_EQ(taken("19\n"), 14);  // 70 percent are 13, and kept: one more
        EXPECT_EQ(records.Lines().back(),
                  "ERROR Add inotify watch failed.[path=" + (directory / "14") + ", watchers=14]");
        Clock::wallOffsetMs += 890000;
        EXPECT_EQ(taken("19"), 14);
        EXPECT_EQ(records.Lines().back(), "INFO Init inotify successfully.");
        Clock::wallOffsetMs += 20000;
        EXPECT_EQ(watcher.AddWatch("", IN_MODIFY), 0);  // kept: told like a full table
        EXPECT_EQ(records.Lines().back(), "ERROR Add inotify watch failed.[path=, watchers=0]");
        EXPECT_EQ(taken("10240"), 10241);

        InotifyHost host([] { return true; });  // has another watcher for the rest
        ASSERT_TRUE(host.Init());
        std::vector<WatchId> watches;
        for (int i = 0; i < 10242; ++i) {
            watches.push_back(host.AddWatch(directory / std::to_string(i), IN_MODIFY, false, 0));
        }
        EXPECT_EQ(std::set<WatchId>(watches.begin(), watches.end()).size(), 10242);
        EXPECT_EQ(host.Descriptors().size(), 2);
        Write(directory / "10241", "text");
        std::deque<WatchRecord> heard;
        host.ReadRecords(heard, 1);
        EXPECT_TRUE(heard.size() == 1 && heard[0].watch == watches.back());
        host.RemoveWatch(watches[0]);
        EXPECT_EQ(host.AddWatch(directory / "0", IN_MODIFY, false, 0) >> 32U, 1);  // what is free again is used first
        ASSERT_EQ(mount("none", "/proc/sys/fs/inotify", "tmpfs", 0, nullptr), 0);
        Watcher open;
        EXPECT_FALSE(open.Init());
        EXPECT_GE(open.GetFd(), 0);
        const Strings lines = records.Lines();
        EXPECT_EQ(lines.end()[-2],
                  "ERROR Open file failed.[file=" + kAllowanceFile + ", error=No such file or directory]");
        EXPECT_EQ(lines.back(), "ERROR Set inotify watches limit failed.");
    });
    other.join();
}
