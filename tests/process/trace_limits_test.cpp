// The process tracer under load, at its limits, and without what it needs.
#include <sched.h>
#include <sys/resource.h>

#include "tests/process/trace_support.h"

using Record = ProcessRecord;

struct TraceLimitsTest : TracerTest {
    Traced traced_;
};

// Starts a program many times; every one of them must end well.
static std::function<int()> Burst(int count, const std::function<Strings(int)>& args)
{
    return [=] {
        for (int i = 0; i < count; ++i) {
            const Strings words = args(i);
            const bool forked = (i & 1) == 0;
            if (Wait(forked ? Fork([&] { return Execute(words[0], words); }) : Spawn(words)) != 0) {
                return 1;
            }
        }
        return 0;
    };
}

// Threads that end at the same moment each see themselves as the last one.
TEST_F(TraceLimitsTest, ThousandsOfShortProgramsAndProcessesOfManyThreadsAreEachToldOnceAndWhole)
{
    constexpr std::size_t kPrograms = 2000;
    const auto unique = [](int i) { return Strings{"/bin/true", "unique", std::to_string(i), ""}; };
    const Children children({Burst(kPrograms, unique),
                             [] {
                                 for (int i = 0; i < 13000; i += 4) {
                                     InThreads(4, [](int) {});
                                 }
                                 return 0;
                             },
                             [] {
                                 for (int thread = 0; thread < 8; ++thread) {
                                     std::thread([] { pause(); }).detach();
                                 }
                                 return 3;
                             }});
    ASSERT_TRUE(traced_.Start(ProcessTracer::kTrace));
    const pid_t threads = children.Start(1);
    const pid_t burst = children.Run(0);
    EXPECT_EQ(children.Wait(threads), 0);
    std::vector<pid_t> pids(300);
    std::ranges::generate(pids, [&] { return children.Start(2); });
    for (const pid_t pid : pids) {
        EXPECT_EQ(children.Wait(pid), 3 << 8);
    }
    for (const pid_t pid : pids) {
        ASSERT_TRUE(traced_.SawEnd(pid));
    }
    ASSERT_TRUE(traced_.SawEnd(burst) && traced_.SawEnd(threads));
    const std::lock_guard<std::mutex> lock(traced_.mutex);
    std::map<Strings, int> told;
    for (const auto& [pid, records] : traced_.records) {
        if (records[0].parentPid != burst) {
            continue;
        }
        ASSERT_EQ(records.size(), 3U);
        const Record& exec = records[1];
        const bool whole = exec.whole && exec.exe == "/bin/true" && exec.parentPid == burst &&
                           exec.kind == Record::kExec && records[2].kind == Record::kExit && records[2].exitCode == 0;
        told[exec.args] += whole ? 1 : 100;
    }
    EXPECT_EQ(told.size(), kPrograms);
    EXPECT_TRUE(std::ranges::all_of(told, [](const auto& row) { return row.second == 1; }));
    EXPECT_EQ(traced_.records[threads].size(), 2U);  // no thread's start or end
    EXPECT_TRUE(std::ranges::all_of(
        pids, [&](pid_t pid) { return traced_.records[pid].size() == 2 && traced_.records[pid][1].exitCode == 3; }));
    EXPECT_EQ(traced_.tracer.GetCounts().lost.Total() + traced_.tracer.GetCounts().malformed, 0U);
}

TEST_F(TraceLimitsTest, WhatDoesNotFitIsCountedExactly)
{
    constexpr std::uint64_t kPrograms = 1500;
    std::atomic<bool> blocked{true};
    std::atomic<std::uint64_t> told{0};
    const std::string mark(1000, 'm');
    const Children children({Burst(kPrograms, [&](int) { return Strings{"/bin/true", mark}; })});
    Traced traced;
    traced.onRecord = [&](const Record& record) {
        blocked.wait(true);
        told += record.args.size() == 2 && record.args[1] == mark ? 1 : 0;
    };
    ASSERT_TRUE(traced.Start(ProcessTracer::kTrace, 1));  // with the smallest ring there is
    ProcessTracer& tracer = traced.tracer;
    children.Run(0);
    const auto full = tracer.GetCounts();
    EXPECT_TRUE(full.lost.forks > 0 && full.lost.execs > 0 && full.lost.exits > 0);
    blocked = false;
    blocked.notify_all();
    ASSERT_TRUE(Eventually([&] {
        const auto counts = tracer.GetCounts();
        return counts.received.Total() + counts.lost.Total() == counts.seen.Total() &&
               traced.lostExecs == counts.lost.execs;
    }));
    const auto counts = tracer.GetCounts();
    EXPECT_GE(counts.seen.execs, kPrograms);
    EXPECT_GE(told + counts.lost.execs, kPrograms);
    EXPECT_LE(told, counts.received.execs);
    EXPECT_EQ(counts.received.execs + counts.lost.execs, counts.seen.execs);
    EXPECT_EQ(counts.received.forks + counts.lost.forks, counts.seen.forks);
    EXPECT_EQ(counts.received.exits + counts.lost.exits, counts.seen.exits);
    tracer.Stop();
    EXPECT_EQ(tracer.GetCounts().lost.execs, counts.lost.execs);  // they stay
}

static std::uint64_t Bit(int capability)
{
    return std::uint64_t{1} << capability;
}

TEST_F(TraceLimitsTest, WithoutRightsTheConnectorTakesOverAndSaysWhy)
{
    using Tracer = ProcessTracer;
    const std::uint64_t look = Bit(CAP_SYS_PTRACE) | Bit(CAP_DAC_READ_SEARCH) | Bit(CAP_DAC_OVERRIDE);
    const std::uint64_t net = look | Bit(CAP_NET_ADMIN) | Bit(CAP_SYS_NICE);
    const std::uint64_t trace = look | Bit(CAP_BPF) | Bit(CAP_PERFMON);
    const std::string began = "The process tracer started.[source=";
    const std::string cannot = "cannot load the trace programs: ";
    struct Row {
        std::uint64_t rights;
        Tracer::Source wanted;
        Tracer::Source source;
        std::string text;
        std::string reason;
    };
    const Row rows[] = {
        {trace, Tracer::kAuto, Tracer::kTrace, "INFO " + began + "trace]", ""},
        {net, Tracer::kAuto, Tracer::kConnector, "WARN " + began + "connector trace=" + cannot,
         cannot + "Operation not permitted"},
        {net | trace, Tracer::kConnector, Tracer::kConnector, "INFO " + began + "connector trace=not wanted]", ""},
        {net, Tracer::kTrace, Tracer::kNone,
         "ERROR Fail to start the process tracer.[source=trace reason=" + cannot + "Operation not permitted", ""},
        {look, Tracer::kAuto, Tracer::kNone, "; connector: cannot enlarge the process connector: ", ""},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.text);
        InChild([&] {
            Traced traced;
            const bool started = KeepRights(row.rights) && traced.Start(row.wanted);
            EXPECT_EQ(started, row.source != Tracer::kNone);
            EXPECT_EQ(traced.tracer.GetSource(), row.source);
            EXPECT_EQ(log_.CountWith(row.text), 1);
            EXPECT_EQ(traced.tracer.GetFallbackReason().substr(0, row.reason.size()), row.reason);
            if (started) {
                const pid_t pid = Spawn({"/bin/sh", "-c", "sleep 0.1"});
                EXPECT_TRUE(Wait(pid) == 0 && traced.SawEnd(pid) && traced.Of(pid, Record::kExec)[0].whole);
            }
        });
    }
}

static bool OwnMounts()
{
    return unshare(CLONE_NEWNS) == 0 && mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
}

TEST_F(TraceLimitsTest, NeedsTheKernelsTypesButNoTracefsNoLockedMemoryAndNoRightsOnceItRuns)
{
    InChild([this] {
        EXPECT_TRUE(OwnMounts() && mount("none", "/sys/kernel/btf", "tmpfs", 0, nullptr) == 0);
        EXPECT_TRUE(!traced_.Start(ProcessTracer::kTrace) && traced_.Start(ProcessTracer::kAuto));
        EXPECT_EQ(traced_.tracer.GetSource(), ProcessTracer::kConnector);
        EXPECT_TRUE(Contains(traced_.tracer.GetFallbackReason(), "cannot load the trace programs: "));
        traced_.tracer.Stop();
    });
    InChild([] {
        const rlimit none = {};
        Traced traced;
        EXPECT_TRUE(OwnMounts() && setrlimit(RLIMIT_MEMLOCK, &none) == 0);
        umount2("/sys/kernel/tracing", MNT_DETACH);
        umount2("/sys/kernel/debug", MNT_DETACH);
        EXPECT_TRUE(traced.Start(ProcessTracer::kTrace) && BecomePlainUser() && KeepRights(0));
        const pid_t pid = Spawn({"/bin/sh", "-c", "sleep 0.1"});  // without a cgroup2 its container is asked of /proc
        EXPECT_TRUE(Wait(pid) == 0 && traced.SawEnd(pid) && traced.Of(pid, Record::kExec)[0].whole);
        EXPECT_TRUE(traced.tracer.GetCounts().seen.execs > 0 && traced.tracer.GetCounts().recursionMisses == 0);
    });
}

TEST_F(TraceLimitsTest, AThousandStartsAndStopsLeaveNothing)
{
    const auto startAndStop = [](int i) {
        ProcessTracer tracer;
        ProcessTracer::Settings settings;
        settings.source = i % 10 == 0 ? ProcessTracer::kTrace : ProcessTracer::kConnector;
        settings.ringSize = 1;
        return tracer.Start(settings, [](const Record&) {});
    };
    ASSERT_TRUE(startAndStop(0));  // ThreadSanitizer makes a thread of its own with the first one
    ExpectNothingLeftOf([&] {
        for (int i = 0; i < 1000; ++i) {
            ASSERT_TRUE(startAndStop(i)) << i;
        }
    });
}

// The control groups of a container name it, whatever mounts there are.
TEST_F(TraceLimitsTest, ContainersAreNamed)
{
    const std::string id = std::string(60, 'c') + "0001";
    InChild([&] {
        EXPECT_TRUE(OwnMounts() && mount("none", "/sys/fs/cgroup", "cgroup2", 0, nullptr) == 0);
        const std::string group = "/sys/fs/cgroup/neutils-" + std::to_string(getpid());
        const std::string inner = group + "/" + id + ".scope";
        fs::create_directories(inner);
        const Children children({[&] {
            Write(inner + "/cgroup.procs", "0");
            return Execute("/bin/true", {"true"});
        }});
        EXPECT_TRUE(traced_.Start(ProcessTracer::kTrace));
        const pid_t pid = children.Run(0);
        EXPECT_TRUE(traced_.SawEnd(pid) && traced_.Of(pid, Record::kFork)[0].containerId.empty());
        EXPECT_EQ(traced_.Of(pid, Record::kExec)[0].containerId, id);
        fs::remove(inner);
        fs::remove(group);
    });
}

// A process chooses its name, but not the program behind it.
static void CheckPlatformAndImpostors()
{
    EXPECT_TRUE(OwnMounts() && mount("none", "/opt", "tmpfs", 0, "mode=755") == 0);
    const std::string agent = "/opt/omx/envs/NodeAgent";
    const std::string script = "/opt/omx/envs/Product-Etcd.sh";
    const std::string bash = "/bin/bash";
    const std::string relative = "tools/pyscript/deployagent/DeployAgent.pyc";
    const Strings command = {agent, "-c", "sleep 0.1; true"};
    const auto install = [&] { return fs::create_directories("/opt/omx/envs") && fs::copy_file("/bin/sh", agent); };
    struct Row {
        const char* name;
        bool listedByTrace;
        bool listedByName;  // all that the connector asks for, as the process monitor does
        std::string path;
        Strings args;
        std::function<bool()> before = [] { return true; };
    };
    const Row rows[] = {
        {"the program", true, true, agent, command},
        {"the script", true, true, bash, {bash, script}},
        {"a script below the working directory",
         true,
         true,
         bash,
         {bash, relative},
         [] { return chdir("/opt/real") == 0; }},
        {"a link of its name to another", false, true, bash, {bash, relative}, [] { return chdir("/opt/link") == 0; }},
        {"another program under its name", false, true, "/bin/sh", command},
        {"the script in the name alone", false, true, bash, {bash + " " + script, "-c", "sleep 0.1; true"}},
        {"a script that all may write",
         false,
         true,
         bash,
         {bash, script},
         [&] { return chmod(script.c_str(), 0666) == 0; }},
        {"the same path in a file system of its own", false, true, agent, command,
         [&] { return unshare(CLONE_NEWNS) + mount("none", "/opt", "tmpfs", 0, "mode=755") == 0 && install(); }},
        {"the program under another name", false, false, agent, {"x", "-c", "sleep 0.1; true"}},
    };
    std::vector<std::function<int()>> bodies;
    for (const Row& row : rows) {
        bodies.emplace_back([&] { return row.before() ? Execute(row.path, row.args) : 1; });
    }
    EXPECT_TRUE(install());
    Write(script, "sleep 0.1; true\n");
    for (const std::string place : {"/opt/real/", "/opt/link/"}) {
        fs::create_directories(fs::path(place + relative).parent_path());
    }
    fs::copy_file(script, "/opt/real/" + relative);
    fs::create_symlink(script, "/opt/link/" + relative);
    for (const auto source : {ProcessTracer::kTrace, ProcessTracer::kConnector}) {
        const Children children(bodies);
        Traced traced;
        EXPECT_TRUE(traced.Start(source) && chmod(script.c_str(), 0644) == 0);
        for (std::size_t i = 0; i < bodies.size(); ++i) {
            const pid_t pid = children.Run(static_cast<int>(i));
            EXPECT_TRUE(traced.SawEnd(RunTrue()));
            const bool told = !traced.Of(pid, Record::kExec).empty();
            const std::lock_guard<std::mutex> lock(traced.mutex);
            const bool hasChildren = std::ranges::any_of(
                traced.records, [=](const auto& record) { return record.second[0].parentPid == pid; });
            EXPECT_NE(told, source == ProcessTracer::kTrace ? rows[i].listedByTrace : rows[i].listedByName)
                << rows[i].name;
            EXPECT_EQ(hasChildren, told) << rows[i].name;
        }
    }
}

TEST_F(TraceLimitsTest, PlatformProcessesStayUntoldButNoImpostor)
{
    InChild(&CheckPlatformAndImpostors);
}
