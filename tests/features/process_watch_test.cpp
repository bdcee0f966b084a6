// The feature process_watch with real programs, as an agent loads it.
#include <mutex>
#include <set>
#include <variant>

#include "tests/features/driver.h"
#include "tests/features/features_fixture.h"

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

pid_t RunMany(int count)
{
    for (int i = 0; i < count; ++i) {
        Program("/bin/true", {"true", "many"})();
    }
    return 0;
}

struct ProcessWatchTest : FeaturesFixture {
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
    std::uint64_t Number(const std::string& name) const
    {
        const auto details = counters_.GetDetails();
        const auto found = details.find(name);
        return found == details.end() ? 0 : std::get<std::uint64_t>(found->second);
    }
    std::string Source() const { return std::get<std::string>(counters_.GetDetails().at("source")); }

    const Records records_;
    const FeatureCounters& counters_ = FeatureCounters::Of("process_watch");
};

}  // namespace

// What was lost is known by number and kind, and what goes on to run is known again afterwards.
TEST_F(ProcessWatchTest, CountsWhatItLosesAndLearnsWhatRunsSince)
{
    pid_t sleeper = 0;  // as the driver has it
    const Driver driver({Program("/bin/true", {"true", "first"}), [] { return RunMany(1500); },
                         [&] { return sleeper = Fork([] {
                                          return Execute("/bin/sleep", {"sleep", "600"});
                                      }); },
                         [&] { return Kill(sleeper); }});
    Begin();
    ASSERT_TRUE(SetPolicy("process_watch", "source=trace\nring_bytes=65536\nrepeats=0"));
    const std::uint64_t before = Number("lostExecs");
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
    EXPECT_TRUE(Eventually([&] {
        return Number("lostExecs") > before &&
               counters_.lost == Number("lostForks") + Number("lostExecs") + Number("lostExits");
    }));
    EXPECT_EQ(Number("recursionMisses"), 0U);
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
    Begin();
    const std::uint64_t lostBefore = counters_.lost;
    for (const std::string source : {"trace", "connector", "auto"}) {
        const std::string policy = "repeats=0\nsource=" + source + "\nwake_ms=";
        ASSERT_TRUE(SetPolicy("process_watch", policy + "20"));
        EXPECT_EQ(Source(), source == "connector" ? "connector" : "trace");
        std::jthread load([&](const std::stop_token& stop) {
            while (!stop.stop_requested()) {
                driver.Do(0);
            }
        });
        for (int i = 0; i < 5; ++i) {
            ASSERT_TRUE(SetPolicy("process_watch", policy + "1\n#" + std::to_string(i)));
        }
        load.request_stop();
        load.join();
        ASSERT_TRUE(SetPolicy("process_watch", policy + "1000"));
        driver.Do(0);
        const std::string whose = " ppid=" + std::to_string(driver.pid) + " user=root ";
        const pid_t pid = driver.Do(1);
        manager_.UpdateModulePolicy({});
        EXPECT_EQ(Source(), "none");
        const Strings starts = Of("executed", pid);
        const Strings ends = Of("exited", pid);
        ASSERT_TRUE(starts.size() == 1 && ends.size() == 1) << source << starts.size() << ends.size();
        const std::size_t what = starts[0].find(" startTime=");
        EXPECT_TRUE(Contains(starts[0], whose) && Contains(starts[0], "bin/sleep parentExe=/")) << starts[0];
        EXPECT_TRUE(Contains(ends[0], whose + "exitCode=0 duration=")) << ends[0];
        EXPECT_TRUE(Contains(ends[0], starts[0].substr(what, starts[0].find(" time=") - what))) << ends[0];
        EXPECT_TRUE(ends[0].ends_with(" cmdLine=sleep 0.1]")) << ends[0];
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
