// What a log record costs: the library's logger, spdlog, and the same system calls without either.
//
// All times are wall time divided by the records of all threads together, so a logger that scales
// without loss gives the same number for every thread count. Each file is flushed record by record.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <mutex>
#include <string>

#include "log_system.h"
#include "logger.h"
#include "median_reporter.h"
#include "temp_directory.h"

namespace {

using NEUtils::LogSystem;

constexpr unsigned int kNeverRolls = 0xFFFFFFFFU;
constexpr std::array<int, 3> kThreadCounts = {1, 2, 4};

// The fields of a typical record of about 100 characters.
constexpr int kPid = 48213;
constexpr int kParent = 1207;
constexpr char kUser[] = "root";
constexpr char kCmdLine[] = "/usr/bin/rsync -a --delete /srv/data/ backup:/srv/data/";

std::string LogPath()
{
    static const TempDirectory directory;
    return directory.File("bench.log");
}

void RemoveLog()
{
    unlink(LogPath().c_str());
}

// The library, with one file that takes INFO and above.

void OpenOurs(const benchmark::State&)
{
    const auto file = std::make_shared<LogSystem::LogFile>(LogPath(), INFO, kNeverRolls, 1);
    if (!LogSystem::Register(file, NEUtils::kNormalLog, "BenchLog", &LogSystem::GetDefaultLogContent)) {
        std::abort();
    }
}

void CloseOurs(const benchmark::State&)
{
    LogSystem::CloseAllLogFile();
    RemoveLog();
}

void Ours(benchmark::State& state)
{
    for ([[maybe_unused]] auto step : state) {
        NE_LOG(INFO, "Process executed.[pid=%d ppid=%d user=%s cmdLine=%s]", kPid, kParent, kUser, kCmdLine);
    }
}

void OursUnwantedLevel(benchmark::State& state)
{
    for ([[maybe_unused]] auto step : state) {
        NE_LOG(DEBUG, "Process executed.[pid=%d ppid=%d user=%s cmdLine=%s]", kPid, kParent, kUser, kCmdLine);
    }
}

void OursNoSubscriber(benchmark::State& state)
{
    for ([[maybe_unused]] auto step : state) {
        LoggerWriteLog("NobodyLog", INFO, NEUTILS_FILE_NAME, __LINE__,
                       "Process executed.[pid=%d ppid=%d user=%s cmdLine=%s]", kPid, kParent, kUser, kCmdLine);
    }
}

// spdlog, with a layout of the same fields.

std::unique_ptr<spdlog::logger> g_spdlog;

void OpenSpdlog(const benchmark::State&)
{
    g_spdlog =
        std::make_unique<spdlog::logger>("bench", std::make_shared<spdlog::sinks::basic_file_sink_mt>(LogPath(), true));
    g_spdlog->set_pattern("%Y%m%d %H:%M:%S %l [%s:%#] [%t] %v");
    g_spdlog->flush_on(spdlog::level::trace);
}

void CloseSpdlog(const benchmark::State&)
{
    g_spdlog.reset();
    RemoveLog();
}

void Spdlog(benchmark::State& state)
{
    for ([[maybe_unused]] auto step : state) {
        SPDLOG_LOGGER_INFO(g_spdlog, "Process executed.[pid={} ppid={} user={} cmdLine={}]", kPid, kParent, kUser,
                           kCmdLine);
    }
}

// The same formatting and system calls, written down one after the other.

std::FILE* g_bareStream = nullptr;
std::mutex g_bareMutex;
unsigned g_bareCount = 0;
const std::string* g_barePath = nullptr;

void OpenBare(const benchmark::State&)
{
    static const std::string path = LogPath();
    g_barePath = &path;
    g_bareStream = std::fopen(path.c_str(), "a+xe");
    if (g_bareStream == nullptr) {
        std::abort();
    }
}

void CloseBare(const benchmark::State&)
{
    std::fclose(g_bareStream);
    RemoveLog();
}

// Broken down once a second, as the library does.
const struct tm& BareTime()
{
    thread_local time_t second = 0;
    thread_local struct tm broken = {};
    const time_t now = std::time(nullptr);
    if (now != second) {
        localtime_r(&now, &broken);
        second = now;
    }
    return broken;
}

void BareWrite(const char* line, std::size_t length)
{
    const std::lock_guard<std::mutex> lock(g_bareMutex);
    if (++g_bareCount % 50 == 0) {
        struct stat size = {};
        benchmark::DoNotOptimize(stat(g_barePath->c_str(), &size));
    }
    const int fd = fileno_unlocked(g_bareStream);
    struct statx status = {};
    benchmark::DoNotOptimize(statx(fd, "", AT_EMPTY_PATH, STATX_NLINK, &status));
    benchmark::DoNotOptimize(fwrite_unlocked(line, 1, length, g_bareStream));
    benchmark::DoNotOptimize(fflush_unlocked(g_bareStream));
}

void Bare(benchmark::State& state)
{
    for ([[maybe_unused]] auto step : state) {
        char message[4097];
        std::snprintf(message, sizeof(message), "Process executed.[pid=%d ppid=%d user=%s cmdLine=%s]", kPid, kParent,
                      kUser, kCmdLine);
        char thread[16] = {};
        prctl(PR_GET_NAME, thread);
        const struct tm& time = BareTime();
        char line[4224];
        const int length = std::snprintf(line, sizeof(line), "%04d%02d%02d %02d:%02d:%02d %s [%s:%u] [%s] %s\n",
                                         time.tm_year + 1900, time.tm_mon + 1, time.tm_mday, time.tm_hour, time.tm_min,
                                         time.tm_sec, "INFO", NEUTILS_FILE_NAME, __LINE__, thread, message);
        BareWrite(line, static_cast<std::size_t>(length));
    }
}

void Settle(benchmark::internal::Benchmark* bench)
{
    bench->UseRealTime()->MinTime(0.2)->Repetitions(5)->ReportAggregatesOnly(true);
}

void SettleThreads(benchmark::internal::Benchmark* bench)
{
    Settle(bench);
    for (const int threads : kThreadCounts) {
        bench->Threads(threads);
    }
}

BENCHMARK(Ours)->Setup(OpenOurs)->Teardown(CloseOurs)->Apply(SettleThreads);
BENCHMARK(Spdlog)->Setup(OpenSpdlog)->Teardown(CloseSpdlog)->Apply(SettleThreads);
BENCHMARK(Bare)->Setup(OpenBare)->Teardown(CloseBare)->Apply(SettleThreads);
BENCHMARK(OursUnwantedLevel)->Setup(OpenOurs)->Teardown(CloseOurs)->Apply(SettleThreads);
BENCHMARK(OursNoSubscriber)->Setup(OpenOurs)->Teardown(CloseOurs)->Apply(SettleThreads);

class LoggerReporter : public MedianReporter {
public:
    void Finalize() override
    {
        PrintRows("record", "ns/record");
        std::printf("\n%-20s %8s %12s %10s\n", "ratio", "threads", "ours/spdlog", "ours/bare");
        for (const int threads : kThreadCounts) {
            std::printf("%-20s %8d %12s %10s\n", "", threads, Ratio({"Ours", threads}, {"Spdlog", threads}).c_str(),
                        Ratio({"Ours", threads}, {"Bare", threads}).c_str());
        }
    }
};

}  // namespace

int main(int argc, char** argv)
{
    LoggerReporter reporter;
    return RunBenchmarks(argc, argv, reporter);
}
