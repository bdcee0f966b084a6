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
    }
    std::string StatusOf(const FeatureHost& host) const
    {
        const auto states = host.GetStates();
        return states.empty() ? "" : states[0].status + " " + states[0].reason;
    }
    std::string ProblemsOf(const FeatureHost& host) const
    {
        Problems problems;
        host.AddProblems(problems);
        std::string all;
        for (const auto& problem : problems.GetList()) {
            all += problem.text + "\n";
        }
        return all;
    }

    const TempDir root_;
    const std::string file_ = root_ / "conf/policies/odd.policy";
    FeatureCounters& counters_ = FeatureCounters::Of("odd");
};

// What fails must leave the former policy at work, in memory and on the disk; nobody may have to repair it.
TEST_F(FeatureHostTest, AFailedPolicyIsUndone)
{
    FeatureHost host(root_.Path());
    host.Start();
    EXPECT_EQ(ProblemsOf(host), "");  // a new install has no policies yet
    EXPECT_EQ(host.Apply("nobody", true, "x").result, kCommandUnknown);
    EXPECT_EQ(host.Apply("odd", true, "fail").result, kCommandRefused);
    EXPECT_EQ(StatusOf(host), "off ");
    EXPECT_EQ(host.Apply("odd", true, "first").result, kCommandDone);
    EXPECT_EQ(Read(file_), "enable=on\nfirst");
    const auto outcome = host.Apply("odd", true, "lost fail");
    EXPECT_EQ(outcome.result, kCommandRefused);
    EXPECT_TRUE(Contains(outcome.reason, "It fails as told.")) << outcome.reason;
    EXPECT_EQ(StatusOf(host), "started ");
    EXPECT_EQ(counters_.lost, 0U);  // the former policy has been started again
    EXPECT_EQ(Read(file_), "enable=on\nfirst");
    EXPECT_EQ(host.Apply("odd", false, std::nullopt).result, kCommandDone);
    EXPECT_EQ(Read(file_), "enable=off\nfirst");
    EXPECT_EQ(StatusOf(host), "off ");
    host.Stop();
}

TEST_F(FeatureHostTest, TheSamePolicyAgainMendsWhatIsNotAsWanted)
{
    FeatureHost host(root_.Path());
    host.Start();
    const auto starts = [this] { return counters_.seen.load(); };
    EXPECT_EQ(host.Apply("odd", true, "lacking").result, kCommandDone);
    const auto first = starts();
    EXPECT_EQ(host.Apply("odd", true, "lacking").result, kCommandDone);
    EXPECT_EQ(starts(), first + 1);
    host.Reload();
    EXPECT_EQ(starts(), first + 2);
    counters_.lacking = 0;
    EXPECT_EQ(host.Apply("odd", true, "lacking").result, kCommandDone);
    EXPECT_EQ(starts(), first + 2);  // it is as wanted: no gap
    EXPECT_EQ(host.Apply("odd", true, "waiting").result, kCommandDone);
    EXPECT_EQ(StatusOf(host), "waiting ");
    host.Reload();
    EXPECT_EQ(starts(), first + 4);
    counters_.watches = 1;  // one of several paths is there
    EXPECT_EQ(StatusOf(host), "started ");
    counters_.watches = 0;
    host.Stop();
}

// The file is the administrator's as much as the server's.
TEST_F(FeatureHostTest, AnEditedFileIsNotOverwrittenByOn)
{
    FeatureHost host(root_.Path());
    host.Start();
    EXPECT_EQ(host.Apply("odd", true, "old").result, kCommandDone);
    Write(file_, "enable=off\nlacking");
    EXPECT_EQ(host.Apply("odd", true, std::nullopt).result, kCommandDone);
    EXPECT_EQ(Read(file_), "enable=on\nlacking");
    EXPECT_EQ(counters_.lacking, 2U);
    Write(file_, "enabled\nmine");
    EXPECT_EQ(host.Apply("odd", true, std::nullopt).result, kCommandRefused);
    EXPECT_EQ(host.Apply("odd", false, std::nullopt).result, kCommandDone);
    EXPECT_EQ(Read(file_), "enabled\nmine");
    EXPECT_EQ(host.Apply("odd", true, "new").result, kCommandDone);
    EXPECT_EQ(Read(file_), "enable=on\nnew");
    fs::remove_all(root_ / "conf/policies");
    Write(root_ / "conf/policies", "no directory");
    EXPECT_EQ(host.Apply("odd", false, std::nullopt).result, kCommandFailed);
    EXPECT_TRUE(Contains(ProblemsOf(host), "policy of odd is not kept for the next start: "));
    fs::remove(root_ / "conf/policies");
    fs::create_directory(root_ / "conf/policies");
    EXPECT_EQ(host.Apply("odd", false, "new").result, kCommandDone);
    EXPECT_EQ(ProblemsOf(host), "");
    host.Stop();
}

// A kept policy that fails is known with its reason, and a reload mends it.
TEST_F(FeatureHostTest, KeptPoliciesTellWhatIsWrongWithThem)
{
    fs::create_directory(root_ / "conf/policies");
    Write(file_, "enable=on\nfail");
    Write(root_ / "conf/policies/a b.policy", "enable=on\n");
    Write(root_ / "conf/policies/zero.policy", std::string("enable=on\nx\0y", 13));
    FeatureHost host(root_.Path());
    host.Start();
    const std::string all = ProblemsOf(host);
    for (const std::string piece :
         {"policy a b.policy cannot be used: its name is not made of",
          "policy zero.policy cannot be used: holds a zero", "feature odd has failed: It fails as told."}) {
        EXPECT_TRUE(Contains(all, piece)) << all;
    }
    Write(file_, "enable=on\n");
    fs::remove(root_ / "conf/policies/a b.policy");
    fs::remove(root_ / "conf/policies/zero.policy");
    host.Reload();
    EXPECT_EQ(ProblemsOf(host), "");
    EXPECT_EQ(StatusOf(host), "started ");
    const auto starts = counters_.seen.load();
    host.Reload();
    EXPECT_EQ(counters_.seen.load(), starts);  // nothing has changed
    host.Stop();
}

// One problem at a time: each must be seen by itself, and be gone with its cause.
TEST_F(FeatureHostTest, EachProblemOfTheStatusIsTold)
{
    ASSERT_EQ(InitHipsGuard(1 << 30, 0, 10000), 0);
    FeatureHost host(root_.Path());
    ServerLink server;
    TaskManager tasks;
    Status status(host, server, tasks);
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
    host.Start();
    ASSERT_EQ(host.Apply("odd", true, "x").result, kCommandDone);
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
    host.Stop();
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
