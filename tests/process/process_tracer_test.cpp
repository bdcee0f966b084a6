#include "tests/process/trace_support.h"
#include "tests/support/failing_allocations.h"

using Record = ProcessRecord;

struct ProcessTracerTest : testing::TestWithParam<ProcessTracer::Source> {
    void SetUp() override
    {
        if (geteuid() != 0) {
            GTEST_SKIP() << "trace programs and the process connector need rights";
        }
        chmod(dir_.Path().c_str(), 0755);
        fs::copy_file("/bin/sh", dir_ / "sh");
        ASSERT_TRUE(mkfifo((dir_ / "go").c_str(), 0600) == 0 && chmod((dir_ / "go").c_str(), 0666) == 0);
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
    const Records log_;
    UniqueFd held_;
    Traced traced_;
};

struct Kind {
    const char* name;
    std::string path;
    Strings args;
    std::function<int()> before;  // the program starts, in a child
    std::function<bool(const Record&)> fits;
};

static bool Args(const Record& record, const Strings& args)
{
    return record.args == args && record.argCount <= args.size() && !record.argsCut;
}

TEST_P(ProcessTracerTest, EveryKindOfProgramIsToldOnceAndWhole)
{
    const bool byTrace = ByTrace();
    const std::string sh = dir_ / "sh";
    const Strings usual = {"sh", "-c", live_};
    const std::string huge(100000, 'x');
    const Strings odd = {"sh", "-c", live_, "", "two\nlines 'quoted' \"twice\" \\ \xff\xfe \x01", "", ""};
    Strings many = usual;
    for (int i = 0; i < 500; ++i) {
        many.push_back("arg" + std::to_string(i));
    }
    fs::copy_file("/bin/sh", dir_ / "setuid");
    Write(dir_ / "script", "#!" + sh + " -e\n" + live_ + "\n");
    const bool prepared = chown((dir_ / "setuid").c_str(), 65534, 65534) == 0 &&
                          chmod((dir_ / "setuid").c_str(), 06755) == 0 && chmod((dir_ / "script").c_str(), 0755) == 0;
    ASSERT_TRUE(prepared);
    const auto byDescriptor = [&](bool inMemory) {
        char* args[] = {const_cast<char*>("sh"), const_cast<char*>("-c"), const_cast<char*>(live_.c_str()), nullptr};
        return fexecve(Nameless(inMemory), args, environ);
    };
    const Kind kinds[] = {
        {"plain",
         sh,
         usual,
         {},
         [&](const Record& r) {
             return Args(r, usual) && r.exe == sh && r.exeGiven.empty() && r.uid == 0 && r.comm == "sh";
         }},
        {"no arguments",
         sh,
         {},
         [&] { return dup2(open((dir_ / "script").c_str(), O_RDONLY), 0); },
         [&](const Record& r) { return r.args.size() <= 1 && r.exe == sh; }},
        {"500 arguments", sh, many, {}, [&](const Record& r) { return Args(r, many); }},
        {"odd and empty arguments", sh, odd, {}, [&](const Record& r) { return Args(r, odd); }},
        {"100 KiB",
         sh,
         {"sh", "-c", live_, huge, "behind"},
         {},
         [&](const Record& r) {
             return r.argsCut && r.argsSize == 3 + 3 + live_.size() + 1 + huge.size() + 1 + 7 && r.args.size() == 4 &&
                    r.args[3] == huge.substr(0, 16384 - 7 - live_.size());
         }},
        {"another name",
         sh,
         {"[kworker/0:1]", "-c", live_},
         {},
         [&](const Record& r) { return r.args[0] == "[kworker/0:1]" && r.exe == sh && r.comm == "sh"; }},
        {"relative", "./sh", usual, [&] { return chdir(dir_.Path().c_str()); },
         [&](const Record& r) { return r.exe == sh && r.exeGiven == (byTrace ? "./sh" : ""); }},
        {"deleted", sh, usual, [&] { return byDescriptor(false); },
         [&](const Record& r) { return Args(r, usual) && r.exeDeleted && !r.exeInMemory && r.exe == (dir_ / "gone"); }},
        {"in memory", sh, usual, [&] { return byDescriptor(true); },
         [&](const Record& r) { return Args(r, usual) && r.exeDeleted && r.exeInMemory && r.exe == "/memfd:hidden"; }},
        {"set-user-id",
         dir_ / "setuid",
         {"sh", "-p", "-c", live_},
         {},
         [&](const Record& r) {
             return r.exeSetUid && r.exeSetGid && r.uid == 0 && r.euid == 65534 && r.gid == 0 && r.egid == 65534;
         }},
        {"another user", sh, usual, [&] { return setgid(1) + setuid(2); },
         [&](const Record& r) { return r.uid == 2 && r.euid == 2 && r.gid == 1 && r.egid == 1 && !r.exeSetUid; }},
        {"script",
         dir_ / "script",
         {"script", "x"},
         {},
         [&](const Record& r) {
             return r.script == (dir_ / "script") && r.exe == sh && Args(r, {sh, "-e", dir_ / "script", "x"});
         }},
        {"thread", sh, usual, [&] { return std::thread([&] { Execute(sh, usual); }).join(), 1; },
         [&](const Record& r) { return Args(r, usual) && (!byTrace || r.tid != r.pid); }},
        {"mount namespace", sh, usual, [&] { return unshare(CLONE_NEWNS); },
         [&](const Record& r) { return r.foreignMountNs && r.mountNs != 0; }},
    };
    std::vector<std::function<int()>> bodies;
    for (const Kind& kind : kinds) {
        bodies.emplace_back(
            [&] { return kind.before != nullptr && kind.before() != 0 ? 1 : Execute(kind.path, kind.args); });
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
        EXPECT_TRUE(execs[0].whole && exits[0].whole && kinds[i].fits(execs[0])) << name << " " << execs[0].exe;
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
    ProcessTracer tracer;
    ProcessTracer::Settings settings;
    settings.source = GetParam();
    std::atomic<int> calls{0};
    ASSERT_TRUE(tracer.Start(settings, [&](const Record&) {
        if (++calls == 3) {
            tracer.Stop();
        }
        throw std::runtime_error("of a callback");
    }));
    EXPECT_FALSE(tracer.Start(settings, [](const Record&) {}));
    EXPECT_TRUE(Eventually([&] {
        RunTrue();
        return calls >= 3;
    }));
    EXPECT_EQ(tracer.GetSource(), ProcessTracer::kNone);
    RunTrue();
    tracer.Stop();
    EXPECT_EQ(calls, 3);
    EXPECT_TRUE(log_.Has("ERROR A callback of the process tracer failed.[reason=of a callback]"));
    EXPECT_TRUE(tracer.Start(settings, [&](const Record&) { ++calls; }));
    EXPECT_TRUE(Eventually([&] {
        RunTrue();
        return calls > 3;
    }));
}

// An exception once left the tracer's threads, through libbpf, and ended the process.
TEST_P(ProcessTracerTest, GoesOnWhereMemoryRunsOut)
{
    ASSERT_TRUE(traced_.Start(GetParam()) && traced_.SawEnd(RunTrue()));
    char program[] = "/bin/true";
    char* args[] = {program, nullptr};
    const int failures = FailingAllocations::InTurn(FailingAllocations::Mode::kOne, [&] {
        const auto before = traced_.tracer.GetCounts();
        for (int i = 0; i < 3; ++i) {
            pid_t pid = -1;
            EXPECT_TRUE(posix_spawn(&pid, program, nullptr, nullptr, args, environ) == 0 && Wait(pid) == 0);
        }
        for (auto now = before; now.received.exits < before.received.exits + 3 && now.malformed == before.malformed;
             now = traced_.tracer.GetCounts()) {
            usleep(1000);
        }
    });
    EXPECT_GT(failures, 10);
    EXPECT_GT(traced_.tracer.GetCounts().malformed, 0U);
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
