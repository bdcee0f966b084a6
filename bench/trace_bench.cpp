// The process tracer beside other ways to learn of short programs: how many of their command lines are whole, and what
// that costs.
#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <dirent.h>
#include <sys/wait.h>

#include <atomic>
#include <fstream>
#include <mutex>

#include "process/trace_layout.h"
#include "process/trace_state.h"
#include "process_monitor.h"
#include "process_tracer.h"
#include "process_utils.h"
#include "readers.h"
#include "temp_directory.h"

#include <process_trace.skel.h>

namespace {

using NEUtils::ProcessMonitor;
using NEUtils::ProcessRecord;
using NEUtils::ProcessTracer;

constexpr int kExitSkipped = 77;
constexpr long kDefaultProcesses = 20000;
constexpr long kMaxProcesses = 100000;
constexpr const char* kMark = "neutils-bench-";

// What a reader has seen. Written by one thread, looked at by another.
struct Seen {
    std::atomic<std::int64_t> events{0};
    std::mutex mutex;
    std::vector<bool> whole = std::vector<bool>(kMaxProcesses);
    std::vector<double> latencyUs;

    void Count(std::int64_t latencyNs)
    {
        events.fetch_add(1, std::memory_order_relaxed);
        if (latencyUs.size() < latencyUs.capacity()) {
            latencyUs.push_back(static_cast<double>(latencyNs) / 1000);
        }
    }
    void CountLine(const std::string& argument)
    {
        if (argument.compare(0, std::strlen(kMark), kMark) == 0) {
            const long number = std::strtol(argument.c_str() + std::strlen(kMark), nullptr, 10);
            whole[static_cast<std::size_t>(std::clamp(number, 0L, kMaxProcesses - 1))] = true;
        }
    }
    void Clear()
    {
        events = 0;
        whole.assign(kMaxProcesses, false);
        latencyUs.clear();
        latencyUs.reserve(4 * kMaxProcesses);
    }
};

Seen g_seen;

struct Result {
    long whole = 0;
    std::int64_t events = 0;
    std::int64_t cpuNs = 0;
    std::int64_t burstNs = 0;
    long lost = -1;
    long anonymousKiB = 0;
};

long AnonymousKiB()
{
    std::ifstream file("/proc/self/smaps_rollup");
    for (std::string word; file >> word;) {
        if (word == "Anonymous:") {
            long size = 0;
            file >> size;
            return size;
        }
    }
    return 0;
}

// Processor time of the threads of this process with these names.
std::int64_t CpuNsOf(const std::vector<std::string>& names)
{
    std::int64_t sum = 0;
    DIR* const tasks = opendir("/proc/self/task");
    while (const dirent* const entry = readdir(tasks)) {
        const std::string task = std::string("/proc/self/task/") + entry->d_name;
        std::string name;
        std::int64_t used = 0;
        std::ifstream(task + "/comm") >> name;
        if (std::find(names.begin(), names.end(), name) != names.end()) {
            std::ifstream(task + "/schedstat") >> used;
            sum += used;
        }
    }
    closedir(tasks);
    return sum;
}

void MakePrograms(long count)
{
    for (long i = 0; i < count; ++i) {
        std::string mark = kMark + std::to_string(i);
        char program[] = "/bin/true";
        char* args[] = {program, mark.data(), nullptr};
        pid_t pid = 0;
        if (posix_spawn(&pid, program, nullptr, nullptr, args, environ) != 0 || waitpid(pid, nullptr, 0) != pid) {
            _exit(1);
        }
    }
}

// Until nothing comes any more. On a host with other work there is always something.
void WaitQuiet()
{
    std::int64_t before = -1;
    for (int i = 0; i < 8 && before != g_seen.events; ++i) {
        before = g_seen.events;
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
    }
}

Result Measure(long processes, const std::function<std::int64_t()>& cpuNs)
{
    WaitQuiet();
    g_seen.Clear();
    Result result;
    const std::int64_t cpu = cpuNs();
    const std::int64_t start = Readers::NowNs();
    Readers::RunInChild([=] { MakePrograms(processes); });
    result.burstNs = Readers::NowNs() - start;
    WaitQuiet();
    result.cpuNs = cpuNs() - cpu;
    result.events = g_seen.events;
    result.whole = std::count(g_seen.whole.begin(), g_seen.whole.end(), true);
    return result;
}

Result MeasureTracer(long processes, ProcessTracer::Source source, int wakeMs)
{
    ProcessTracer tracer;
    ProcessTracer::Settings settings;
    settings.source = source;
    settings.wakeMs = wakeMs;
    const long before = AnonymousKiB();
    const bool started = tracer.Start(settings, [](const ProcessRecord& record) {
        g_seen.Count(Readers::NowNs(CLOCK_BOOTTIME) - static_cast<std::int64_t>(record.bootNs));
        if (record.kind == ProcessRecord::kExec && record.whole && record.args.size() == 2) {
            g_seen.CountLine(record.args[1]);
        }
    });
    if (!started) {
        std::fprintf(stderr, "skipped: the tracer's source needs rights, run it as root\n");
        std::exit(kExitSkipped);
    }
    Result result = Measure(processes, [] { return CpuNsOf({"process-tracer", "process-reader"}); });
    result.lost = static_cast<long>(tracer.GetCounts().lost.Total());
    result.anonymousKiB = AnonymousKiB() - before;
    return result;
}

// As a feature does it: the command line is read when the event is handed over.
void OnEvent(proc_event* event)
{
    g_seen.Count(Readers::NowNs() - static_cast<std::int64_t>(event->timestamp_ns));
    std::string line;
    if (event->what == NEUtils::kExecEvent && ProcessUtils::GetCmdLine(event->event_data.exec.process_tgid, line) &&
        line.compare(0, 10, "/bin/true ") == 0) {
        g_seen.CountLine(line.substr(10));
    }
}

Result MeasureMonitor(long processes)
{
    ProcessMonitor monitor;
    monitor.SetEventKinds(NEUtils::kForkEvent | NEUtils::kExecEvent | NEUtils::kExitEvent);
    monitor.AddProcessEventCallback(&OnEvent);
    monitor.StartProcessMonitor();
    std::this_thread::sleep_for(std::chrono::seconds(2));
    Result result = Measure(processes, [] { return CpuNsOf({"monitor-process"}); });
    result.lost = static_cast<long>(monitor.GetLostEventCount());
    monitor.StopProcessMonitor();
    return result;
}

// The same programs with nothing but libbpf and a look at the arguments around them.
int OnBareRecord(void*, void* data, std::size_t)
{
    const auto& head = *static_cast<const trace_head*>(data);
    g_seen.Count(Readers::NowNs(CLOCK_BOOTTIME) - static_cast<std::int64_t>(head.time));
    if (head.kind == TRACE_EXEC) {
        const char* const args = static_cast<const char*>(data) + sizeof(head) + head.path_size + head.interpreter_size;
        const std::size_t first = strnlen(args, head.args_size) + 1;
        if (first < head.args_size) {
            g_seen.CountLine(args + first);
        }
    }
    return 0;
}

Result MeasureBare(long processes)
{
    process_trace* const programs = process_trace__open();
    programs->rodata->wake_size = 1 << 20;
    if (process_trace__load(programs) != 0 || process_trace__attach(programs) != 0) {
        Readers::Fail("trace programs");
    }
    ring_buffer* const ring = ring_buffer__new(bpf_map__fd(programs->maps.ring), &OnBareRecord, nullptr, nullptr);
    std::atomic<bool> running{true};
    std::thread reader([&] {
        pthread_setname_np(pthread_self(), "bare-ring");
        while (running) {
            ring_buffer__consume(ring);
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
    });
    Result result = Measure(processes, [] { return CpuNsOf({"bare-ring"}); });
    const __u64* const lost = programs->bss->state.lost;
    result.lost = static_cast<long>(lost[TRACE_FORK] + lost[TRACE_EXEC] + lost[TRACE_EXIT]);
    running = false;
    reader.join();
    ring_buffer__free(ring);
    process_trace__destroy(programs);
    return result;
}

Result MeasureForkstat(long processes)
{
    const TempDirectory directory;
    const int output = open(directory.File("forkstat").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    const pid_t pid = Readers::StartProgram({FORKSTAT_PROGRAM, "-e", "fork,exec,exit"}, "/", output, output);
    clockid_t clock = {};
    clock_getcpuclockid(pid, &clock);
    std::this_thread::sleep_for(std::chrono::seconds(1));
    Result result = Measure(processes, [=] { return Readers::NowNs(clock); });
    kill(pid, SIGINT);
    waitpid(pid, nullptr, 0);
    lseek(output, 0, SEEK_SET);
    Readers::ForEachLine(output, [&](const char* line) {
        result.events += std::strstr(line, " exec ") != nullptr || std::strstr(line, " exit ") != nullptr ||
                                 std::strstr(line, " parent ") != nullptr
                             ? 1
                             : 0;
        const char* const mark = std::strstr(line, kMark);
        if (mark != nullptr && std::strstr(line, " exec ") != nullptr) {
            g_seen.CountLine(mark);
        }
    });
    result.whole = std::count(g_seen.whole.begin(), g_seen.whole.end(), true);
    return result;
}

double PerEvent(const Result& result)
{
    return result.events == 0 ? 0 : static_cast<double>(result.cpuNs) / 1000 / static_cast<double>(result.events);
}

void Print(const char* name, const Result& result, const Result& bare, const Result& none, long processes)
{
    const std::string lost = result.lost < 0 ? "unknown" : std::to_string(result.lost);
    std::printf("%-12s %9.2f %8lld %8s %9.2f %8.2f %10.2f %8.2f %10.1f %8ld\n", name,
                100.0 * static_cast<double>(result.whole) / static_cast<double>(processes),
                static_cast<long long>(result.events), lost.c_str(), PerEvent(result),
                PerEvent(result) / PerEvent(bare), Readers::Percentile(g_seen.latencyUs, 0.5) / 1000,
                Readers::Percentile(g_seen.latencyUs, 0.99) / 1000,
                static_cast<double>(result.burstNs - none.burstNs) / 1000 / static_cast<double>(processes),
                result.anonymousKiB);
    static_cast<void>(std::fflush(stdout));
}

// The kernel's own statistics of the programs.
void PrintPrograms(long processes)
{
    const int statistics = bpf_enable_stats(BPF_STATS_RUN_TIME);
    ProcessTracer tracer;
    if (statistics < 0 || !tracer.Start({}, [](const ProcessRecord&) {})) {
        return;
    }
    Readers::RunInChild([=] { MakePrograms(processes); });
    for (__u32 id = 0; bpf_prog_get_next_id(id, &id) == 0;) {
        const int program = bpf_prog_get_fd_by_id(id);
        bpf_prog_info info = {};
        __u32 size = sizeof(info);
        if (bpf_obj_get_info_by_fd(program, &info, &size) == 0 && std::strncmp(info.name, "trace_", 6) == 0) {
            std::printf(
                "%-12s %6.2f us a run, %llu runs, %llu misses\n", info.name,
                static_cast<double>(info.run_time_ns) / 1000 / static_cast<double>(std::max<__u64>(info.run_cnt, 1)),
                static_cast<unsigned long long>(info.run_cnt), static_cast<unsigned long long>(info.recursion_misses));
        }
        close(program);
    }
    close(statistics);
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
    std::printf("Seven bursts of %ld processes.\n", processes);
    std::printf("%-12s %9s %8s %8s %9s %8s %10s %8s %10s %8s\n", "reader", "whole %", "events", "lost", "us/event",
                "to bare", "median ms", "99 % ms", "us/process", "KiB");
    g_seen.Clear();
    const Result none = Measure(processes, [] { return 0; });
    const Result bare = MeasureBare(processes);
    Print("bare ring", bare, bare, none, processes);
    Print("trace", MeasureTracer(processes, ProcessTracer::kTrace, 20), bare, none, processes);
    Print("trace, each", MeasureTracer(processes, ProcessTracer::kTrace, 0), bare, none, processes);
    Print("connector", MeasureTracer(processes, ProcessTracer::kConnector, 20), bare, none, processes);
    Print("monitor", MeasureMonitor(processes), bare, none, processes);
    Print("forkstat", MeasureForkstat(processes), bare, none, processes);
    PrintPrograms(processes);
    return 0;
}
