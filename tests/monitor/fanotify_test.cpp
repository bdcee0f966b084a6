#include <fcntl.h>
#include <sys/resource.h>

#include <cstring>

#include "fanotify_watcher.h"
#include "myfanotify.h"
#include "tests/support/support.h"
#include "util/unique_fd.h"

using namespace NEUtils::Monitor;

static constexpr std::uint32_t kWanted = FAN_OPEN | FAN_CLOSE_WRITE;
static Strings g_events;  // "pid path mask"
static bool g_throws = false;

static void CollectPlain(long pid, const char* path, std::uint32_t mask)
{
    g_events.push_back(std::to_string(pid) + " " + path + " " + std::to_string(mask));
    if (g_throws) {
        throw std::runtime_error("a fault of the callback's");
    }
}

static void Collect(int pid, const std::string& path, std::uint64_t mask, bool directory)
{
    CollectPlain(pid, (path + (directory ? " directory" : "")).c_str(), static_cast<std::uint32_t>(mask));
}

static long Descriptors()
{
    return std::distance(fs::directory_iterator("/proc/self/fd"), {});
}

// Runs something that gets no descriptor from the given number on.
static void Limited(int first, const std::function<void()>& body)
{
    rlimit old = {};
    getrlimit(RLIMIT_NOFILE, &old);
    const rlimit limit = {static_cast<rlim_t>(first), old.rlim_max};
    setrlimit(RLIMIT_NOFILE, &limit);
    body();
    setrlimit(RLIMIT_NOFILE, &old);
}

// Another process reads a directory and writes a file in it; gives the events of that.
static Strings Touch(const std::string& directory, const std::string& file)
{
    const pid_t pid = Fork([&] {
        const fs::directory_iterator entries(directory);
        Write(file, "x");
        return 0;
    });
    Wait(pid);
    return {std::to_string(pid) + " " + directory + " 32", std::to_string(pid) + " " + file + " 40"};
}

// How many marks of a mask, or of any, the kernel knows for a descriptor.
static long Marks(int fd, const std::string& mask)
{
    std::istringstream info(Read("/proc/self/fdinfo/" + std::to_string(fd)));
    return std::count_if(std::istream_iterator<std::string>(info), {}, [&mask](const std::string& word) {
        return mask.empty() ? word.rfind("mask:", 0) == 0 : word == "mask:" + mask;
    });
}

// One record as the kernel writes it, of process 1, with so many bytes.
static std::string Record(int fd, std::uint32_t length = 24, std::uint8_t version = 3)
{
    const fanotify_event_metadata record = {length, version, 0, 24, FAN_ONDIR, fd, 1};
    std::string bytes(length, '#');
    std::memcpy(bytes.data(), &record, sizeof(record));
    return bytes;
}

struct FanotifyTest : testing::Test {
    void SetUp() override
    {
        if (!UniqueFd(fanotify_init(FAN_CLASS_CONTENT, 0)).IsValid()) {
            GTEST_SKIP() << "fanotify needs CAP_SYS_ADMIN";
        }
        g_events.clear();
        g_throws = false;
        ASSERT_TRUE(watcher_.Init(&Collect) && InitFanotifyEvent(&event_, &CollectPlain) == 0);
        owner_.Reset(event_.fd);
        before_ = Descriptors();
    }

    bool Handle(const std::string& bytes) const
    {
        return watcher_.HandleEvent(bytes.data(), static_cast<ssize_t>(bytes.size()));
    }

    const TempDir dir_;
    const std::string& directory_ = dir_.Path();
    const std::string file_ = dir_ / "file";
    const Records records_;
    FanotifyWatcher watcher_;
    FANOTIFY_EVENT event_;
    UniqueFd owner_;
    long before_ = 0;
};

TEST_F(FanotifyTest, WatcherTellsWhoTouchedWhat)
{
    EXPECT_FALSE(watcher_.Poll() || watcher_.AddWatch("", kWanted) || watcher_.AddWatch(file_, kWanted));
    EXPECT_FALSE(watcher_.AddWatch(directory_, FAN_CREATE));  // not to be had with descriptors
    ASSERT_TRUE(watcher_.AddWatch(directory_, kWanted));
    EXPECT_EQ(Marks(watcher_.GetFd(), "48000028"), 1);
    const Strings events = Touch(directory_, file_);
    EXPECT_TRUE(watcher_.Poll());
    watcher_.HandleEvent();
    Write(file_, "own");
    watcher_.HandleEvent();
    EXPECT_EQ(g_events, events);
    Touch(directory_, file_);
    Limited(0, [&] {
        EXPECT_FALSE(watcher_.Poll());
        watcher_.HandleEvent();
    });
    watcher_.RmWatch(directory_, kWanted);
    EXPECT_EQ(Marks(watcher_.GetFd(), "48000000"), 1);  // kept
    watcher_.RmWatch("/none", FAN_OPEN);
    const Strings told = {"ERROR Add fanotify watch for file failed.[file=" + directory_ + "]",
                          "DEBUG Add fanotify watch for file succeed. [file=" + directory_ + "]",
                          "INFO The file is modified by its own process.[file=" + file_ + "]",
                          "ERROR Poll fanotify event failed.[errorInfo=Invalid argument]",
                          "ERROR Can not read event.[reason=Too many open files]",
                          "DEBUG Remove fanotify watch for file succeed. [file=" + directory_ + "]",
                          "ERROR Remove fanotify watch for file failed.[file=/none]"};
    EXPECT_EQ(records_.Lines(), told);
    EXPECT_EQ(Descriptors(), before_);
}

// A record that is cut or told wrongly must neither be read beyond the bytes nor cost a descriptor.
TEST_F(FanotifyTest, RecordsAreTakenWholeAndTheirDescriptorsClosed)
{
    for (std::size_t cut = 0; cut <= 88; ++cut) {  // at every byte
        const int fds[] = {dup(0), dup(0), dup(0)};
        const int whole = (cut >= 24 ? 1 : 0) + (cut >= 64 ? 1 : 0) + (cut == 88 ? 1 : 0);
        g_events.clear();
        EXPECT_TRUE(Handle((Record(fds[0]) + Record(fds[1], 40) + Record(fds[2])).substr(0, cut)));
        EXPECT_TRUE(std::ssize(g_events) == whole && Descriptors() == before_ + 3 - whole) << cut;
        std::for_each(fds + whole, std::end(fds), &close);
    }
    EXPECT_TRUE(Contains(g_events[0], " directory"));
    EXPECT_TRUE(Handle(Record(-1, 24, 2) + Record(4000)));  // an overflow; a file whose path cannot be read
    EXPECT_TRUE(watcher_.HandleEvent(nullptr, 24) && watcher_.HandleEvent("", -1));
    EXPECT_TRUE(g_events.size() == 3 && records_.Lines().empty());
    EXPECT_FALSE(Handle(Record(dup(0)) + Record(dup(0), 24, 2) + Record(dup(0))));
    EXPECT_EQ(g_events.size(), 4U);
    EXPECT_EQ(records_.Lines(), Strings{"ERROR Mismatch of fanotify metadata version."});
    g_throws = true;
    EXPECT_THROW(Handle(Record(dup(0)) + Record(dup(0)) + Record(dup(0))), std::runtime_error);
    EXPECT_EQ(Descriptors(), before_);
}

// A stale descriptor number may by then be somebody else's.
TEST_F(FanotifyTest, LifecycleClosesItsOwnDescriptorOnce)
{
    ASSERT_TRUE(watcher_.AddWatch(directory_, kWanted) && watcher_.Init(&Collect) && FanotifyWatcher().Init(&Collect));
    EXPECT_FALSE(watcher_.Init(nullptr) || FanotifyWatcher().Init(nullptr));
    EXPECT_TRUE(Marks(watcher_.GetFd(), "") == 0 && Descriptors() == before_);
    const int number = watcher_.GetFd();
    watcher_.DeInit();
    const UniqueFd stranger(fcntl(0, F_DUPFD, number));
    watcher_.DeInit();
    EXPECT_TRUE(stranger.Get() == number && fcntl(number, F_GETFD) != -1);
    EXPECT_EQ(records_.Count("INFO The fanotify monitoring function is disabled."), 2);
    EXPECT_FALSE(watcher_.Poll() || watcher_.AddWatch(directory_, kWanted));
    const int status = Wait(Fork([this] {
        close(0);
        const bool zero = watcher_.Init(&Collect) && watcher_.GetFd() == 0;
        watcher_.DeInit();
        const bool open = fcntl(0, F_GETFD) != -1;  // kept
        const bool refused = BecomePlainUser() && !watcher_.Init(&Collect) && InitFanotifyEvent(&event_, nullptr) == 1;
        const bool told = records_.Lines().size() == 5 && records_.Has("ERROR Failed to initialize the fanotify.");
        return zero && open && refused && told ? 0 : 1;
    }));
    EXPECT_EQ(status, 0);
}

TEST_F(FanotifyTest, OlderInterfaceMarksDirectoriesFiveLevelsDeep)
{
    const int level = DirLevel(directory_.c_str());
    ASSERT_LT(level, 5) << "the temporary directory lies too deep";
    fs::create_directories(dir_ / "1/2/3/4/5/6");
    fs::create_directory_symlink(directory_, dir_ / "1/up");  // a way round in the tree ends there too
    Write(file_, "x");
    ASSERT_EQ(FanotifyAddWatch(&event_, directory_.c_str(), kWanted), 0);
    EXPECT_EQ(Marks(event_.fd, "48000028"), 6 - level);
    EXPECT_TRUE(records_.Has("DEBUG Add fanotify watch for dir succeed. [file=" + (dir_ / "1") + "]"));
    ASSERT_EQ(FanotifyAddWatch(&event_, file_.c_str(), kWanted), 0);
    EXPECT_EQ(records_.Lines().back(), "DEBUG Add fanotify watch for file succeed. [file=" + file_ + "]");
    const auto markDirectories = [this](std::uint64_t mask) {
        EXPECT_EQ(FanotifyAddWatchDir(event_.fd, FAN_MARK_ADD, mask, AT_FDCWD, directory_.c_str()), 1);
        return records_.Lines().back();
    };
    EXPECT_EQ(markDirectories(FAN_CREATE), "ERROR Fanotify mark failed.");
    const int next = UniqueFd(dup(0)).Get();
    Limited(next + 1, [&] { EXPECT_EQ(markDirectories(kWanted), "ERROR Fanotify add watch dir failed."); });
    EXPECT_EQ(FanotifyAddWatch(&event_, file_.c_str(), FAN_CREATE) + FanotifyAddWatch(&event_, "/none", kWanted), 2);
    EXPECT_TRUE(records_.Has("ERROR Fanotify mark failed.[file=" + file_ + "]") &&
                records_.Has("ERROR Can not stat file.[path=/none errorInfo=No such file or directory]"));
    EXPECT_EQ(Descriptors(), before_);
}

TEST_F(FanotifyTest, LoopHandsEventsOfOthersToItsCallback)
{
    FANOTIFY_LOOP_CONTEXT loop = {&event_, &CollectPlain, 0};
    ASSERT_EQ(FanotifyAddWatch(&event_, directory_.c_str(), kWanted), 0);
    Write(file_, "own");
    const Strings events = Touch(directory_, file_);
    EXPECT_EQ(FanotifyLoop(&loop), 0);
    EXPECT_EQ(FanotifyLoop(&loop), 0);  // nothing there
    EXPECT_EQ(g_events, events);
    g_throws = true;
    Touch(directory_, file_);
    EXPECT_THROW(FanotifyLoop(&loop), std::runtime_error);
    EXPECT_EQ(Descriptors(), before_);
    Limited(0, [&] { EXPECT_EQ(FanotifyLoop(&loop), -1); });
    EXPECT_EQ(records_.Lines().back(), "ERROR Poll event failed.[errorInfo=Invalid argument]");
}

TEST(MyFanotifyTest, PathsAndMissingArguments)
{
    const Records records;
    dirent entry = {};
    char out[9] = {};
    const auto join = [&](const char* dir, const char* name, std::size_t size) {
        std::strcpy(entry.d_name, name);
        return FanotifyGetEntryPath(&entry, dir, out, size) == 0 ? std::string(out) : "";
    };
    EXPECT_EQ(join("/", "etc", 9), "/etc");
    EXPECT_EQ(join("/a/b", "..c", 9), "/a/b/..c");
    EXPECT_EQ(join("/a", ".", 9) + join("/", "..", 9) + join("/", "etc", 4) + join("/a/b", "..c", 8), "");
    EXPECT_EQ(records.Lines(), Strings{"ERROR Format entry path failed."});  // kept: not for the root
    FANOTIFY_EVENT event;
    FANOTIFY_LOOP_CONTEXT loops[] = {{nullptr, &CollectPlain, 0}, {&event, nullptr, 0}};
    EXPECT_TRUE(FanotifyLoop(nullptr) == -1 && FanotifyLoop(&loops[0]) == -1 && FanotifyLoop(&loops[1]) == -1);
    for (const int result : {FanotifyAddWatch(nullptr, "/", 1), FanotifyAddWatch(&event, nullptr, 1),
                             FanotifyAddWatchDir(-1, 0, 0, -1, nullptr), FanotifyGetEntryPath(nullptr, "/", out, 9),
                             InitFanotifyEvent(nullptr, &CollectPlain), InitFanotifyEvent(&event, nullptr)}) {
        EXPECT_EQ(result, 1);
    }
    EXPECT_TRUE(DirLevel(nullptr) == 255 && FanotifyAddWatchDir(-1, 0, 0, -1, "/a/b/c/d/e") == 0);
    EXPECT_EQ(UniqueFd(event.fd).IsValid(), geteuid() == 0);  // kept: stored and open
}
