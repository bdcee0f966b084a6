#include "inotify_monitor.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/inotify.h>
#include <sys/mount.h>
#include <unistd.h>

#include <random>
#include <set>

#include "attribute.h"
#include "hips_guard.h"
#include "monitor.h"
#include "monitor/watch_scope.h"
#include "tests/monitor/known_paths.h"
#include "tests/support/failing_allocations.h"
#include "tests/support/support.h"

using Monitor::FileEvent;
using Monitor::FileWatchRule;

namespace {

// What a rule was told, as "create path", "rename old -> new", "40 path text".
struct Told {
    static void Take(const FileEvent& event, void* told)
    {
        auto& own = *static_cast<Told*>(told);
        const std::string name = event.mask == IN_CREATE   ? "create "
                                 : event.mask == IN_DELETE ? "delete "
                                 : event.oldPath.empty()   ? std::to_string(event.mask) + " "
                                                           : "rename " + event.oldPath + " -> ";
        const std::lock_guard<std::mutex> lock(own.mutex_);
        own.known_.Apply(event);
        own.lines_.push_back(name + event.path + (event.isDirectory ? "/" : "") +
                             (event.change.empty() ? "" : event.change.substr(event.path.size())));
    }
    std::set<std::string> Known() const
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        return known_.paths;
    }
    Strings Lines() const
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        return lines_;
    }
    bool Has(const std::string& line) const { return std::ranges::count(Lines(), line) > 0; }
    void Clear()
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        lines_.clear();
        known_ = {};
    }

    mutable std::mutex mutex_;
    Strings lines_;
    KnownPaths known_;
};

class InotifyMonitorTest : public testing::Test {
protected:
    InotifyMonitorTest() { Start(); }
    ~InotifyMonitorTest() override { monitor_.DeInit(); }
    void Start()
    {
        EXPECT_TRUE(monitor_.Init() && monitor_.Init());
        reader_ = std::jthread([this] { monitor_.ReadEvent(); });
    }
    FileWatchRule Rule(const std::string& path, bool recursive = true, std::uint32_t mask = kTreeEvents,
                       Strings excludes = {})
    {
        return {path, recursive, mask, std::move(excludes), &Told::Take, &told_, false, false};
    }
    // $ stands for the directory.
    static std::string InFull(std::string line, const std::string& directory)
    {
        for (std::size_t at; (at = line.find('$')) != std::string::npos;) {
            line.replace(at, 1, directory);
        }
        return line;
    }
    void Soon(const std::string& line, const Told& told, const std::string& top = "") const
    {
        const std::string expected = InFull(line, directory_.Path() + top);
        EXPECT_TRUE(Eventually([&] { return told.Has(expected); }, 10)) << expected;
    }
    void Soon(const std::string& line) const { Soon(line, told_); }
    // Exactly these lines come, in this order; then nothing is left over.
    void Expect(Strings lines, Told& told)
    {
        for (std::string& line : lines) {
            line = InFull(line, directory_.Path());
        }
        EXPECT_TRUE(Eventually([&] { return told.Lines().size() >= lines.size(); }, 5));
        std::this_thread::sleep_for(std::chrono::milliseconds(50));  // for one too many
        EXPECT_EQ(told.Lines(), lines);
        told.Clear();
    }
    void Expect(const Strings& lines) { Expect(lines, told_); }
    std::string operator/(const std::string& name) const { return directory_ / name; }

    // Mounts of its own, before any monitor looks at them.
    const bool ownMounts_ =
        unshare(CLONE_NEWNS) == 0 && mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
    const TempDir directory_;
    const Records records_;
    Told told_;
    InotifyMonitor monitor_;
    std::jthread reader_;
};

bool Known(const std::string& path)
{
    const std::lock_guard<std::mutex> lock(Monitor::g_mutex);
    return Monitor::g_attrMap.count(path) != 0;
}

}  // namespace

TEST(WatchScopeTest, RulesCoverWhatTheySay)
{
    FileWatchRule tree{"/a", true, IN_CREATE, {"*.tmp", "cache"}, nullptr, nullptr, false, false};
    const std::tuple<std::string, bool, bool> rows[] = {{"/a", true, true},           {"/ab", false, false},
                                                        {"/ab/c", false, false},      {"/a/b", true, true},
                                                        {"/a/b/c", true, false},      {"/a/x.tmp", false, false},
                                                        {"/a/cache/x", false, false}, {"/a/b/cache", false, false},
                                                        {"/a/caches", true, true},    {"/", false, false}};
    for (const auto& [path, recursive, flat] : rows) {
        tree.recursive = true;
        EXPECT_EQ(Monitor::Covers(tree, path), recursive) << path;
        tree.recursive = false;
        EXPECT_EQ(Monitor::Covers(tree, path), flat) << path;
    }
    tree.path = "/";
    EXPECT_TRUE(Monitor::Covers(tree, "/b") && Monitor::LooksInto(tree, "/"));
    EXPECT_FALSE(Monitor::LooksInto(tree, "/b"));
}

TEST_F(InotifyMonitorTest, TellsWhatHappensInATree)
{
    fs::create_directories(*this / "d/sub");
    Write(*this / "d/old", "12");
    ASSERT_TRUE(monitor_.AddRule(Rule(*this / "d", true, kTreeEvents, {"*.tmp"})));
    EXPECT_FALSE(monitor_.AddRule(Rule(*this / "d/", true, kTreeEvents, {"*.tmp"})));
    Write(*this / "d/x.tmp", "excluded");
    Write(*this / "d/sub/new", "");
    Expect({"create $/d/sub/new", "8 $/d/sub/new"});
    Write(*this / "d/sub/new", "123");
    Expect({"8 $/d/sub/new osize=0 size=3 "});
    Write(*this / "d/old", "123456");
    Expect({"8 $/d/old osize=2 size=6 "});
    chmod((*this / "d/old").c_str(), 0600);
    Expect({"4 $/d/old oaccess=33188 access=33152 "});
    fs::rename(*this / "d/old", *this / "d/sub/older");
    fs::remove(*this / "d/sub/new");
    Expect({"rename $/d/old -> $/d/sub/older", "delete $/d/sub/new"});
    EXPECT_TRUE(Known(*this / "d/sub/older"));
    EXPECT_FALSE(Known(*this / "d/old") || Known(*this / "d/sub/new") || Known(*this / "d/x.tmp"));
    // A renamed directory, with all below, goes by its new path.
    fs::rename(*this / "d/sub", *this / "d/moved");
    Expect({"rename $/d/sub -> $/d/moved/"});
    Write(*this / "d/moved/older", "1");
    Expect({"8 $/d/moved/older osize=6 size=1 "});
    ASSERT_TRUE(monitor_.RemoveRule(Rule(*this / "d", true, kTreeEvents, {"*.tmp"})));
    EXPECT_FALSE(monitor_.RemoveRule(Rule(*this / "d", true, kTreeEvents, {"*.tmp"})) || Known(*this / "d/moved"));
    Write(*this / "d/moved/older", "");
    Expect({});
}

// Links on the way are followed wherever they lead later, a last one by a recursive rule if it leads to a directory. A
// path that may be missing is waited for.
TEST_F(InotifyMonitorTest, PathsComeAndLinksLeadElsewhere)
{
    fs::create_directories(*this / "v1/conf");
    fs::create_directories(*this / "v2/conf");
    Write(*this / "v2/conf/file", "");
    fs::create_directory_symlink("v1", *this / "current");
    fs::create_directory_symlink(*this / "v1/conf", *this / "direct");
    fs::create_symlink("v2/conf/file", *this / "toFile");
    FileWatchRule rule = Rule(*this / "current/conf");
    FileWatchRule direct = Rule(*this / "direct");
    FileWatchRule toFile = Rule(*this / "toFile");
    FileWatchRule missing = Rule(*this / "a/b/file", false);
    Told directs;
    Told others;
    direct.userData = &directs;
    toFile.userData = missing.userData = &others;
    EXPECT_FALSE(monitor_.AddRule(Rule("relative")) || monitor_.AddRule(missing) ||
                 monitor_.AddRule(Rule("/x", true, 0)));
    EXPECT_EQ(monitor_.GetWatchState(missing), Monitor::kNotWatched);
    missing.mayBeMissing = true;
    ASSERT_TRUE(monitor_.AddRule(rule) && monitor_.AddRule(direct) && monitor_.AddRule(missing) &&
                monitor_.AddRule(toFile));
    EXPECT_TRUE(monitor_.GetWatchState(missing) == Monitor::kWaiting &&
                monitor_.GetWatchState(rule) == Monitor::kWatching);
    Write(*this / "v1/conf/x", "");
    Expect({"create $/v1/conf/x", "8 $/v1/conf/x"});
    Expect({"create $/v1/conf/x", "8 $/v1/conf/x"}, directs);
    fs::create_directory_symlink("v2", *this / "next");
    fs::rename(*this / "next", *this / "current");
    Expect({"delete $/v1/conf/", "create $/v2/conf/", "create $/v2/conf/file"});
    Write(*this / "v2/conf/file", "1");
    Expect({"8 $/v2/conf/file osize=0 size=1 "});
    fs::remove(*this / "toFile");
    Expect({"delete $/toFile"}, others);
    fs::create_directories(*this / "a/b");
    Write(*this / "a/b/file", "");
    Soon("create $/a/b/file", others);
    EXPECT_EQ(monitor_.GetWatchState(missing), Monitor::kWatching);
}

// Whoever exchanges two paths changes both; what is there afterwards is watched, and nothing that is there is told
// gone.
TEST_F(InotifyMonitorTest, ExchangesAreToldOnBothSides)
{
    fs::create_directories(*this / "d/one");
    fs::create_directories(*this / "out/other");
    Write(*this / "out/other/new", "");
    Write(*this / "d/a", "1");
    Write(*this / "d/b", "22");
    ASSERT_TRUE(monitor_.AddRule(Rule(*this / "d")));
    const auto exchange = [this](const std::string& one, const std::string& other) {
        EXPECT_EQ(renameat2(AT_FDCWD, (*this / one).c_str(), AT_FDCWD, (*this / other).c_str(), RENAME_EXCHANGE), 0);
    };
    exchange("d/a", "d/b");
    Expect({"rename $/d/a -> $/d/b", "create $/d/a"});
    exchange("out/other", "d/one");
    Expect({"delete $/d/one/", "create $/d/one/", "create $/d/one/new"});
    Write(*this / "d/one/new", "1");
    Write(*this / "d/a", "1");
    Expect({"8 $/d/one/new osize=0 size=1 ", "8 $/d/a osize=2 size=1 "});
}

// Two names of a file have one watch, for the masks of all rules. A change of a file that has a rule of its own has a
// second record, with the same text.
TEST_F(InotifyMonitorTest, RulesOnOneFileKeepTheirOwn)
{
    Write(*this / "one", "");
    fs::create_hard_link(*this / "one", *this / "two");
    Told others;
    FileWatchRule second = Rule(*this / "two", false, IN_CLOSE_WRITE);
    second.userData = &others;
    ASSERT_TRUE(monitor_.AddRule(Rule(*this / "one", false, IN_ATTRIB)) && monitor_.AddRule(second) &&
                monitor_.AddRule(Rule(*this / "one", false, IN_CLOSE_WRITE)) &&
                monitor_.AddRule(Rule(directory_.Path(), true, IN_ATTRIB)));
    Write(*this / "one", "1");
    Expect({"8 $/one osize=0 size=1 "});
    Expect({"8 $/two osize=0 size=1 "}, others);
    EXPECT_TRUE(monitor_.RemoveRule(Rule(*this / "one", false, IN_CLOSE_WRITE)));
    Write(*this / "one", "22");
    Expect({"8 $/two osize=1 size=2 "}, others);
    chmod((*this / "one").c_str(), 0600);
    Expect({"4 $/one oaccess=33188 access=33152 ", "4 $/one oaccess=33188 access=33152 "});
}

// While the reader is held a file comes and goes, then the kernel's queue overflows. The one is told whole; what else
// has really changed is found by comparing.
TEST_F(InotifyMonitorTest, HeldReaderLosesNoChange)
{
    static std::atomic<bool> hold{true};
    static std::atomic<bool> held{false};
    fs::create_directories(*this / "d");
    for (const char* name : {"d/same", "d/rewritten", "d/gone", "d/mode", "d/hold"}) {
        Write(*this / name, "1");
    }
    FileWatchRule holder = Rule(*this / "d/hold", false);
    holder.callback = [](const FileEvent&, void*) {
        held = true;
        EXPECT_TRUE(Eventually([] { return !hold; }));
    };
    ASSERT_TRUE(monitor_.AddRule(Rule(*this / "d")) && monitor_.AddRule(holder));
    chmod((*this / "d/hold").c_str(), 0600);
    ASSERT_TRUE(Eventually([] { return held.load(); }));
    Write(*this / "d/short", "");
    fs::remove(*this / "d/short");
    const int most = std::stoi(Read("/proc/sys/fs/inotify/max_queued_events"));
    for (int i = 0; i <= most; ++i) {  // alternating, since equal neighbours become one
        chmod((*this / "d/same").c_str(), i % 2 == 0 ? 0600 : 0644);
        close(open((*this / "d/hold").c_str(), O_WRONLY | O_CLOEXEC));
    }
    chmod((*this / "d/same").c_str(), 0644);
    Write(*this / "d/rewritten", "2");
    fs::remove(*this / "d/gone");
    chmod((*this / "d/mode").c_str(), 0600);
    fs::create_directories(*this / "d/fresh/deep");
    Write(*this / "d/fresh/deep/file", "");
    hold = false;
    for (const char* line : {"create $/d/short", "8 $/d/short", "delete $/d/short", "8 $/d/rewritten",
                             "delete $/d/gone", "4 $/d/mode oaccess=33188 access=33152 ", "create $/d/fresh/",
                             "create $/d/fresh/deep/", "create $/d/fresh/deep/file"}) {
        Soon(line);
    }
    EXPECT_GE(monitor_.GetOverflowCount(), 1U);
    EXPECT_TRUE(records_.Has("WARN Inotify queue has overflowed, the watched files are compared.[count=1]"));
    Write(*this / "d/fresh/deep/file", "1");  // watched as well
    Soon("8 $/d/fresh/deep/file osize=0 size=1 ");
}

TEST_F(InotifyMonitorTest, CallbacksMayRemoveAndAddRulesAndTheEndIsPrompt)
{
    struct State {
        InotifyMonitor& monitor;
        FileWatchRule rule;
        std::atomic<int> calls{0};
    } state{monitor_, Rule(directory_.Path(), false)};
    state.rule.userData = &state;
    state.rule.callback = [](const FileEvent&, void* data) {
        auto& own = *static_cast<State*>(data);
        EXPECT_TRUE(own.monitor.RemoveRule(own.rule));
        if (own.calls < 2) {
            EXPECT_TRUE(own.monitor.AddRule(own.rule));
        }
        ++own.calls;  // last: the next file must find the rule
        throw std::runtime_error("of a callback");
    };
    ASSERT_TRUE(monitor_.AddRule(state.rule));
    for (int i = 0; i < 5; ++i) {
        Write(*this / std::to_string(i), "");
        EXPECT_TRUE(Eventually([&] { return state.calls >= std::min(i + 1, 3); }));
    }
    EXPECT_EQ(state.calls, 3);
    EXPECT_FALSE(monitor_.RemoveRule(state.rule));
    EXPECT_EQ(records_.CountWith("of a callback]"), 3);
}

// Whatever two processes do to a tree at once: who follows the events knows the tree, and every directory in it is
// watched. NEUTILS_SEQUENCES makes more of them, from NEUTILS_SEED on.
TEST_F(InotifyMonitorTest, EventsAddUpToTheTree)
{
    FileWatchRule rule = Rule(*this / "d", true, IN_CREATE | IN_DELETE | IN_MOVE);
    rule.crossMounts = true;
    const auto change = [this](unsigned seed) {
        std::minstd_rand random(seed);
        std::error_code ignored;
        const auto path = [&] {
            std::string at = *this / (random() % 4 == 0 ? "out" : "d");
            for (auto depth = random() % 3; depth + 1 > 0; --depth) {
                at += std::string("/") + "abcd"[random() % 4];
            }
            return at;
        };
        for (int i = 0; i < 60; ++i) {
            const std::string one = path();
            const std::string other = path();
            const auto kind = random() % 7;
            if (kind == 0) {
                fs::create_directories(one, ignored);
            } else if (kind == 1) {
                Write(one, "");
            } else if (kind == 2) {
                fs::remove_all(one, ignored);
            } else if (kind == 3) {
                renameat2(AT_FDCWD, one.c_str(), AT_FDCWD, other.c_str(), RENAME_EXCHANGE);
            } else if (kind < 6) {
                fs::rename(one, other, ignored);
            } else if (ownMounts_ && seed % 4 < 2 && random() % 2 == 0) {
                const std::string at = *this / ("d/" + std::string(1, "abcd"[random() % 4]));
                mount((*this / "out").c_str(), at.c_str(), nullptr, MS_BIND, nullptr);
            } else if (ownMounts_) {
                umount2(one.c_str(), MNT_DETACH);
            }
            if (random() % 16 == 0) {
                usleep(1000);
            }
        }
        return 0;
    };
    const auto tree = [this] {
        std::set<std::string> paths;
        for (const auto& entry : fs::recursive_directory_iterator(*this / "d")) {
            paths.insert(entry.path());
        }
        return paths;
    };
    const unsigned first = FromEnvironment("NEUTILS_SEED", 0U);
    const unsigned end = first + FromEnvironment("NEUTILS_SEQUENCES", 20U);
    for (unsigned seed = first; seed < end && !HasFailure(); ++seed) {
        SCOPED_TRACE("NEUTILS_SEED=" + std::to_string(seed));
        fs::create_directories(*this / "d");
        fs::create_directories(*this / "out");
        ASSERT_TRUE(monitor_.AddRule(rule));
        const pid_t other = Fork([&] { return change(2 * seed + 1); });
        change(2 * seed + 2);
        EXPECT_EQ(Wait(other), 0);
        for (const char* at : {"d/a", "d/b", "d/c", "d/d"}) {
            while (umount2((*this / at).c_str(), MNT_DETACH) == 0) {  // one over the other
            }
        }
        EXPECT_TRUE(Eventually([&] { return told_.Known() == tree(); }, 10));
        for (const std::string& at : tree()) {
            if (fs::is_directory(at)) {
                Write(at + "/probe", "");
            }
        }
        Eventually([&] { return told_.Known() == tree(); }, 10);
        EXPECT_EQ(told_.Known(), tree()) << testing::PrintToString(told_.Lines());
        ASSERT_TRUE(monitor_.RemoveRule(rule));
        told_.Clear();
        fs::remove_all(*this / "d");
        fs::remove_all(*this / "out");
    }
}

// What is mounted over a directory hides it, where its name has a blank too, which the kernel escapes. Without being
// asked a rule stays on its file system.
TEST_F(InotifyMonitorTest, MountsComeAndGo)
{
    if (!ownMounts_) {
        GTEST_SKIP() << "a mount of its own needs CAP_SYS_ADMIN";
    }
    const std::string sub = *this / "d/a sub";
    fs::create_directories(sub);
    Write(sub + "/hidden", "");
    Told across;
    FileWatchRule rule = Rule(*this / "d");
    ASSERT_TRUE(monitor_.AddRule(rule));
    rule.crossMounts = true;
    rule.userData = &across;
    ASSERT_TRUE(monitor_.AddRule(rule));
    EXPECT_FALSE(monitor_.AddRule(Rule("/proc")));
    ASSERT_EQ(mount("none", sub.c_str(), "tmpfs", 0, nullptr), 0);
    Soon("delete $/d/a sub/hidden");
    Soon("delete $/d/a sub/hidden", across);
    Write(sub + "/mounted", "");
    Soon("create $/d/a sub/mounted", across);
    ASSERT_EQ(umount2(sub.c_str(), MNT_DETACH), 0);
    Soon("create $/d/a sub/hidden");
    Soon("delete $/d/a sub/mounted", across);
    EXPECT_FALSE(told_.Has("delete " + sub + "/") || told_.Has("create " + sub + "/mounted"))
        << testing::PrintToString(told_.Lines());
    // A name whose white space the kernel does not escape is no mount on the path in front of it.
    fs::create_directory(sub + "\vx");
    ASSERT_EQ(mount("none", (sub + "\vx").c_str(), "tmpfs", 0, nullptr), 0);
    fs::create_directory_symlink(*this / "d", *this / "link");
    ASSERT_TRUE(monitor_.AddRule(Rule(*this / "link")));
    const auto append = [&sub] { std::ofstream(sub + "/hidden", std::ios::app) << "1"; };  // in one step
    append();
    Soon("8 $/d/a sub/hidden osize=0 size=1 ");
    // A link that is switched to a pseudo file system leads a rule into nothing.
    const std::size_t watches = monitor_.GetWatchCount();
    fs::remove(*this / "link");
    fs::create_directory_symlink("/proc/1", *this / "link");
    append();
    Soon("8 $/d/a sub/hidden osize=1 size=2 ");
    EXPECT_LE(monitor_.GetWatchCount(), watches + 4);  // those on the way
    umount2((sub + "\vx").c_str(), MNT_DETACH);
}

// With room for eight watches a tree of twenty directories is watched in part, which is logged once.
TEST_F(InotifyMonitorTest, GoesOnWithTheWatchesThatItCanHave)
{
    constexpr const char* kAllowance = "/proc/sys/fs/inotify/max_user_watches";
    monitor_.DeInit();
    reader_.join();                      // else it might begin with the next session
    Write(*this / "allowance", "10\n");  // of which 70 percent and one more are used
    if (!ownMounts_ || mount((*this / "allowance").c_str(), kAllowance, nullptr, MS_BIND, nullptr) != 0) {
        GTEST_SKIP() << "a mount of its own needs CAP_SYS_ADMIN";
    }
    for (int i = 0; i < 20; ++i) {
        fs::create_directories(*this / ("d/" + std::to_string(i)));
    }
    Start();
    umount2(kAllowance, MNT_DETACH);
    ASSERT_TRUE(monitor_.AddRule(Rule(*this / "d")));
    Write(*this / "d/file", "");
    Soon("create $/d/file");
    fs::create_directory(*this / "d/more");
    Soon("create $/d/more/");
    EXPECT_EQ(records_.CountWith("WARN Watch rule cannot have all its directories.[lacking=1"), 1);
    EXPECT_GE(monitor_.GetLackingCount(), 10);
    for (int i = 0; i < 18; ++i) {
        fs::remove(*this / ("d/" + std::to_string(i)));
    }
    EXPECT_TRUE(Eventually([&] { return monitor_.GetLackingCount() == 0; }, 10));
    Write(*this / "d/19/file", "");
    Soon("create $/d/19/file");
}

// For the sanitizers: rules come and go, the tree churns, and the end comes in the middle.
TEST_F(InotifyMonitorTest, EverythingAtOnce)
{
    std::atomic<bool> end{false};
    InThreads(5, [&](int number) {
        const std::string own = *this / std::to_string(number);
        for (int i = 0; i < 100 && !end; ++i) {
            if (number < 2) {
                const FileWatchRule rule = Rule(directory_.Path(), true, i % 2 == 0 ? kTreeEvents : IN_ALL_EVENTS);
                const bool added = monitor_.AddRule(rule);
                EXPECT_TRUE(!added || monitor_.RemoveRule(rule) || end);
            } else if (number < 4) {
                fs::create_directories(own + "/a/b");
                Write(own + "/a/b/c", "1");
                fs::rename(own + "/a", own + "/x");
                fs::remove_all(own);
            } else if (i == 50) {
                std::this_thread::sleep_for(std::chrono::milliseconds(50));
                end = true;
                monitor_.DeInit();
            }
        }
    });
    reader_.join();
    monitor_.ReadEvent();  // returns at once
    EXPECT_FALSE(monitor_.AddRule(Rule(directory_.Path())));
    const std::lock_guard<std::mutex> lock(Monitor::g_mutex);
    EXPECT_TRUE(Monitor::g_attrMap.empty());
}

TEST(FileMonitorTest, RunsOnItsGuardedThread)
{
    const Records records;
    const TempDir directory;
    Told told;
    const FileWatchRule rule{directory.Path(), true, kTreeEvents, {}, &Told::Take, &told, false, false};
    EXPECT_FALSE(Monitor::InitFileMonitor());  // no guard
    EXPECT_TRUE(records.Has("ERROR Start sending message thread failed."));
    ASSERT_EQ(InitHipsGuard(0, 0, 0), 0);
    ASSERT_TRUE(Monitor::InitFileMonitor() && Monitor::InitFileMonitor());
    EXPECT_FALSE(Monitor::AddMonitor(rule, static_cast<Monitor::MonitorType>(2)));
    ASSERT_TRUE(Monitor::AddMonitor(rule, Monitor::kAnyMonitor));
    Write(directory / "x", "");
    EXPECT_TRUE(Eventually([&] { return told.Has("create " + (directory / "x")); }));
    EXPECT_TRUE(Monitor::RemoveMonitor(rule, Monitor::kAnyMonitor));
    Monitor::DeInitFileMonitor();
    EXPECT_TRUE(records.Has("INFO Monitor Manager Uninstalled."));
    EXPECT_FALSE(Monitor::AddMonitor(rule, Monitor::kInotifyMonitor));
    UninitHipsGuard();
}

// Memory may run out anywhere on the monitor's thread, now and then or for a while. It goes on, says so, counts it, and
// finds out what it has missed.
TEST_F(InotifyMonitorTest, GoesOnWithoutMemory)
{
    using FailingAllocations::Mode;
    static std::atomic<int> last{-1};
    FileWatchRule counting = Rule(directory_.Path(), true, IN_CREATE | IN_MOVE);
    counting.callback = [](const FileEvent& event, void*) {
        last = std::atoi(event.path.c_str() + event.path.rfind('/') + 1);
    };
    ASSERT_TRUE(monitor_.AddRule(counting));
    int number = 0;
    for (const Mode mode : {Mode::kOne, Mode::kAllFromThere}) {
        std::string name;
        const auto prepare = [&] { name = *this / std::to_string(++number); };
        const auto change = [&] {
            mkdir(name.c_str(), 0700);
            const int mostMs = mode == Mode::kOne ? 2000 : 50;  // without any memory it never comes
            for (int i = 0; i < mostMs && last != number; ++i) {
                usleep(1000);
            }
        };
        prepare();
        const int failed = FailingAllocations::InTurn(mode, change, [&](int) {
            EXPECT_TRUE(Eventually([&] { return last == number; })) << number;
            prepare();
        });
        EXPECT_TRUE(failed > 10 || mode != Mode::kOne);
    }
    EXPECT_GT(monitor_.GetOverflowCount(), 0);
    EXPECT_EQ(
        records_.CountWith("ERROR Memory has run out, file events may be lost, the watched files are compared.[count="),
        1);
}
