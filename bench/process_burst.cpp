// What a process event costs its reader: the library's monitor, a bare netlink loop, and forkstat,
// each during an equal burst of short processes. Processor time is the reader's alone.
#include <fcntl.h>
#include <linux/sock_diag.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "connector.h"
#include "process_monitor.h"
#include "temp_directory.h"

extern char** environ;

namespace {

constexpr int kExitSkipped = 77;
constexpr long kDefaultProcesses = 20000;
constexpr long kMaxProcesses = 100000;
constexpr std::chrono::milliseconds kStep{500};
constexpr int kMaxSteps = 120;
constexpr std::int64_t kQuietNs = 500000;
constexpr std::uint32_t kKinds = NEUtils::kForkEvent | NEUtils::kExecEvent | NEUtils::kExitEvent | NEUtils::kUidEvent;

struct Counts {
    std::uint64_t fork = 0;
    std::uint64_t exec = 0;
    std::uint64_t exit = 0;
};

struct Result {
    Counts seen;
    std::int64_t lost = -1;  // -1: the reader cannot tell
    std::int64_t cpuNs = 0;
};

// Written by the reading thread alone, so plain stores do; the main thread looks on.
struct Tally {
    std::atomic<std::uint64_t> fork{0};
    std::atomic<std::uint64_t> exec{0};
    std::atomic<std::uint64_t> exit{0};
    std::atomic<bool> known{false};
    clockid_t clock{};  // of the reading thread, once known

    void Count(std::uint32_t what)
    {
        if (!known.load(std::memory_order_relaxed)) {
            pthread_getcpuclockid(pthread_self(), &clock);
            known.store(true, std::memory_order_release);
        }
        auto& counter = what == NEUtils::kForkEvent ? fork : what == NEUtils::kExecEvent ? exec : exit;
        if (what == NEUtils::kForkEvent || what == NEUtils::kExecEvent || what == NEUtils::kExitEvent) {
            counter.store(counter.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
        }
    }

    Counts Look() const { return {fork, exec, exit}; }
};

Tally g_ours;
Tally g_bare;

std::int64_t CpuNs(clockid_t clock)
{
    timespec used = {};
    clock_gettime(clock, &used);
    return used.tv_sec * 1000000000LL + used.tv_nsec;
}

bool RunProcess(const char* program)
{
    pid_t pid = 0;
    char* args[] = {const_cast<char*>(program), nullptr};
    return posix_spawn(&pid, program, nullptr, nullptr, args, environ) == 0 && waitpid(pid, nullptr, 0) == pid;
}

// The processes are made by a child, which does nothing else.
bool RunBurst(long processes)
{
    const pid_t maker = fork();
    if (maker == 0) {
        for (long i = 0; i < processes; ++i) {
            if (!RunProcess("/bin/true")) {
                _exit(1);
            }
        }
        _exit(0);
    }
    int status = -1;
    return maker > 0 && waitpid(maker, &status, 0) == maker && status == 0;
}

// Waits until the reader has nothing left to do.
void WaitQuiet(clockid_t clock)
{
    std::int64_t before = CpuNs(clock);
    for (int i = 0; i < kMaxSteps; ++i) {
        std::this_thread::sleep_for(kStep);
        const std::int64_t now = CpuNs(clock);
        if (now - before < kQuietNs) {
            return;
        }
        before = now;
    }
}

// The burst between two quiet moments: what a reader did to get ready does not count.
Result Measure(clockid_t clock, const std::function<Counts()>& look, long processes)
{
    WaitQuiet(clock);
    const Counts before = look();
    const std::int64_t start = CpuNs(clock);
    if (!RunBurst(processes)) {
        std::fprintf(stderr, "the burst failed\n");
        std::exit(1);
    }
    WaitQuiet(clock);
    const std::int64_t used = CpuNs(clock) - start;
    const Counts after = look();
    return {{after.fork - before.fork, after.exec - before.exec, after.exit - before.exit}, -1, used};
}

void WaitKnown(const Tally& tally)
{
    for (int i = 0; i < kMaxSteps && !tally.known.load(std::memory_order_acquire); ++i) {
        RunProcess("/bin/true");
        std::this_thread::sleep_for(kStep);
    }
    if (!tally.known) {
        std::fprintf(stderr, "no events arrive\n");
        std::exit(1);
    }
}

void OnEvent(proc_event* event)
{
    g_ours.Count(event->what);
}

Result MeasureOurs(long processes)
{
    NEUtils::ProcessMonitor monitor;
    monitor.SetEventKinds(kKinds);
    monitor.AddProcessEventCallback(&OnEvent);
    monitor.StartProcessMonitor();
    WaitKnown(g_ours);
    Result result = Measure(
        g_ours.clock, [] { return g_ours.Look(); }, processes);
    result.lost = static_cast<std::int64_t>(monitor.GetLostEventCount());
    monitor.StopProcessMonitor();
    return result;
}

std::int64_t Drops(int fd)
{
    std::uint32_t info[SK_MEMINFO_VARS] = {};
    socklen_t length = sizeof(info);
    return getsockopt(fd, SOL_SOCKET, SO_MEMINFO, info, &length) == 0 ? info[SK_MEMINFO_DROPS] : -1;
}

Result MeasureBare(long processes)
{
    const int fd = Connector::Open();
    std::atomic<bool> running{true};
    std::thread reader([&] { Connector::Read(fd, running, [](std::uint32_t what) { g_bare.Count(what); }); });
    WaitKnown(g_bare);
    Result result = Measure(
        g_bare.clock, [] { return g_bare.Look(); }, processes);
    result.lost = Drops(fd);
    running = false;
    reader.join();
    close(fd);
    return result;
}

// A fork has a second line, for its child, which is not counted.
Counts CountLines(const std::string& path)
{
    Counts counts;
    std::ifstream lines(path);
    for (std::string line; std::getline(lines, line);) {
        const bool fork = line.find(" fork ") != std::string::npos && line.find(" parent ") != std::string::npos;
        counts.fork += fork ? 1 : 0;
        counts.exec += line.find(" exec ") != std::string::npos ? 1 : 0;
        counts.exit += line.find(" exit ") != std::string::npos ? 1 : 0;
    }
    return counts;
}

pid_t StartForkstat(const std::string& output)
{
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, output.c_str(), O_WRONLY | O_CREAT, 0600);
    std::vector<std::string> words = {FORKSTAT_PROGRAM, "-e", "fork,exec,exit"};
    std::vector<char*> args;
    for (std::string& word : words) {
        args.push_back(word.data());
    }
    args.push_back(nullptr);
    pid_t pid = -1;
    const int error = posix_spawn(&pid, FORKSTAT_PROGRAM, &actions, nullptr, args.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (error != 0) {
        std::fprintf(stderr, "%s: %s\n", FORKSTAT_PROGRAM, std::strerror(error));
        std::exit(1);
    }
    return pid;
}

// Its output is buffered, so its few lines from before the burst count too; its time from then does not.
Result MeasureForkstat(long processes)
{
    const TempDirectory directory;
    const std::string output = directory.File("forkstat");
    const pid_t pid = StartForkstat(output);
    clockid_t clock;
    clock_getcpuclockid(pid, &clock);
    Result result = Measure(
        clock, [] { return Counts(); }, processes);
    kill(pid, SIGINT);
    waitpid(pid, nullptr, 0);
    result.seen = CountLines(output);
    return result;
}

double MicrosPerEvent(const Result& result)
{
    const std::uint64_t events = result.seen.fork + result.seen.exec + result.seen.exit;
    return events == 0 ? 0 : static_cast<double>(result.cpuNs) / 1000 / static_cast<double>(events);
}

void Print(const char* name, const Result& result, const Result& bare)
{
    const std::string lost = result.lost < 0 ? "unknown" : std::to_string(result.lost);
    std::printf("%-10s %8llu %8llu %8llu %8s %10.2f %10.2f\n", name, static_cast<unsigned long long>(result.seen.fork),
                static_cast<unsigned long long>(result.seen.exec), static_cast<unsigned long long>(result.seen.exit),
                lost.c_str(), MicrosPerEvent(result), MicrosPerEvent(result) / MicrosPerEvent(bare));
}

}  // namespace

int main(int argc, char** argv)
{
    const long processes = argc > 1 ? std::strtol(argv[1], nullptr, 10) : kDefaultProcesses;
    if (argc > 2 || processes < 1 || processes > kMaxProcesses) {
        std::fprintf(stderr, "usage: %s [PROCESSES]   1 to %ld, %ld by default\n", argv[0], kMaxProcesses,
                     kDefaultProcesses);
        return 2;
    }
    const int probe = Connector::Open();
    if (probe < 0) {
        std::fprintf(stderr, "skipped: listening to process events needs CAP_NET_ADMIN, run it as root\n");
        return kExitSkipped;
    }
    close(probe);

    std::printf("Three bursts of %ld processes, for the monitor, a bare loop and forkstat.\n", processes);
    static_cast<void>(std::fflush(stdout));
    const Result ours = MeasureOurs(processes);
    const Result bare = MeasureBare(processes);
    const Result forkstat = MeasureForkstat(processes);
    std::printf("%-10s %8s %8s %8s %8s %10s %10s\n", "reader", "fork", "exec", "exit", "lost", "us/event", "to bare");
    Print("ours", ours, bare);
    Print("bare", bare, bare);
    Print("forkstat", forkstat, bare);
    return 0;
}
