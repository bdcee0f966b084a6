// The feature process_watch with real programs, as an agent loads it.
#include <sched.h>
#include <sys/stat.h>

#include <mutex>
#include <set>
#include <variant>

#include "feature_counters.h"
#include "hips_guard.h"
#include "module_manager.h"
#include "tests/features/driver.h"
#include "thread_pool.h"

namespace {

// A job: runs a program to its end, and gives the id that it had.
Job Program(const std::string& path, const Strings& args)
{
    return [=] {
        const pid_t pid = Fork([&] { return Execute(path, args); });
        Wait(pid);
        return pid;
    };
}

pid_t RunInPidNamespace()
{
    int ends[2] = {};
    pid_t pid = 0;
    const bool ready = pipe(ends) == 0;
    Wait(Fork([&] {
        const bool apart = ready && unshare(CLONE_NEWPID) == 0;
        const pid_t child = Fork([] { return Execute("/bin/true", {"true", "apart"}); });
        Wait(child);
        return apart && write(ends[1], &child, sizeof(child)) > 0 ? 0 : 1;
    }));
    return ready && read(ends[0], &pid, sizeof(pid)) > 0 ? pid : 0;
}

pid_t RunMany(int count)
{
    for (int i = 0; i < count; ++i) {
        Program("/bin/true", {"true", "many"})();
    }
    return 0;
}

struct ProcessWatchTest : testing::Test {
    ProcessWatchTest()
    {
        fs::copy_file(FEATURE_DIR "libprocess_watch.so", dir_ / "libprocess_watch.so");
        chmod((dir_ / "libprocess_watch.so").c_str(), 0755);
        chmod(dir_.Path().c_str(), 0755);
    }
    ~ProcessWatchTest() override
    {
        manager_.StopAndDeinitAllModule();
        ThreadPool::GetInstance().Stop();
        UninitHipsGuard();
    }
    void SetUp() override
    {
        if (geteuid() != 0) {
            GTEST_SKIP() << "trace programs and the process connector need rights";
        }
    }

    bool Start(const std::string& policy)
    {
        InitHipsGuard(0, 0, 0);
        ThreadPool::GetInstance().Start(1, 3);
        manager_.SetModulePrefix(dir_ / "");
        return SetPolicy(policy);
    }
    bool SetPolicy(const std::string& policy)
    {
        manager_.UpdateModulePolicy({{"process_watch", {true, policy, ""}}});
        return manager_.IsRunable("process_watch");
    }

    // All that was logged of a process, of one kind of event.
    Strings Of(const std::string& event, pid_t pid) const
    {
        Strings found;
        for (const std::string& line : records_.Lines()) {
            if (Contains(line, "INFO Process " + event + ".[pid=" + std::to_string(pid) + " ")) {
                found.push_back(line);
            }
        }
        return found;
    }
    bool Ended(pid_t pid) const
    {
        return Eventually([&] { return Of("exited", pid).size() + Of("killed", pid).size() > 0; });
    }
    std::string Detail(const std::string& name) const
    {
        const auto details = counters_.GetDetails();
        const auto found = details.find(name);
        if (found == details.end()) {
            return {};
        }
        const auto* text = std::get_if<std::string>(&found->second);
        return text != nullptr ? *text : std::to_string(std::get<std::uint64_t>(found->second));
    }

    const TempDir dir_;
    const Records records_;
    const FeatureCounters& counters_ = FeatureCounters::Of("process_watch");
    Manager::ModuleManager manager_;
};

}  // namespace

// Each is over before anybody could look at it in /proc.
TEST_F(ProcessWatchTest, TellsEachShortProgramOnceWithWhatItWas)
{
    const std::string copy = dir_ / "copy";
    const std::string script = dir_ / "script";
    fs::copy_file("/bin/true", copy);
    Write(script, "#!/bin/sh -e\nexit 4\n");
    ASSERT_EQ(chown(copy.c_str(), 65534, 65534) + chmod(copy.c_str(), 06755) + chmod(script.c_str(), 0755), 0);
    const struct {
        const char* name;
        Job job;
        Strings pieces;
        std::string end = " exitCode=0 ";
    } rows[] = {
        {"odd bytes",
         Program("/bin/true", {"true", "", "\"a\nb", "\xff"}),
         {"exe=/bin/true parentExe=", R"( args=["true","","\"a\nb","\ufffd"] )", "cmdLine=true  \"a?b ?]"}},
        {"set-user-id",
         Program(copy, {"copy"}),
         {" user=root ", " effectiveUser=nobody ", "notes=set-user-id,set-group-id "}},
        {"script",
         Program(script, {"x", "y"}),
         {" exe=/bin/sh script=" + script, "cmdLine=/bin/sh -e " + script + " y]"},
         " exitCode=4 "},
        {"killed",
         Program("/bin/sh", {"sh", "-c", "kill -9 $$"}),
         {"args=[\"sh\",\"-c\",\"kill -9 $$\"]"},
         " signal=9 "},
        {"another namespace", &RunInPidNamespace, {"exe=/bin/true ", "notes=pid-namespace ", "cmdLine=true apart]"}},
    };
    std::vector<Job> jobs;
    for (const auto& row : rows) {
        jobs.push_back(row.job);
    }
    const Driver driver(jobs);
    ASSERT_TRUE(Start("source=trace"));
    EXPECT_EQ(Detail("source"), "trace");
    for (std::size_t i = 0; i < jobs.size(); ++i) {
        const auto& row = rows[i];
        const pid_t pid = driver.Do(i);
        ASSERT_TRUE(Ended(pid)) << row.name;
        const Strings starts = Of("executed", pid);
        const Strings ends = row.end == " signal=9 " ? Of("killed", pid) : Of("exited", pid);
        ASSERT_TRUE(starts.size() == 1 && ends.size() == 1) << row.name << " " << starts.size();
        for (const std::string& piece : row.pieces) {
            EXPECT_TRUE(Contains(starts[0], piece)) << row.name << ": " << piece << "\n" << starts[0].substr(0, 600);
        }
        const bool isApart = row.job.target<pid_t (*)()>() != nullptr;
        EXPECT_EQ(Contains(starts[0], " ppid=" + std::to_string(driver.pid) + " "), !isApart) << row.name;
        EXPECT_TRUE(Contains(ends[0], row.end) && Contains(ends[0], " duration=")) << row.name << ends[0];
        const auto startTime = [](const std::string& record) { return record.substr(record.find(" startTime="), 20); };
        EXPECT_EQ(startTime(starts[0]), startTime(ends[0])) << row.name;
        const std::string free = starts[0].substr(starts[0].find(" cmdLine="));
        EXPECT_TRUE(ends[0].ends_with(free)) << row.name;
    }
}

// What was lost is known by number and kind, and what goes on to run is known again afterwards.
TEST_F(ProcessWatchTest, CountsWhatItLosesAndLearnsWhatRunsSince)
{
    constexpr int kPrograms = 1500;
    pid_t sleeper = 0;  // as the driver has it
    const Driver driver({Program("/bin/true", {"true", "first"}), [] { return RunMany(kPrograms); },
                         [&] { return sleeper = Fork([] {
                                          return Execute("/bin/sleep", {"sleep", "600"});
                                      }); },
                         [&] {
                             Kill(sleeper);
                             return sleeper;
                         }});
    ASSERT_TRUE(Start("source=trace\nring_bytes=65536\nrepeats=0"));
    std::mutex held;
    held.lock();
    MessageBus::Subscribe(kNormalLog, "test-hold", [&held](const NENormalLog& record) {
        if (Contains(record.content, "cmdLine=true first")) {
            const std::lock_guard<std::mutex> wait(held);
        }
    });
    driver.Do(0);
    driver.Do(1);
    const pid_t sleeping = driver.Do(2);
    EXPECT_TRUE(Eventually([&] { return Read("/proc/" + std::to_string(sleeping) + "/comm") == "sleep\n"; }));
    MessageBus::Unsubscribe(kNormalLog, "test-hold");
    held.unlock();
    const auto lost = [this] { return std::stoull("0" + Detail("lostExecs")); };
    const std::string mine = " ppid=" + std::to_string(driver.pid) + " ";
    const auto told = [&] {
        return static_cast<std::uint64_t>(std::ranges::count_if(records_.Lines(), [&](const std::string& line) {
            return Contains(line, "Process executed.") && Contains(line, mine) && line.ends_with("true many]");
        }));
    };
    EXPECT_TRUE(Eventually([&] { return lost() > 0 && told() + lost() >= kPrograms; })) << told() << " " << lost();
    EXPECT_LT(told(), kPrograms);
    EXPECT_EQ(counters_.lost, lost() + std::stoull(Detail("lostForks")) + std::stoull(Detail("lostExits")));
    EXPECT_EQ(Detail("recursionMisses"), "0");
    ASSERT_TRUE(Eventually([&] { return records_.CountWith("WARN Process events were lost.[forks=") > 0; }));
    EXPECT_TRUE(Ended(driver.Do(0)));  // the table was made anew before this is told
    EXPECT_EQ(Of("executed", sleeping).size(), 0U);
    driver.Do(3);
    ASSERT_TRUE(Ended(sleeping));
    EXPECT_TRUE(Of("killed", sleeping)[0].ends_with(" cmdLine=sleep 600]")) << Of("killed", sleeping)[0];
}

// Each of the sources, each change between them, and each stop, while programs come and go. An agent that stops is
// often what somebody wants to hide something from.
TEST_F(ProcessWatchTest, TellsEverythingOnceWhilePoliciesChangeAndStop)
{
    const Driver driver({[] { return RunMany(20); }, Program("/bin/sleep", {"sleep", "0.1"})});
    const std::uint64_t lostBefore = counters_.lost;
    for (const std::string source : {"trace", "connector", "auto"}) {
        ASSERT_TRUE(Start("source=" + source));
        EXPECT_EQ(Detail("source"), source == "connector" ? "connector" : "trace");
        std::jthread load([&](const std::stop_token& stop) {
            while (!stop.stop_requested()) {
                driver.Do(0);
            }
        });
        for (int i = 0; i < 5; ++i) {
            ASSERT_TRUE(SetPolicy("repeats=0\nwake_ms=1\nsource=" + source + "\n#" + std::to_string(i)));
        }
        load.request_stop();
        load.join();
        ASSERT_TRUE(SetPolicy("repeats=0\nwake_ms=1000\nsource=" + source));
        driver.Do(0);
        const pid_t pid = driver.Do(1);
        manager_.UpdateModulePolicy({});
        EXPECT_EQ(Of("executed", pid).size(), 1U) << source;
        EXPECT_TRUE(Of("exited", pid).size() == 1 && Of("exited", pid)[0].ends_with(" cmdLine=sleep 0.1]")) << source;
        EXPECT_EQ(Detail("source"), "none");
    }
    std::set<std::string> seen;
    for (const std::string& line : records_.Lines()) {
        const std::string event = line.substr(0, line.find(" ppid="));
        const std::size_t start = line.find(" startTime=");
        if (start != std::string::npos) {
            EXPECT_TRUE(seen.insert(event + line.substr(start, 20) + line.substr(line.rfind('='))).second) << line;
        }
    }
    EXPECT_EQ(counters_.lost, lostBefore);
}
