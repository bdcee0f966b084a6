#include "tests/process/trace_support.h"
#include "tests/support/failing_allocations.h"

using Record = ProcessRecord;

struct ProcessTracerTest : TracerTest, testing::WithParamInterface<ProcessTracer::Source> {
    ProcessTracerTest()
    {
        chmod(dir_.Path().c_str(), 0755);
        fs::copy_file("/bin/sh", dir_ / "sh");
        EXPECT_TRUE(mkfifo((dir_ / "go").c_str(), 0600) == 0 && chmod((dir_ / "go").c_str(), 0666) == 0);
    }

    // Lets so many programs end that read a line from the fifo.
    void Release(std::size_t programs)
    {
        held_.Reset(open((dir_ / "go").c_str(), O_RDWR));
        for (std::size_t i = 0; i < programs; ++i) {
            EXPECT_EQ(write(held_.Get(), "exit 7\n", 7), 7);
        }
    }

    // A program that was opened before it lost its name, or never had one.
    int Nameless(bool inMemory) const
    {
        const int fd = inMemory ? memfd_create("hidden", 0) : open((dir_ / "gone").c_str(), O_CREAT | O_RDWR, 0755);
        const std::string content = Read("/bin/sh");
        if (write(fd, content.data(), content.size()) < 0 || inMemory) {
            return fd;
        }
        close(fd);
        const int again = open((dir_ / "gone").c_str(), O_RDONLY);
        unlink((dir_ / "gone").c_str());
        return again;
    }

    bool ByTrace() const { return GetParam() == ProcessTracer::kTrace; }

    const TempDir dir_;
    const std::string live_ = "read x <" + (dir_ / "go") + "; exit 7";  // what a program does until it is released
    UniqueFd held_;
    Traced traced_;
};

struct Kind {
    const char* name;
    std::string path;
    Strings args;
    std::string text;
    std::function<int()> before = [] { return 0; };  // in the child
    Strings told = args;
};

// What is particular about an exec.
static std::string Describe(const Record& record, const std::string& directory)
{
    std::string text =
        record.exe.compare(0, directory.size(), directory) == 0 ? record.exe.substr(directory.size()) : record.exe;
    const auto put = [&](bool holds, const std::string& word) { text += holds ? " " + word : ""; };
    put(!record.exeDeleted, record.comm);
    put(Contains(record.exeGiven, "."), record.exeGiven);
    put(!record.script.empty(), "script");
    put(record.exeDeleted, "deleted");
    put(record.exeInMemory, "memory");
    put(record.exeSetUid && record.exeSetGid, "setuid");
    const std::uint32_t ids[] = {record.uid, record.euid, record.gid, record.egid};
    put(std::ranges::any_of(ids, [](auto id) { return id != 0; }),
        std::to_string(ids[0]) + " " + std::to_string(ids[1]) + " " + std::to_string(ids[2]) + " " +
            std::to_string(ids[3]));
    put(record.tid != record.pid, "thread");
    put(record.foreignMountNs && record.mountNs != 0, "mount");
    put(record.argsCut, "cut " + std::to_string(record.argsSize));
    return text;
}

TEST_P(ProcessTracerTest, EveryKindOfProgramIsToldOnceAndWhole)
{
    const std::string sh = dir_ / "sh";
    const std::string script = dir_ / "script";
    const std::string setUid = dir_ / "setuid";
    const Strings usual = {"sh", "-c", live_};
    const std::string huge(100000, 'x');
    const Strings odd = {"sh", "-c", live_, "", "two\nlines 'quoted' \"twice\" \\ \xff\xfe \x01", "", ""};
    Strings many = usual;
    for (int i = 0; i < 500; ++i) {
        many.push_back("arg" + std::to_string(i));
    }
    fs::copy_file("/bin/sh", setUid);
    Write(script, "#!" + sh + " -e\n" + live_ + "\n");
    const bool prepared = chown(setUid.c_str(), 65534, 65534) == 0 && chmod(setUid.c_str(), 06755) == 0 &&
                          chmod(script.c_str(), 0755) == 0;
    ASSERT_TRUE(prepared);
    const auto byDescriptor = [&](bool inMemory) {
        char* args[] = {const_cast<char*>("sh"), const_cast<char*>("-c"), const_cast<char*>(live_.c_str()), nullptr};
        return fexecve(Nameless(inMemory), args, environ);
    };
    const Kind kinds[] = {
        {"plain", sh, usual, "/sh sh"},
        {"no arguments", sh, {}, "/sh sh", [&] { return dup2(open(script.c_str(), O_RDONLY), 0); }, {""}},
        {"500 arguments", sh, many, "/sh sh"},
        {"odd and empty arguments", sh, odd, "/sh sh"},
        {"100 KiB",
         sh,
         {"sh", "-c", live_, huge, ""},
         "/sh sh cut " + std::to_string(live_.size() + 100009),
         [] { return 0; },
         {"sh", "-c", live_, huge.substr(0, 16384 - 7 - live_.size())}},
        {"another name", sh, {"[kworker/0:1]", "-c", live_}, "/sh sh"},
        {"relative", "./sh", usual, ByTrace() ? "/sh sh ./sh" : "/sh sh", [&] { return chdir(dir_.Path().c_str()); }},
        {"deleted", sh, usual, "/gone deleted", [&] { return byDescriptor(false); }},
        {"in memory", sh, usual, "/memfd:hidden deleted memory", [&] { return byDescriptor(true); }},
        {"set-user-id", setUid, {"sh", "-p", "-c", live_}, "/setuid setuid setuid 0 65534 0 65534"},
        {"another user", sh, usual, "/sh sh 2 2 1 1", [] { return setgid(1) + setuid(2); }},
        {"script", script, {"script", "x"}, "/sh script script", [] { return 0; }, {sh, "-e", script, "x"}},
        {"thread", sh, usual, ByTrace() ? "/sh sh thread" : "/sh sh",
         [&] { return std::thread([&] { Execute(sh, usual); }).join(), 1; }},
        {"mount namespace", sh, usual, "/sh sh mount", [] { return unshare(CLONE_NEWNS); }},
    };
    std::vector<std::function<int()>> bodies;
    for (const Kind& kind : kinds) {
        bodies.emplace_back([&] { return kind.before() != 0 ? 1 : Execute(kind.path, kind.args); });
    }
    const Children children(bodies);
    ASSERT_TRUE(traced_.Start(GetParam()));
    std::vector<pid_t> pids;
    for (std::size_t i = 0; i < std::size(kinds); ++i) {
        pids.push_back(children.Start(static_cast<int>(i)));
    }
    EXPECT_TRUE(Eventually(
        [&] { return std::ranges::all_of(pids, [&](pid_t pid) { return !traced_.Of(pid, Record::kExec).empty(); }); }));
    Release(pids.size());
    for (std::size_t i = 0; i < pids.size(); ++i) {
        const char* const name = kinds[i].name;
        EXPECT_EQ(children.Wait(pids[i]), 7 << 8) << name;
        ASSERT_TRUE(traced_.SawEnd(pids[i])) << name;
        const auto forks = traced_.Of(pids[i], Record::kFork);
        const auto execs = traced_.Of(pids[i], Record::kExec);
        const auto exits = traced_.Of(pids[i], Record::kExit);
        ASSERT_EQ(std::make_tuple(forks.size(), execs.size(), exits.size()), std::make_tuple(1U, 1U, 1U)) << name;
        EXPECT_TRUE(execs[0].whole && exits[0].whole) << name;
        EXPECT_EQ(Describe(execs[0], dir_.Path()), kinds[i].text) << name;
        EXPECT_EQ(execs[0].args, kinds[i].told) << name;
        EXPECT_TRUE(execs[0].argCount >= (ByTrace() ? kinds[i].told.size() : 0)) << name;
        EXPECT_EQ(exits[0].exitCode, 7) << name;
        EXPECT_TRUE(execs[0].startNs == forks[0].startNs && exits[0].startNs == forks[0].startNs) << name;
        EXPECT_TRUE(forks[0].parentPid == children.Parent() && execs[0].parentPid == children.Parent()) << name;
        EXPECT_NE(execs[0].parentStartNs, 0U) << name;
        EXPECT_TRUE(forks[0].bootNs <= execs[0].bootNs && execs[0].bootNs < exits[0].bootNs) << name;
    }
}

// Who forked a process stays its parent, also when that has ended; another program is another record.
TEST_P(ProcessTracerTest, DaemonsNamespacesAndDoubleExecsHaveTheirParents)
{
    const std::string last = "sleep 0.1; exit 7";
    const std::string out = dir_ / "pid";
    const Children children({[&] {
        if (unshare(CLONE_NEWPID) == 0 && fork() == 0) {
            usleep(100000);  // until the process between is gone
            return Execute("/bin/sh", {"sh", "-c", "sleep 0.1; exec nice sh -c '" + last + "'", out});
        }
        return 0;
    }});
    ASSERT_TRUE(traced_.Start(GetParam()));
    const pid_t middle = children.Run(0);
    int daemon = 0;
    ASSERT_TRUE(Eventually([&] {
        const std::lock_guard<std::mutex> lock(traced_.mutex);
        for (const auto& [pid, records] : traced_.records) {
            daemon = !records[0].args.empty() || records[0].parentPid != middle ? daemon : pid;
        }
        return daemon != 0;
    }));
    ASSERT_TRUE(traced_.SawEnd(daemon));
    const auto execs = traced_.Of(daemon, Record::kExec);
    ASSERT_GE(execs.size(), 3U);
    EXPECT_EQ(execs[0].args.back(), out);
    EXPECT_EQ(execs.back().args, Strings({"sh", "-c", last}));
    EXPECT_TRUE(execs[0].foreignPidNs);
    EXPECT_EQ(execs[0].nsPid, 1);
    EXPECT_EQ(execs.back().comm, "sh");
    for (const Record& record : execs) {
        EXPECT_EQ(record.parentPid, middle);
    }
    EXPECT_EQ(traced_.Of(daemon, Record::kExit)[0].exitCode, 7);
}

TEST_P(ProcessTracerTest, EndsAreToldOnceWithCodeOrSignal)
{
    const Children children({[] { return pause(); },
                             [] {
                                 std::thread([] {
                                     usleep(300000);
                                     _exit(9);
                                 }).detach();
                                 return syscall(SYS_exit, 0), 0;  // the first thread alone
                             }});
    ASSERT_TRUE(traced_.Start(GetParam()));
    const pid_t killed = children.Start(0);
    const pid_t leader = children.Start(1);
    kill(killed, SIGKILL);
    ASSERT_TRUE(traced_.SawEnd(killed) && traced_.SawEnd(leader));
    EXPECT_EQ(traced_.Of(killed, Record::kExit)[0].exitSignal, SIGKILL);
    const auto ends = traced_.Of(leader, Record::kExit);
    ASSERT_EQ(ends.size(), 1U);
    EXPECT_EQ(ends[0].exitCode, 9);
    EXPECT_GT(ends[0].bootNs - traced_.Of(leader, Record::kFork)[0].bootNs, 250000000U);
}

// A callback may do what it likes: stop the tracer, or throw.
TEST_P(ProcessTracerTest, CallbacksMayStopAndThrow)
{
    std::atomic<int> calls{0};
    Traced traced;
    traced.onRecord = [&](const Record&) {
        if (++calls == 3) {
            traced.tracer.Stop();
        }
        throw std::runtime_error("of a callback");
    };
    ASSERT_TRUE(traced.Start(GetParam()));
    EXPECT_FALSE(traced.Start(GetParam()));
    EXPECT_TRUE(Eventually([&] { return RunTrue() > 0 && calls >= 3; }));
    EXPECT_EQ(traced.tracer.GetSource(), ProcessTracer::kNone);
    RunTrue();
    traced.tracer.Stop();
    EXPECT_EQ(calls, 3);
    EXPECT_TRUE(log_.Has("ERROR A callback of the process tracer failed.[reason=of a callback]"));
    EXPECT_TRUE(traced.Start(GetParam()));
    EXPECT_TRUE(Eventually([&] { return RunTrue() > 0 && calls > 3; }));
}

// An exception once left the tracer's threads, through libbpf, and ended the process.
TEST_P(ProcessTracerTest, GoesOnWhereMemoryRunsOut)
{
    ASSERT_TRUE(traced_.Start(GetParam()) && traced_.SawEnd(RunTrue()));
    char program[] = "/bin/true";
    char* args[] = {program, nullptr};
    const auto runThree = [&] {
        const auto before = traced_.tracer.GetCounts();
        for (int i = 0; i < 3; ++i) {
            pid_t pid = -1;
            EXPECT_TRUE(posix_spawn(&pid, program, nullptr, nullptr, args, environ) == 0 && Wait(pid) == 0);
        }
        for (auto now = before; now.received.exits < before.received.exits + 3 && now.malformed == before.malformed;
             now = traced_.tracer.GetCounts()) {
            usleep(1000);
        }
    };
    EXPECT_TRUE(Eventually([&] {  // memory may run out in a callback, or beside the tracer's thread, only
        EXPECT_GT(FailingAllocations::InTurn(FailingAllocations::Mode::kOne, runThree), 10);
        return traced_.tracer.GetCounts().malformed > 0;
    }));
    EXPECT_LE(log_.CountWith("ERROR A tracer failed and goes on.[what="), 1);
    EXPECT_TRUE(traced_.SawEnd(RunTrue()));
}

#if NEUTILS_HAS_TRACE
static const ProcessTracer::Source kSources[] = {ProcessTracer::kTrace, ProcessTracer::kConnector};
#else
static const ProcessTracer::Source kSources[] = {ProcessTracer::kConnector};

// A library without trace programs says so instead of pretending.
TEST(ProcessTracerWithoutProgramsTest, TakesTheConnectorAndSaysWhy)
{
    const Records log;
    Traced traced;
    EXPECT_FALSE(traced.Start(ProcessTracer::kTrace));
    EXPECT_TRUE(log.Has("ERROR Fail to start the process tracer.[source=trace reason=built without trace programs]"));
    EXPECT_EQ(traced.Start(ProcessTracer::kAuto), geteuid() == 0);
    EXPECT_EQ(traced.tracer.GetFallbackReason(), geteuid() == 0 ? "built without trace programs" : "");
}
#endif

INSTANTIATE_TEST_SUITE_P(Sources, ProcessTracerTest, testing::ValuesIn(kSources),
                         [](const auto& row) { return std::string(ProcessTracer::GetSourceName(row.param)); });
