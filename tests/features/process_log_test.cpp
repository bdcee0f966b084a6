#include "features/process_log.h"

#include <regex>

#include "event_file.h"
#include "process_tracer.h"
#include "tests/features/driver.h"
#include "thread_pool.h"

namespace {

using Record = ProcessRecord;
using Change = std::function<void(Record&)>;

constexpr int kGone = 5000000;  // above every id that the kernel gives
constexpr std::uint64_t kMs = 1000000;

void Keep(Record&) {}

// Feeds records as a tracer hands them over; gives what was logged of them, without the times.
struct Feed {
    explicit Feed(const ProcessLogSettings& settings = {}) : log(settings) {}

    // Of a process that began one second after the boot, and a moment two seconds later.
    static Record Make(Record::Kind kind, int pid)
    {
        Record record;
        record.kind = kind;
        record.whole = true;
        record.wallNs = 1700000000123 * static_cast<std::int64_t>(kMs);
        record.bootNs = 3000 * kMs;
        record.pid = record.tid = pid;
        record.parentPid = kGone;
        record.startNs = 1000 * kMs;
        record.uid = record.euid = 4242;
        return record;
    }
    void Fork(int parent, int pid, std::uint64_t startNs = 1000 * kMs, std::uint64_t parentStartNs = 0)
    {
        Record record = Make(Record::kFork, pid);
        record.parentPid = parent;
        record.startNs = startNs;
        record.parentStartNs = parentStartNs;
        log.Handle(record);
    }
    void Exec(int pid, const Change& change = Keep)
    {
        Record record = Make(Record::kExec, pid);
        record.exe = "/bin/sh";
        record.comm = "sh";
        record.args = {"sh", "-e"};
        change(record);
        log.Handle(record);
    }
    void Exit(int pid, const Change& change = Keep)
    {
        Record record = Make(Record::kExit, pid);
        change(record);
        log.Handle(record);
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
};

const std::string kWho = "[pid=5000001 ppid=5000000 user=4242 ";
const std::string kEnd = "duration=2000 startTime=1000000 ";
const ProcessLogSettings kEnds = {false, true, {}, 100};

}  // namespace

// What one program is told as.
TEST(ProcessLogTest, SaysWhatAProgramIs)
{
    const std::string start = "Process executed." + kWho + "startTime=1000000 ";
    const struct {
        const char* name;
        Change change;
        std::string line;
    } rows[] = {
        {"usual", Keep, "exe=/bin/sh cmdLine=sh -e]"},
        {"arguments that blanks do not tell apart",
         [](Record& r) {
             r.args = {"sh", "-c", "a b", "", "\n\"\xff"};
         },
         R"(exe=/bin/sh args=["sh","-c","a b","","\n\"\ufffd"] cmdLine=sh -c a b  ?"?])"},
        {"more than a record takes",
         [](Record& r) {
             r.args.assign(1000, "x y");
             r.exe = r.script = "/" + std::string(4000, 'd');
         },
         "exe=/" + std::string(511, 'd') + "... script=/" + std::string(511, 'd') +
             "... notes=other-name cmdLine=x y x y x y "},
        {"no arguments", [](Record& r) { r.args.clear(); }, "exe=/bin/sh cmdLine=[sh]]"},
        {"not even a name",
         [](Record& r) {
             r.args = {""};
             r.argCount = 1;
         },
         R"(exe=/bin/sh notes=other-name args=[""] cmdLine=[sh]])"},
        {"a script, by a path that could forge an item",
         [](Record& r) {
             r.script = "/tmp/x exe=/bin/true";
             r.comm = "x exe=/bin/true";
             r.args = {"/bin/sh", "/tmp/x exe=/bin/true"};
         },
         "exe=/bin/sh script=\"/tmp/x exe=/bin/true\" args=[\"/bin/sh\",\"/tmp/x exe=/bin/true\"] "
         "cmdLine=/bin/sh /tmp/x exe=/bin/true]"},
        {"deleted, and begun by a descriptor in another pid namespace",
         [](Record& r) {
             r.exeDeleted = r.foreignPidNs = true;
             r.exe = "/dev/fd/3";
             r.comm = "3";
         },
         "exe=/dev/fd/3 notes=deleted,pid-namespace cmdLine=sh -e]"},
        {"in memory",
         [](Record& r) {
             r.exeDeleted = r.exeInMemory = true;
             r.exe = "/memfd:sh";
         },
         "exe=/memfd:sh notes=in-memory cmdLine=sh -e]"},
        {"a login shell", [](Record& r) { r.args[0] = "-sh"; }, "exe=/bin/sh cmdLine=-sh -e]"},
        {"by a link, of which only the name is left", [](Record& r) { r.exe = "/usr/bin/dash"; },
         "exe=/usr/bin/dash cmdLine=sh -e]"},
        {"by a descriptor",
         [](Record& r) {
             r.exe = "/opt/program";
             r.exeGiven = "/dev/fd/sh";
             r.comm = "3";
         },
         "exe=/opt/program cmdLine=sh -e]"},
        {"cut arguments of a set-user-id program, elsewhere, by somebody who logged in",
         [](Record& r) {
             r.argsCut = r.exeSetUid = r.exeSetGid = r.foreignMountNs = true;
             r.argsSize = 102400;
             r.euid = 4243;
             r.loginUid = 4244;
             r.session = 7;
         },
         "effectiveUser=4243 loginUser=4244 session=7 exe=/bin/sh "
         "notes=set-user-id,set-group-id,mount-namespace argsSize=102400 cmdLine=sh -e]"},
        {"too short to be read",
         [](Record& r) {
             r.whole = false;
             r.args.clear();
             r.exe = r.comm = "";
         },
         "notes=incomplete cmdLine=(ended before it could be read)]"},
    };
    for (const auto& row : rows) {
        Feed feed;
        feed.Exec(kGone + 1, row.change);
        const std::string line = feed.Lines().at(0);
        EXPECT_EQ(line.substr(0, (start + row.line).size()), start + row.line) << row.name;
        EXPECT_TRUE(line.size() <= 4096 && line.back() == ']') << row.name;
    }
}

// Of what ends, nothing can be asked any more: what is told is what was remembered of that process, and no other.
TEST(ProcessLogTest, RemembersWhatAProcessWas)
{
    const std::string sh = "exe=/bin/sh ";
    const std::string line = "cmdLine=sh -e]";
    const std::string unread = "cmdLine=(ended before it could be read)]";
    const std::string executed = "Process executed." + kWho + "startTime=1000000 " + sh;
    const struct {
        const char* name;
        ProcessLogSettings settings;
        std::function<void(Feed&)> records;
        Strings lines;
    } rows[] = {
        {"an end by itself",
         {},
         [](Feed& feed) {
             feed.Exec(kGone + 1);
             feed.Exit(kGone + 1, [](Record& r) { r.exitCode = 3; });
         },
         {executed + line, "Process exited." + kWho + "exitCode=3 " + kEnd + sh + line}},
        {"killed is not exited, and the user is that of the end",
         kEnds,
         [](Feed& feed) {
             feed.Exec(kGone + 1, [](Record& r) { r.uid = 0; });
             feed.Exit(kGone + 1, [](Record& r) { r.exitSignal = SIGKILL; });
         },
         {"Process killed." + kWho + "signal=9 " + kEnd + sh + line}},
        {"a child is its parent's program, by its parent's",
         kEnds,
         [](Feed& feed) {
             feed.Exec(kGone, [](Record& r) { r.exeDeleted = true; });
             feed.Fork(kGone, kGone + 1);
             feed.Exit(kGone + 1);
         },
         {"Process exited." + kWho + "exitCode=0 " + kEnd + sh + "parentExe=/bin/sh notes=deleted " + line}},
        {"the program of a parent that has ended, as of the fork",
         kEnds,
         [](Feed& feed) {
             feed.Exec(kGone);
             feed.Fork(kGone, kGone + 1);
             feed.Exit(kGone);
             feed.Exec(kGone + 1);
             feed.Exit(kGone + 1);
         },
         {"Process exited.[pid=5000000 ppid=5000000 user=4242 exitCode=0 " + kEnd + sh + line,
          "Process exited." + kWho + "exitCode=0 " + kEnd + sh + "parentExe=/bin/sh " + line}},
        {"the same ids at another time are other processes",
         kEnds,
         [](Feed& feed) {
             feed.Exec(kGone, [](Record& r) { r.startNs = 1; });
             feed.Exec(kGone + 1, [](Record& r) { r.startNs = 1; });
             feed.Exit(kGone + 1, [](Record& r) { r.parentStartNs = 900 * kMs; });
         },
         {"Process exited." + kWho + "exitCode=0 " + kEnd + unread}},
        {"times of /proc are round, and two ends are two processes",
         kEnds,
         [](Feed& feed) {
             feed.Exec(kGone + 1, [](Record& r) { r.startNs += 9 * kMs; });
             feed.Exit(kGone + 1);
             feed.Exit(kGone + 1);
         },
         {"Process exited." + kWho + "exitCode=0 " + kEnd + sh + line,
          "Process exited." + kWho + "exitCode=0 " + kEnd + unread}},
        {"excludes",
         {true, true, {"none", "sh -*"}, 0},
         [](Feed& feed) {
             feed.Exec(kGone + 1);
             feed.Exit(kGone + 1);
             EXPECT_EQ(feed.log.GetLeftOutCount(), 2U);
         },
         {}},
        {"own children and theirs are left out, until their id is somebody else's",
         {},
         [](Feed& feed) {
             feed.Fork(getpid(), kGone);
             feed.Fork(kGone, kGone + 2);
             feed.Exec(kGone + 2);
             feed.Exit(kGone + 2);
             feed.Exit(kGone + 3, [](Record& r) { r.parentPid = getpid(); });
             feed.Fork(1, kGone, 2000 * kMs);
             feed.Fork(kGone, kGone + 1, 1000 * kMs, 2000 * kMs);
             feed.Exit(kGone + 1);
         },
         {"Process exited." + kWho + "exitCode=0 " + kEnd + unread}},
        {"only starts, and repeats are summed",
         {true, false, {}, 2},
         [](Feed& feed) {
             for (int i = 0; i < 7; ++i) {
                 feed.Exec(kGone + 1);
             }
             feed.Exit(kGone + 1);
             EXPECT_EQ(feed.log.GetLeftOutCount(), 1U);
             feed.log.LogRepeats();
             feed.log.LogRepeats();
         },
         {executed + line, executed + line,
          "Process repeated.[action=executed count=5 ppid=5000000 user=4242 program=sh]"}},
    };
    for (const auto& row : rows) {
        Feed feed(row.settings);
        row.records(feed);
        EXPECT_EQ(feed.Lines(), row.lines) << row.name;
    }
    Feed feed;
    feed.Exec(kGone + 1);
    EXPECT_TRUE(Contains(feed.records.Lines()[0], " time=" + TimeText(1700000000123) + " "));  // the kernel's
}

// In the event file nothing needs room: everything is there, each argument by itself.
TEST(ProcessLogTest, WritesWholeEventsToTheirFile)
{
    const TempDir dir;
    const std::string file = dir / "events";
    ThreadPool::GetInstance().Start(1, 3);
    ASSERT_EQ(EventFile::GetInstance().Open({file}), "");
    Feed feed;
    const std::string longPath = "/" + std::string(4000, 'd') + "/sh";
    feed.Exec(kGone + 1, [&](Record& r) {
        r.exe = longPath;
        r.args = {"sh", "", std::string(16000, 'x')};
    });
    EventFile::GetInstance().Close();
    ThreadPool::GetInstance().Stop();
    EXPECT_EQ(Read(file), R"({"type":"executed","time":1700000000123,"pid":5000001,"ppid":5000000,"user":"4242",)"
                          R"("startTime":1000000,"exe":")" +
                              longPath + R"(","args":["sh","",")" + std::string(16000, 'x') + R"("],"cmdLine":"sh  )" +
                              std::string(3396, 'x') + "\"}\n");
}

// After a loss /proc says what runs. An end that is on its way must still find its process; one that was lost must
// not keep it for good.
TEST(ProcessLogTest, ComparesWithProc)
{
    const Strings args = {"sl\033[1m\nx", "60"};
    const Driver driver({[&] { return Fork([&] { return Execute("/bin/sleep", args); }); }});
    const pid_t stranger = driver.Do(0);
    Record now;
    ASSERT_TRUE(Eventually([&] { return ProcessTracer::ReadProcess(stranger, now) && now.args == args; }));
    Feed feed(kEnds);
    feed.Exec(kGone + 1);
    feed.Exec(kGone + 2);
    feed.log.CompareWithProc();
    feed.Exit(kGone + 1);
    feed.log.CompareWithProc();
    feed.Exit(kGone + 2);
    feed.Exit(stranger, [&](Record& r) {
        r.startNs = now.startNs;
        r.bootNs = now.startNs + 5 * kMs;
        r.parentPid = driver.pid;
    });
    const Strings lines = feed.Lines();
    ASSERT_EQ(lines.size(), 3U);
    EXPECT_TRUE(lines[0].ends_with(" exe=/bin/sh cmdLine=sh -e]"));
    EXPECT_TRUE(lines[1].ends_with(" cmdLine=(ended before it could be read)]"));
    EXPECT_TRUE(Contains(lines[2], " duration=5 ") && Contains(lines[2], "/sleep parentExe=/") &&
                lines[2].ends_with(" notes=other-name cmdLine=sl?[1m?x 60]"))
        << lines[2];
    const pid_t own = ::Fork([] { return pause(); });
    feed.log.CompareWithProc();
    Kill(own);
    feed.Fork(own, kGone + 3);
    feed.Exit(kGone + 3);
    feed.log.Stop();
    feed.log.CompareWithProc();  // a stop does not wait for it, and loses nothing that is known
    EXPECT_EQ(feed.Lines().size(), 3U);
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
