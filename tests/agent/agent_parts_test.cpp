// Parts of the agent that need no process of their own: what takes plain events and a clock, files and modules.
#include <optional>

#include "agent/agent_config.h"
#include "agent/answer_watch.h"
#include "agent/feature_host.h"
#include "agent/last_run.h"
#include "agent/retry_plan.h"
#include "agent/self_check.h"
#include "agent/server_link.h"
#include "agent/status.h"
#include "agent/status_text.h"
#include "feature_counters.h"
#include "hips_guard.h"
#include "report_queue.h"
#include "socket_comm.h"
#include "tests/support/support.h"

using std::chrono::seconds;

// The delays of a thousand agents must grow, be bounded, be spread, and begin anew after a good connection only.
TEST(RetryPlanTest, WaitsLongerAfterEachFailure)
{
    RetryPlan::Milliseconds most{};
    RetryPlan plan([&most](RetryPlan::Milliseconds spread) {
        most = spread;
        return spread;
    });
    RetryPlan::Time now;
    const auto delay = [&] {  // until the next attempt, in milliseconds
        const auto start = now;
        while (!plan.IsDue(false, now)) {
            now += RetryPlan::Milliseconds(1);
        }
        return (now - start) / RetryPlan::Milliseconds(1);
    };
    EXPECT_EQ(delay(), 0);
    constexpr int kRows[][2] = {{3000, 2000},  {4000, 2000},   {6000, 2000},   {12000, 4000},
                                {24000, 8000}, {48000, 16000}, {90000, 30000}, {90000, 30000}};
    for (const auto& [expected, spread] : kRows) {
        plan.SetResult(false, now);
        EXPECT_EQ(most.count(), spread);
        EXPECT_EQ(delay(), expected);
    }
    plan.SetResult(true, now);
    EXPECT_FALSE(plan.IsDue(true, now += seconds(10)));  // not longer than that: no good one
    EXPECT_FALSE(plan.IsDue(false, now));                // a server that hangs up at once is not hammered
    EXPECT_EQ(delay(), 90000);
    plan.SetResult(true, now);
    EXPECT_FALSE(plan.IsDue(true, now += seconds(11)));
    EXPECT_EQ(delay(), 3000);
}

TEST(AnswerWatchTest, KnowsAServerThatAnswersNoReports)
{
    AnswerWatch watch;
    const AnswerWatch::Time start = AnswerWatch::Time() + seconds(100000);
    const std::tuple<const char*, int, bool, int, int, bool> rows[] = {
        // name, second, up, unanswered, answered, stuck
        {"the first report", 0, true, 1, 0, false},
        {"just before the limit", 59, true, 9, 0, false},
        {"the limit", 60, true, 9, 0, true},
        {"an answer", 61, true, 8, 1, false},
        {"a minute after it", 121, true, 8, 1, true},
        {"nothing to answer", 122, true, 0, 9, false},
        {"idle for long, then a report", 500, true, 1, 9, false},
        {"which is not answered", 560, true, 1, 9, true},
        {"no connection", 561, false, 1, 9, false},
        {"a new one", 700, true, 1, 9, false},
        {"a minute later", 760, true, 1, 9, true}};
    for (const auto& [name, at, isUp, unanswered, answered, isStuck] : rows) {
        EXPECT_EQ(watch.Look(isUp, unanswered, answered, start + seconds(at)), isStuck) << name;
    }
}

struct FeatureHostTest : testing::Test {
    FeatureHostTest()
    {
        for (const char* directory : {"conf", "lib", "lib/features"}) {
            fs::create_directory(root_ / directory);
        }
        fs::copy(ODD_FEATURE_DIR "libodd.so", root_ / "lib/features/libodd.so");
        fs::permissions(root_ / "lib/features/libodd.so", fs::perms(0755));
        host_.Start();
    }
    ~FeatureHostTest() override { host_.Stop(); }
    CommandResult Apply(bool on, const std::optional<std::string>& policy)
    {
        return host_.Apply("odd", on, policy).result;
    }
    std::string StatusOfOdd() const
    {
        const auto states = host_.GetStates();
        return states.empty() ? "" : states[0].status + " " + states[0].reason;
    }
    std::string ProblemsOfHost() const
    {
        Problems problems;
        host_.AddProblems(problems);
        std::string all;
        for (const auto& problem : problems.GetList()) {
            all += problem.text + "\n";
        }
        return all;
    }

    const TempDir root_;
    const std::string file_ = root_ / "conf/policies/odd.policy";
    FeatureCounters& counters_ = FeatureCounters::Of("odd");
    FeatureHost host_{root_.Path()};
};

// What fails must leave the former policy at work, in memory and on the disk; nobody may have to repair it.
TEST_F(FeatureHostTest, AFailedPolicyIsUndone)
{
    EXPECT_EQ(ProblemsOfHost(), "");  // a new install has no policies yet
    EXPECT_EQ(host_.Apply("nobody", true, "x").result, kCommandUnknown);
    EXPECT_EQ(Apply(true, "fail"), kCommandRefused);
    EXPECT_EQ(StatusOfOdd(), "off ");
    EXPECT_EQ(Apply(true, "first"), kCommandDone);
    EXPECT_EQ(Read(file_), "enable=on\nfirst");
    const auto outcome = host_.Apply("odd", true, "lost fail");
    EXPECT_EQ(outcome.result, kCommandRefused);
    EXPECT_TRUE(Contains(outcome.reason, "It fails as told.")) << outcome.reason;
    EXPECT_EQ(StatusOfOdd(), "started ");
    EXPECT_EQ(counters_.lost, 0U);  // the former policy has been started again
    EXPECT_EQ(Read(file_), "enable=on\nfirst");
    EXPECT_EQ(Apply(false, std::nullopt), kCommandDone);
    EXPECT_EQ(Read(file_), "enable=off\nfirst");
    EXPECT_EQ(StatusOfOdd(), "off ");
}

TEST_F(FeatureHostTest, TheSamePolicyAgainMendsWhatIsNotAsWanted)
{
    const auto starts = [this] { return counters_.seen.load(); };
    EXPECT_EQ(Apply(true, "lacking"), kCommandDone);
    const auto first = starts();
    EXPECT_EQ(Apply(true, "lacking"), kCommandDone);
    EXPECT_EQ(starts(), first + 1);
    host_.Reload();
    EXPECT_EQ(starts(), first + 2);
    counters_.lacking = 0;
    EXPECT_EQ(Apply(true, "lacking"), kCommandDone);
    host_.Reload();
    EXPECT_EQ(starts(), first + 2);  // it is as wanted: no gap
    EXPECT_EQ(Apply(true, "waiting"), kCommandDone);
    EXPECT_EQ(StatusOfOdd(), "waiting ");
    host_.Reload();
    EXPECT_EQ(starts(), first + 4);
    counters_.watches = 1;  // one of several paths is there
    EXPECT_EQ(StatusOfOdd(), "started ");
    counters_.watches = 0;
}

// The file is the administrator's as much as the server's.
TEST_F(FeatureHostTest, AnEditedFileIsNotOverwrittenByOn)
{
    EXPECT_EQ(Apply(true, "old"), kCommandDone);
    Write(file_, "enable=off\nlacking");
    EXPECT_EQ(Apply(true, std::nullopt), kCommandDone);
    EXPECT_EQ(Read(file_), "enable=on\nlacking");
    EXPECT_EQ(counters_.lacking, 2U);
    Write(file_, "enabled\nmine");
    EXPECT_EQ(Apply(true, std::nullopt), kCommandRefused);
    EXPECT_EQ(Apply(false, std::nullopt), kCommandDone);
    EXPECT_EQ(Read(file_), "enabled\nmine");
    EXPECT_EQ(Apply(true, "new"), kCommandDone);
    EXPECT_EQ(Read(file_), "enable=on\nnew");
    Write(file_, "enabled\nmine");
    host_.Reload();
    EXPECT_TRUE(Contains(ProblemsOfHost(), "policy odd.policy cannot be used: does not begin with enable=on or"));
    Write(file_, "enable=on\nnew");
    host_.Reload();
    EXPECT_EQ(ProblemsOfHost(), "");
    fs::remove_all(root_ / "conf/policies");
    Write(root_ / "conf/policies", "no directory");
    EXPECT_EQ(Apply(false, std::nullopt), kCommandFailed);
    EXPECT_TRUE(Contains(ProblemsOfHost(), "policy of odd is not kept for the next start: "));
    fs::remove(root_ / "conf/policies");
    fs::create_directory(root_ / "conf/policies");
    EXPECT_EQ(Apply(false, "new"), kCommandDone);
    EXPECT_EQ(ProblemsOfHost(), "");
}

// One problem at a time: each must be seen by itself, and be gone with its cause.
TEST_F(FeatureHostTest, EachProblemOfTheStatusIsTold)
{
    ASSERT_EQ(InitHipsGuard(1 << 30, 0, 10000), 0);
    ServerLink server;
    TaskManager tasks;
    Status status(host_, server, tasks);
    using Action = std::function<void()>;
    const auto limits = [&status](const UseLimits& of) { return [&status, of] { status.SetLimits(of); }; };
    const std::tuple<const char*, Action, Action> rows[] = {
        {"feature odd cannot watch 2 of what its policy names", [&] { counters_.lacking = 2; },
         [&] { counters_.lacking = 0; }},
        {"feature odd waits for paths that are not there: 3", [&] { counters_.waiting = 3; },
         [&] { counters_.waiting = 0; }},
        {"memory is above GUARD_MEMORY_KIB", limits({1, 0, 0}), limits({})},
        {"descriptors are above GUARD_DESCRIPTORS", limits({0, 0, 1}), limits({})},
        {"of mine", [&] { status.SetProblem("mine", "of mine"); }, [&] { status.SetProblem("mine", ""); }},
    };
    ASSERT_EQ(Apply(true, "x"), kCommandDone);
    for (const auto& [text, begin, end] : rows) {
        begin();
        const auto problems = status.FindProblems();
        ASSERT_EQ(problems.GetList().size(), 1U) << text;
        EXPECT_TRUE(Contains(problems.GetList()[0].text, text));
        EXPECT_TRUE(Contains(status.ToJson(), "\"well\":false"));
        end();
        EXPECT_TRUE(status.FindProblems().GetList().empty());
    }
    counters_.lost = 7;
    counters_.overflows = 1;
    std::string text;
    EXPECT_EQ(StatusText(status.ToJson(), text), kNotWell);
    EXPECT_TRUE(Contains(text, "feature odd has lost 7 events\n"));
    EXPECT_TRUE(Contains(text, "feature odd has lost an unknown number of events 1 times\n"));
    EXPECT_EQ(StatusText("{\"well\":true}", text), kNoStatus);
    Records records;  // each problem is logged and reported once when it begins and once when it ends
    auto& queue = ReportQueue::GetInstance();
    ASSERT_TRUE(queue.Start(std::make_shared<SocketComm>(), 100, 100000));
    SelfCheck check(status);
    check.Check();
    check.Check();
    counters_.lost = 0;
    const auto pushed = queue.GetAccount().pushed;
    check.Check();
    EXPECT_EQ(queue.GetAccount().pushed, pushed + 1);
    queue.Stop();
    EXPECT_EQ(records.Count("WARN Problem has begun.[problem=feature odd has lost 7 events]"), 1);
    EXPECT_EQ(records.Count("INFO Problem is over.[problem=feature odd has lost 7 events]"), 1);
    UninitHipsGuard();
}

TEST(AgentConfigTest, StatusAndGuardUseTheSameLimits)
{
    const std::tuple<unsigned int, unsigned int, const char*, long, double> rows[] = {
        {1000, 7, "", 1000, 7}, {1000, 0, "", 66560, 5}, {0, 7, "broker", 66560, 5}, {1000, 7, "broker", 1000, 3.5}};
    for (const auto& [memory, cpu, role, memoryLimit, cpuLimit] : rows) {
        AgentConfig config;
        config.memoryLimitKiB = memory;
        config.cpuLimitPercent = cpu;
        config.shared["TrivaneRole"] = role;
        const UseLimits limits = LimitsOf(config);
        EXPECT_EQ(limits.memoryKiB, memoryLimit);
        EXPECT_EQ(limits.cpuPercent, cpuLimit);
    }
}

// What the next start reads must say what happened, whatever a full disk or a crash has left there.
TEST(LastRunTest, SaysHowTheLastRunEnded)
{
    const TempDir root;
    fs::create_directory(root / "conf");
    const std::string file = root / "conf/agent.run";
    const auto next = [&root] {
        LastRun run(root.Path());
        run.Begin();
        return run.GetFault();
    };
    EXPECT_EQ(next(), "");
    EXPECT_TRUE(Contains(next(), "was killed, or the host went down"));
    Write(file, "");
    EXPECT_TRUE(Contains(next(), "was killed, or the host went down"));
    LastRun run(root.Path());
    run.Begin();
    run.Note(LastRun::kCrashed, SIGBUS);
    run.Note(LastRun::kStopping);  // the frame stops what it can
    run.End();
    EXPECT_TRUE(Contains(next(), "crashed by signal " + std::to_string(SIGBUS) + ", report "));
    LastRun hung(root.Path());
    hung.Begin();
    hung.Note(LastRun::kHung);
    hung.Note(LastRun::kStopping);
    EXPECT_TRUE(Contains(next(), "a thread hung"));
    LastRun stopped(root.Path());
    stopped.Begin();
    stopped.Note(LastRun::kStopping);
    fs::rename(root / "conf", root / "aside");  // its own file is meant, not the path
    fs::create_directory(root / "conf");
    Write(file, "another");
    stopped.End();
    EXPECT_TRUE(fs::exists(file) && !fs::exists(root / "aside/agent.run"));
}
