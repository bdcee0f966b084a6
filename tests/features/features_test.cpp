// The feature libraries as an agent uses them: loaded, given policies, stopped, unloaded.
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/xattr.h>

#include "config.h"
#include "event_file.h"
#include "monitor_manager.h"
#include "tests/features/features_fixture.h"
#include "tests/support/failing_allocations.h"
#include "util/unique_fd.h"

using Policies = std::map<std::string, Manager::Policy>;

namespace {

const std::string kAgain = "b4c9e14061c2fd453b36700e3b0da008db2189c711ac629f0f583089164e267d";

struct FeaturesTest : FeaturesFixture {
    FeaturesTest()
    {
        fs::create_directory(tree_);
        Write(guarded_, "");
        Begin();
    }
    // The marks of fanotify that this process has, as the kernel shows them.
    static std::size_t Marks()
    {
        std::size_t count = 0;
        for (const auto& info : fs::directory_iterator("/proc/self/fdinfo")) {
            std::ifstream lines(info.path());
            for (std::string line; std::getline(lines, line);) {
                count += line.starts_with("fanotify ino:") ? 1 : 0;
            }
        }
        return count;
    }
    static std::uint64_t Seen(const char* feature) { return FeatureCounters::Of(feature).seen; }

    const std::string tree_ = dir_ / "tree";
    const std::string guarded_ = dir_ / "guarded";
};

struct FeatureRecordsTest : FeaturesTest {
    bool Logs(const std::string& piece, const std::string& end) const
    {
        return std::ranges::any_of(
            records_.Lines(), [&](const std::string& line) { return Contains(line, piece) && line.ends_with(end); });
    }

    const Records records_;
};

// What a process holds, of all that a feature may leave behind.
struct Held {
    static std::ptrdiff_t Entries(const char* directory)
    {
        return std::distance(fs::directory_iterator(directory), {});
    }
    std::ptrdiff_t descriptors = Entries("/proc/self/fd");
    std::ptrdiff_t threads = Entries("/proc/self/task");
    std::size_t watches = MonitorManager::GetInstance().GetInotifyMonitor().GetWatchCount();
    std::size_t heap = FailingAllocations::Used();
};

}  // namespace

// A policy that is half understood would leave an administrator in the belief that something is watched.
TEST_F(FeatureRecordsTest, PoliciesThatCannotBeTakenAreRefusedWithAReason)
{
    const std::string rows[][3] = {
        {"process_watch", "# fine\n\nevents start", "line 3: 'events start' has no '='"},
        {"process_watch", "evens=start", "line 1: unknown key 'evens'"},
        {"process_watch", "events=start,stop", "line 1: events: 'start,stop' is not one of start, end, start,end"},
        {"process_watch", "exclude=", "line 1: exclude: '' is not a shell pattern"},
        {"file_integrity", "digest_max_bytes=1", "it has no watch"},
        {"file_integrity", "watch=/x\r", "line 1: watch: '/x?' holds a control character"},
        {"file_integrity", "watch=/x\ndigest_max_bytes=-1",
         "line 2: digest_max_bytes: '-1' is not a number from 0 to 1099511627776"},
        {"process_watch", "repeats=x", "line 1: repeats: 'x' is not a number from 0 to 1000000"},
        {"network_watch", "events=connect,", "line 1: events: 'connect,' is not made of connect, accept and listen"},
        {"network_watch", "exclude=10.0.0.1/8",
         "line 1: exclude: '10.0.0.1/8' has a network with bits beyond its size"},
        {"network_watch", "ring_bytes=65535", "line 1: ring_bytes: '65535' is not a number from 65536 to 1073741824"},
        {"network_watch", "wake_ms=1001", "line 1: wake_ms: '1001' is not a number from 0 to 1000"},
        {"file_access", "guard=", "line 1: guard: '' is not an absolute path"},
        {"file_access", "guard=/x;recursive", "line 1: guard: '/x;recursive' has an unknown option 'recursive'"},
    };
    const char* const watches[][2] = {
        {"etc", "is not an absolute path"},
        {"/x;events=write,touch", "has an unknown event 'touch'"},
        {"/x;exclude=", "has an exclude that no path can match, ''"},
        {"/x;recursive;exclude=a/", "has an exclude that no path can match, 'a/'"},
        {"/x;exclude=../y", "has an exclude that no path can match, '../y'"},
        {"/x;recursive;exclude=/y/z", "has an exclude that is not below the path, '/y/z'"},
        {"/x/y;recursive;exclude=/x", "has an exclude that is not below the path, '/x'"},
        {"/x;exclude=*,a/b", "has an exclude that needs recursive, 'a/b'"},
    };
    const auto expectRefusal = [&](const std::string& feature, const std::string& policy, const std::string& fault) {
        EXPECT_FALSE(SetPolicy(feature, policy));
        EXPECT_TRUE(records_.Has("ERROR Policy is refused.[feature=" + feature + " reason=" + fault + "]")) << fault;
        EXPECT_EQ(manager_.GetModuleStatus(feature), Manager::kFailed);
        manager_.DestroyModule(feature);
    };
    for (const auto& [feature, policy, fault] : rows) {
        expectRefusal(feature, policy, fault);
    }
    for (const auto& [value, fault] : watches) {
        expectRefusal("file_integrity", std::string("watch=") + value,
                      std::string("line 1: watch: '") + value + "' " + fault);
    }
    // Each record about a guarded log would be its next use.
    Config::ParseConfig("LOG_FILE=" + dir_ / "tree/own.log", false, {});
    EXPECT_FALSE(SetPolicy("file_access", "guard=" + tree_ + "/.;events=modify"));
    EXPECT_TRUE(
        records_.Has("ERROR File cannot be guarded.[reason=\"the agent's own log is there\" path=" + tree_ + "/.]"));
}

// Whoever replaces a guarded file, as passwd does, would use the new one unseen.
TEST_F(FeatureRecordsTest, GuardedPathsStayGuardedWhateverTheyLeadTo)
{
    const std::string parent = dir_ / "p";
    const std::string file = parent + "/sub/file";
    const std::string link = dir_ / "link";
    const auto make = [](const std::string& directory) {
        fs::create_directories(directory);
        Write(directory + "/file", "x");
    };
    make(parent + "/sub");
    fs::create_symlink(file, link);
    SetPolicy("file_access",
              "guard=" + file + ";events=open\nguard=" + link + ";events=open\nguard=" + tree_ + ";events=open");
    // Reads it in another process until that is noticed: the mark follows the change by a moment.
    const auto isUseLogged = [&](const std::string& path) {
        return Eventually(
            [&] {
                const pid_t pid = Fork([&] { return open(path.c_str(), O_RDONLY) < 0 ? 1 : 0; });
                Wait(pid);
                const std::string use = "action=open pid=" + std::to_string(pid) + " ";
                return Eventually([&] { return Logs(use, "]"); }, 1);
            },
            10);
    };
    const auto isChangeLogged = [&](const std::string& action, const std::string& path) {
        return Eventually([&] { return Logs("Guarded file changed.[action=" + action + " ", "path=" + path + "]"); });
    };
    const auto& overflows = FeatureCounters::Of("file_access").overflows;
    const std::uint64_t before = overflows;
    const std::tuple<const char*, std::string, std::function<void()>> rows[] = {
        {"as it is", "", [] {}},
        {"renamed over", "replaced",
         [&] {
             Write(parent + "/sub/new", "y");
             fs::rename(parent + "/sub/new", file);
         }},
        {"removed, and made anew with the same inode, perhaps", "",
         [&] {
             fs::remove(file);
             Write(file, "z");
         }},
        {"away for a while", "guarded",
         [&] {
             fs::rename(file, parent + "/away");
             EXPECT_TRUE(isChangeLogged("missing", file));
             EXPECT_TRUE(Eventually([] { return FeatureCounters::Of("file_access").waiting == 2; }));
             Write(file, "z");
         }},
        {"its directory exchanged", "",
         [&] {
             make(parent + "/other");
             fs::rename(parent + "/sub", parent + "/old");
             fs::rename(parent + "/other", parent + "/sub");
         }},
        {"the directory above removed and made anew", "",
         [&] {
             fs::remove_all(parent);
             make(parent + "/sub");
         }},
        {"a hard link put there", "",
         [&] {
             Write(dir_ / "name", "");
             fs::create_hard_link(dir_ / "name", parent + "/sub/new");
             fs::rename(parent + "/sub/new", file);
         }},
        {"another file mounted over it", "",
         [&] {
             Write(dir_ / "mounted", "");
             EXPECT_EQ(mount((dir_ / "mounted").c_str(), file.c_str(), nullptr, MS_BIND, nullptr), 0);
         }},
        {"unmounted", "", [&] { EXPECT_EQ(umount2(file.c_str(), MNT_DETACH), 0); }},
        {"replaced 2,000 times, and until old marks are forgotten", "",
         [&] {
             std::size_t most = 0;
             for (std::size_t i = 0; i < 2000 || (i < 100000 && Marks() >= most); ++i) {
                 Write(parent + "/sub/new", "");
                 fs::create_hard_link(file, parent + "/" + std::to_string(i));  // else the kernel drops its mark
                 fs::rename(parent + "/sub/new", file);
                 most = i % 100 == 0 ? std::max(most, Marks()) : most;
             }
             EXPECT_TRUE(most > 100 && most < 700) << most;
             EXPECT_EQ(overflows, before) << "uses of other files are missed meanwhile";
         }},
    };
    for (const auto& [name, action, change] : rows) {
        change();
        EXPECT_TRUE(action.empty() || isChangeLogged(action, file)) << name;
        EXPECT_TRUE(isUseLogged(file) && isUseLogged(link)) << name;
    }
    make(parent + "/target");
    fs::remove(link);
    fs::create_symlink(parent + "/target/file", link);
    EXPECT_TRUE(isUseLogged(link)) << "link switched";
    fs::rename(tree_, dir_ / "former");
    make(tree_);
    EXPECT_TRUE(isUseLogged(tree_ + "/file")) << "guarded directory replaced";
    EXPECT_LE(records_.CountWith("Guarded file changed."), 60);
    EXPECT_EQ(FeatureCounters::Of("file_access").watches, 3U);
}

// What the kernel dropped is not known by number: it must not look like nothing.
TEST_F(FeaturesTest, OverflowOfGuardedUsesIsCountedAsUnknown)
{
    const std::uint64_t before = FeatureCounters::Of("file_access").overflows;
    SetPolicy("file_access", "guard=" + tree_ + ";events=open");
    std::mutex held;
    held.lock();  // holds the thread that reads the events at its first record
    MessageBus::Subscribe(kNormalLog, "test-hold", [&held](const NENormalLog& record) {
        if (Contains(record.content, "File accessed.")) {
            const std::lock_guard<std::mutex> wait(held);
        }
    });
    Wait(Fork([this] {
        for (int i = 0; i < 18000; ++i) {  // of one file they would be merged
            close(open((tree_ + "/" + std::to_string(i)).c_str(), O_CREAT | O_RDONLY, 0600));
        }
        return 0;
    }));
    MessageBus::Unsubscribe(kNormalLog, "test-hold");
    held.unlock();
    EXPECT_TRUE(Eventually([before] { return FeatureCounters::Of("file_access").overflows > before; }, 60));
    EXPECT_EQ(FeatureCounters::Of("file_access").lost, 0U);
}

TEST_F(FeaturesTest, OverflowOfWatchedChangesIsCountedAsUnknown)
{
    const std::uint64_t before = FeatureCounters::Of("file_integrity").overflows;
    Write(tree_ + "/x", "");
    Write(tree_ + "/y", "");
    SetPolicy("file_integrity", "watch=" + tree_ + ";events=attrib");
    for (int i = 0; i < 20000; ++i) {  // all before the monitor looks first; two of one file are merged
        chmod((tree_ + (i % 2 == 0 ? "/x" : "/y")).c_str(), 0600);
    }
    EXPECT_TRUE(Eventually([before] { return FeatureCounters::Of("file_integrity").overflows > before; }, 60));
}

// With a file of their own, events leave the log alone.
TEST_F(FeatureRecordsTest, EventsGoToTheirFileInsteadOfTheLog)
{
    const std::string path = dir_ / "events.jsonl";
    ASSERT_EQ(EventFile::GetInstance().Open({path}), "");
    SetPolicy("file_integrity", "watch=" + dir_.Path() + ";recursive");
    Write(tree_ + "/a\"\xff\033", "");
    const std::string line = ",\"path\":\"" + tree_ + "/a\\\"\\ufffd\\u001b\"}\n";
    EXPECT_TRUE(Eventually([&] { return Contains(Read(path), line); }));
    EXPECT_EQ(Read(path).find("{\"type\":\"file\",\"time\":1"), 0U);
    EXPECT_FALSE(Contains(Read(path), "events.jsonl"));  // its own changes
    EXPECT_FALSE(Logs("File changed.", ""));
    manager_.UpdateModulePolicy({});
    EventFile::GetInstance().Close();
}

// A record that names a file by half, that a file's name can forge, or that makes the next one, misleads.
TEST_F(FeatureRecordsTest, RecordsOfFilesSayWhatIsSo)
{
    const std::string log = dir_ / "log";
    const std::string late = dir_ / "late";
    fs::create_directories(log);
    fs::create_directories(tree_ + "/mount");
    fs::create_directories(tree_ + "/sub/cache");
    fs::create_directory_symlink(tree_, dir_ / "way");
    Config::ParseConfig("LOG_FILE=" + log + "/own.log", false, {});
    const UniqueFd own(open((log + "/own.log").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600));
    ASSERT_EQ(mount(log.c_str(), (tree_ + "/mount").c_str(), nullptr, MS_BIND, nullptr), 0);
    ASSERT_TRUE(
        SetPolicy("file_integrity", "watch=" + dir_ / "way" +
                                        ";recursive;cross-mounts;events=create,delete,rename,write,modify,attrib"
                                        ";exclude=*.tmp,sub/cache," +
                                        dir_ / "way/sub/o*" + "\nwatch=" + late));
    EXPECT_EQ(FeatureCounters::Of("file_integrity").waiting, 1U);
    const auto logged = [&](const std::string& piece, const std::string& path) {
        return Eventually([&] { return Logs("File changed.[" + piece, " path=" + path + "]"); });
    };
    const std::string file = tree_ + "/y path=innocent";
    Write(tree_ + "/mount/other", "");  // the first one waits until the monitor looks
    EXPECT_TRUE(logged("action=create mode=", tree_ + "/mount/other"));
    EXPECT_TRUE(write(own.Get(), "x", 1) == 1 && Logs("other", "]"));
    fs::create_hard_link(log + "/own.log", tree_ + "/link");
    EXPECT_EQ(write(own.Get(), "x", 1), 1);
    Write(log + "/own.log.1.gz", "");
    Write(tree_ + "/x.tmp", "");
    Write(tree_ + "/sub/cache/x", "");
    Write(tree_ + "/sub/out", "");
    Write(file, "");
    fs::rename(file, tree_ + "/z\033[1m\"\\\n");
    EXPECT_TRUE(logged("action=rename mode=0644 owner=root oldPath=\"" + file + "\" time=", tree_ + "/z?[1m\"\\?"));
    fs::rename(tree_ + "/z\033[1m\"\\\n", tree_ + "/z]");
    EXPECT_TRUE(
        logged("action=rename mode=0644 owner=root oldPath=\"" + tree_ + "/z?[1m\\\"\\\\?\" time=", tree_ + "/z]"));
    Write(tree_ + "/a new", "");
    EXPECT_TRUE(logged("action=create mode=0644 owner=root ", tree_ + "/a new"));
    chmod((tree_ + "/a new").c_str(), 04777);
    EXPECT_TRUE(logged("action=attrib change=\"oaccess=33188 access=35327 ", tree_ + "/a new"));
    fs::rename(tree_ + "/a new", tree_ + "/z]");
    EXPECT_TRUE(logged("action=rename mode=4777 owner=root oldPath=\"" + tree_ + "/a new\" ", tree_ + "/z]"));
    const timespec times[] = {{86400, 0}, {172800, 0}};
    utimensat(AT_FDCWD, (tree_ + "/z]").c_str(), times, 0);
    EXPECT_TRUE(logged("action=attrib change=\"omtime=", tree_ + "/z]"));
    EXPECT_TRUE(Logs(" mtime=1970-01-03T", "]"));
    char value = '1';
    EXPECT_TRUE(Eventually([&] {  // the kernel's clock for it may stand still for some milliseconds
        value = value == '1' ? '2' : '1';
        return setxattr((tree_ + "/z]").c_str(), "trusted.x", &value, 1, 0) == 0 &&
               Logs("action=attrib change=\"octime=", tree_ + "/z]]");
    }));
    EXPECT_FALSE(Logs("own.log", "]") || Logs("/link]", "]") || Logs(".tmp", "]") || Logs("cache", "]") ||
                 Logs("sub/out", "]"));
    EXPECT_GE(FeatureCounters::Of("file_integrity").filtered, 3U);
    Write(late, "");
    EXPECT_TRUE(logged("action=create", late));
    EXPECT_TRUE(Eventually([] { return FeatureCounters::Of("file_integrity").waiting == 0; }, 30));
    EXPECT_TRUE(Logs("WARN Path to be watched is not there, it is waited for.", "path=" + late + "]"));
    umount2((tree_ + "/mount").c_str(), MNT_DETACH);
}

// Digests of files above the limit would hold the pool up, and one under way the stop.
TEST_F(FeatureRecordsTest, DigestsKeepToTheirLimitAndNeverHoldAStop)
{
    const std::string watch = "watch=" + tree_ + ";recursive\ndigest_max_bytes=";
    SetPolicy("file_integrity", watch + "5");
    Write(tree_ + "/large", "larger");
    Write(tree_ + "/small", "small");
    Write(tree_ + "/beside", "other");
    fs::rename(tree_ + "/beside", tree_ + "/replaced");  // as an installer does it
    const auto hasDigest = [&](const std::string& name) {
        return Logs("INFO File digest.[", " path=" + tree_ + name + "]");
    };
    EXPECT_TRUE(Eventually([&] { return hasDigest("/small") && hasDigest("/replaced"); }));
    EXPECT_TRUE(Eventually([&] { return Logs("File has no digest.[action=digest fault=\"too large\"", "/large]"); }));
    Write(tree_ + "/small", "again");
    EXPECT_TRUE(Eventually([&] { return Logs("sha256=" + kAgain, "/small]"); })) << "one digest for ever";
    SetPolicy("file_integrity", watch + "1099511627776");
    Write(tree_ + "/endless", "");
    ASSERT_EQ(truncate((tree_ + "/endless").c_str(), std::int64_t{1} << 40), 0);  // some minutes of reading
    chmod((tree_ + "/endless").c_str(), 0640);
    Write(tree_ + "/other", "");
    const auto digesting = [] {
        return std::ranges::any_of(fs::directory_iterator("/proc/self/task"),
                                   [](const auto& task) { return Read(task.path() / "comm") == "T-file-digest\n"; });
    };
    EXPECT_TRUE(Eventually(digesting));
    manager_.UpdateModulePolicy({});
    EXPECT_FALSE(hasDigest("/endless"));
}

// Each round that left a thread, a watch, a descriptor or memory behind would end an agent that lives for years.
TEST_F(FeaturesTest, RoundsOfPoliciesUnderLoadLeaveNothing)
{
    const auto policies = [this](const std::string& events) {
        return Policies{{"process_watch", {true, "events=" + events + "\nexclude=*none*", ""}},
                        {"file_integrity", {true, "watch=" + tree_ + ";recursive;exclude=" + events, ""}},
                        {"file_access", {true, "guard=" + guarded_ + ";events=open\n#" + events, ""}}};
    };
    std::jthread load([this](const std::stop_token& stop) {
        for (int i = 0; !stop.stop_requested(); ++i) {
            Write(tree_ + "/" + std::to_string(i % 50), std::to_string(i));
            Wait(Fork([this] { return open(guarded_.c_str(), O_RDONLY) < 0 ? 1 : 0; }));
        }
    });
    manager_.UpdateModulePolicy(policies("start"));
    const char* const features[] = {"process_watch", "file_integrity", "file_access"};
    for (const char* feature : features) {
        ASSERT_TRUE(Eventually([feature] { return Seen(feature) > 0; })) << feature;
    }
    const auto rounds = [&](int count) {
        for (int round = 0; round < count; ++round) {
            manager_.UpdateModulePolicy(policies("start"));
            manager_.UpdateModulePolicy(policies(round % 2 == 0 ? "end" : "start"));
            manager_.UpdateModulePolicy({});
            if (round % 10 == 0) {
                manager_.DestroyModule(round % 20 == 0 ? "file_integrity" : "process_watch");
            }
        }
    };
    rounds(40);
    const Held before;
    rounds(40);
    Held after;
    auto heap = before.heap;
    for (int more = 0; more < 2 && after.heap > heap + 800; ++more) {  // a leak grows each time, a cache does not
        heap = after.heap;
        rounds(40);
        after = Held();
    }
    EXPECT_LE(after.descriptors, before.descriptors + 1);  // the load's own
    EXPECT_LE(after.threads, before.threads + 2);          // the pool's workers
    EXPECT_EQ(after.watches, before.watches);
    EXPECT_LE(after.heap, heap + 800);  // 7 bytes a start
    const std::uint64_t seen = Seen("file_integrity");
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_EQ(Seen("file_integrity"), seen);
    manager_.UpdateModulePolicy(policies("end"));
    EXPECT_TRUE(Eventually([&] { return Seen("file_integrity") > seen; }));
    load.request_stop();
    load.join();
    std::ranges::for_each(features, [this](const char* feature) { manager_.DestroyModule(feature); });
    EXPECT_FALSE(Contains(Read("/proc/self/maps"), dir_.Path()));
}
