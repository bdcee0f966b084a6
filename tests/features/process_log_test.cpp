#include "features/process_log.h"

#include <regex>

#include "features/event.h"
#include "process_monitor.h"
#include "tests/support/support.h"
#include "util/clock.h"

namespace {

constexpr int kGone = 5000000;  // above every id that the kernel gives
constexpr unsigned int kKill = SIGKILL;

// Feeds events as the kernel sends them; gives what was logged of them, without the times.
struct Feed {
    explicit Feed(const ProcessLogSettings& settings = {}) : log(settings) {}

    proc_event Make(std::uint32_t kind)
    {
        proc_event event = {};
        event.what = static_cast<decltype(event.what)>(kind);
        event.timestamp_ns = static_cast<std::uint64_t>(Clock::MonotonicNs() - ageMs * Clock::kNsPerMs);
        return event;
    }
    void Fork(int parent, int pid, int thread = 0)
    {
        proc_event event = Make(kForkEvent);
        event.event_data.fork = {parent, parent, thread == 0 ? pid : thread, pid};
        log.Handle(event);
    }
    void Exec(int pid)
    {
        proc_event event = Make(kExecEvent);
        event.event_data.exec = {pid, pid};
        log.Handle(event);
    }
    void Exit(int pid, unsigned int status, int thread = 0)
    {
        proc_event event = Make(kExitEvent);
        event.event_data.exit.process_pid = thread == 0 ? pid : thread;
        event.event_data.exit.process_tgid = pid;
        event.event_data.exit.exit_code = status;
        log.Handle(event);
    }
    void SetUser(int pid, unsigned int uid)
    {
        proc_event event = Make(kUidEvent);
        event.event_data.id.process_pid = event.event_data.id.process_tgid = pid;
        event.event_data.id.r.ruid = uid;
        log.Handle(event);
    }
    Strings Lines() const
    {
        Strings lines;
        for (const std::string& line : records.Lines()) {
            lines.push_back(std::regex_replace(line.substr(5), std::regex(" time=[^ ]*"), ""));
        }
        return lines;
    }

    Records records;
    ProcessLog log;
    std::int64_t ageMs = 0;
};

}  // namespace

// Of what ends, nothing can be asked any more: what is logged is what was remembered.
TEST(ProcessLogTest, RemembersWhatAProcessWas)
{
    const std::string unread = " cmdLine=(ended before it could be read)]";
    const std::string who = "[pid=5000001 ppid=5000000 user=";
    const struct {
        const char* name;
        ProcessLogSettings settings;
        std::function<void(Feed&)> events;
        Strings lines;
    } rows[] = {
        {"an end by itself",
         {},
         [](Feed& feed) {
             feed.Fork(kGone, kGone + 1);
             feed.Exit(kGone + 1, 3U << 8U);
         },
         {"Process exited." + who + "? exitCode=3" + unread}},
        {"killed is not exited",
         {},
         [](Feed& feed) {
             feed.Fork(kGone, kGone + 1);
             feed.Exit(kGone + 1, kKill);
         },
         {"Process killed." + who + "? signal=9" + unread}},
        {"users go on to children",
         {},
         [](Feed& feed) {
             feed.Fork(1, kGone);
             feed.SetUser(kGone, 4242);
             feed.Fork(kGone, kGone + 1);
             feed.Exec(kGone + 1);
         },
         {"Process executed." + who + "4242" + unread}},
        {"its last thread ends it, not its first",
         {},
         [](Feed& feed) {
             feed.Fork(kGone, kGone + 1);
             feed.Fork(kGone, kGone + 1, kGone + 9);
             feed.Exit(kGone + 1, 0);
             EXPECT_EQ(feed.Lines(), Strings());
             feed.Exit(kGone + 1, 0, kGone + 9);
             feed.Exit(kGone + 1, 0);  // of an id that is unknown now
         },
         {"Process exited." + who + "? exitCode=0" + unread,
          "Process exited.[pid=5000001 ppid=0 user=? exitCode=0" + unread}},
        {"after a loss the counts of threads are not believed",
         {},
         [](Feed& feed) {
             feed.Fork(kGone, kGone + 1);
             feed.Fork(kGone, kGone + 1, kGone + 9);
             feed.log.DoubtCounts();
             feed.Exit(kGone + 1, 0);  // the other thread's end was lost
         },
         {"Process exited." + who + "? exitCode=0" + unread}},
        {"only starts",
         {true, false, {}, 0},
         [](Feed& feed) {
             feed.Fork(kGone, kGone + 1);
             feed.Exec(kGone + 1);
             feed.Exit(kGone + 1, 0);
             EXPECT_EQ(feed.log.GetLeftOutCount(), 1U);
         },
         {"Process executed." + who + "?" + unread}},
        {"excludes",
         {true, true, {"none", "(ended*"}, 0},
         [](Feed& feed) {
             feed.Exec(kGone + 1);
             feed.Exit(kGone + 1, 0);
             EXPECT_EQ(feed.log.GetLeftOutCount(), 2U);
         },
         {}},
        {"own children and theirs are left out, until their id is somebody else's",
         {},
         [](Feed& feed) {
             feed.Fork(getpid(), kGone);
             feed.Fork(kGone, kGone + 1);
             feed.Exec(kGone + 1);
             feed.Exit(kGone + 1, 0);
             feed.Fork(1, kGone);
             feed.Fork(kGone, kGone + 1);
             feed.Exit(kGone + 1, 0);
         },
         {"Process exited." + who + "? exitCode=0" + unread}},
        {"repeats are summed",
         {true, true, {}, 2},
         [](Feed& feed) {
             for (int i = 1; i <= 7; ++i) {
                 feed.Fork(kGone, kGone + i);
                 feed.Exec(kGone + i);
             }
             feed.log.LogRepeats();
             feed.log.LogRepeats();
         },
         {"Process executed." + who + "?" + unread, "Process executed.[pid=5000002 ppid=5000000 user=?" + unread,
          "Process repeated.[action=executed count=5 ppid=5000000 user=? program=(ended before it could be read)]"}},
    };
    for (const auto& row : rows) {
        Feed feed(row.settings);
        row.events(feed);
        EXPECT_EQ(feed.Lines(), row.lines) << row.name;
    }
}

// Under a flood events are read long after they happened. A time that cannot be right is that of reading.
TEST(ProcessLogTest, CarriesTheKernelsTime)
{
    for (const std::int64_t ageMs : {std::int64_t{39000}, std::int64_t{0}, std::int64_t{-39000}}) {
        Feed feed;
        feed.ageMs = ageMs;
        const std::string earliest = TimeText(Clock::WallMs() - std::max<std::int64_t>(ageMs, 0) - 1);
        feed.Exec(kGone);
        const std::string latest = TimeText(Clock::WallMs() - std::max<std::int64_t>(ageMs, 0) + 1);
        const std::string line = feed.records.Lines()[0];
        const std::string time = line.substr(line.find(" time=") + 6, latest.size());
        EXPECT_TRUE(earliest <= time && time <= latest) << earliest << " " << time << " " << latest;
    }
}

// A thread that began while the process was read ends uncounted: the process would be logged as ended, and once
// more when it does end. Exits that were lost would keep processes for good.
TEST(ProcessLogTest, TellsTheEndOfAProcessOnceAndNotBefore)
{
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const pid_t parent = Fork([&] {  // the test's own children are left out
        const pid_t child = Fork([] { return execlp("sleep", "sl\033[1m\nx", "60", nullptr); });
        const bool sent = write(ends[1], &child, sizeof(child)) == sizeof(child);
        Wait(child);
        return sent ? 0 : 1;
    });
    pid_t pid = 0;
    ASSERT_EQ(read(ends[0], &pid, sizeof(pid)), static_cast<ssize_t>(sizeof(pid)));
    ASSERT_TRUE(Eventually([&] { return Contains(Read("/proc/" + std::to_string(pid) + "/cmdline"), "x"); }));
    Feed feed;
    feed.Fork(kGone, kGone + 1);
    feed.log.LoadRunningProcesses();
    feed.Exit(pid, 0, pid + 1);
    EXPECT_EQ(feed.Lines(), Strings());
    feed.Exec(pid);
    kill(pid, SIGKILL);
    Wait(parent);
    feed.Exit(pid, kKill);
    const std::string who =
        "[pid=" + std::to_string(pid) + " ppid=" + std::to_string(parent) + " user=" + UserName(getuid());
    EXPECT_EQ(feed.Lines(), (Strings{"Process executed." + who + " cmdLine=sl?[1m?x 60]",
                                     "Process killed." + who + " signal=9 cmdLine=sl?[1m?x 60]"}));
    feed.Exit(kGone + 1, 0);
    EXPECT_EQ(feed.Lines()[2].find("Process exited.[pid=5000001 ppid=0 "), 0U) << "forgotten when all were read";
}

// The sums and what is logged one by one add up to what came, whatever the rates.
TEST(RepeatsTest, CountsEachEventOnce)
{
    constexpr std::int64_t kSecond = 1000000000;
    const struct {
        const char* name;
        std::uint64_t limit;
        std::vector<std::pair<std::int64_t, int>> bursts;  // when, how many
        std::vector<int> singles;                          // of each burst
        bool haveOtherNames = false;
    } rows[] = {
        {"no limit", 0, {{0, 500}}, {500}},
        {"up to the limit", 3, {{0, 3}, {kSecond, 3}}, {3, 3}},
        {"above it", 3, {{0, 5}}, {3}},
        {"a flood that goes on is only counted", 3, {{0, 5}, {kSecond, 5}, {2 * kSecond, 5}}, {3, 0, 0}},
        {"until a second brings few", 3, {{0, 5}, {kSecond, 2}, {2 * kSecond, 3}}, {3, 0, 3}},
        {"a pause ends it", 3, {{0, 5}, {2 * kSecond, 3}}, {3, 3}},
        {"within the second", 3, {{0, 2}, {kSecond - 1, 2}}, {2, 1}},
        {"a processor whose clock is behind", 3, {{10, 2}, {0, 2}}, {2, 1}},
        {"other names of one parent",
         3,
         {{0, 35}, {kSecond, 35}, {2 * kSecond, 2}, {3 * kSecond, 30}},
         {30, 0, 0, 30},
         true},
    };
    for (const auto& row : rows) {
        Repeats repeats(row.limit);
        std::uint64_t counted = 0;
        for (std::size_t i = 0; i < row.bursts.size(); ++i) {
            const auto [time, count] = row.bursts[i];
            int singles = 0;
            for (int k = 0; k < count; ++k) {
                singles +=
                    repeats.Admit({kProcessExecuted, 1, row.haveOtherNames ? std::to_string(k) : "", "", 0, time}, time)
                        ? 1
                        : 0;
            }
            EXPECT_EQ(singles, row.singles[i]) << row.name << " " << i;
            counted += static_cast<std::uint64_t>(count - singles);
        }
        std::uint64_t summed = 0;
        for (int take = 0; take < 3; ++take) {  // the later ones find nothing
            for (const Repeats::Sum& sum : repeats.Take()) {
                summed += sum.count;
                EXPECT_EQ(sum.program, row.haveOtherNames ? "(several)" : "");
            }
        }
        EXPECT_EQ(summed, counted) << row.name;
    }
    Repeats apart(1);  // other parents, programs and kinds of events are no repeats
    for (const auto& [event, parent, program] :
         {std::tuple(kProcessExecuted, 1, "p"), std::tuple(kProcessExited, 1, "p"),
          std::tuple(kProcessExecuted, 2, "p"), std::tuple(kProcessExecuted, 1, "q")}) {
        EXPECT_TRUE(apart.Admit({event, parent, program, "", 0, 0}, 0));
    }
    EXPECT_FALSE(apart.Admit({kProcessExecuted, 1, "p", "", 0, 0}, 0));
}
