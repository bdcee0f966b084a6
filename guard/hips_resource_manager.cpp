#include "hips_resource_manager.h"

#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <string>
#include <vector>

#include "byte_buffer.h"
#include "guard/check_log.h"
#include "util/clock.h"
#include "util/file.h"

namespace NEUtils {

namespace {

constexpr std::int64_t kErrorPeriodNs = 15 * 60 * Clock::kNsPerSecond;

std::int64_t ProcessorNs()
{
    timespec used = {};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &used);
    return std::int64_t{used.tv_sec} * Clock::kNsPerSecond + used.tv_nsec;
}

// The second number of statm is the resident memory in pages.
bool ResidentKiB(long& kib)
{
    ByteBuffer content;
    if (!FileOperation::ReadAllNosize("/proc/self/statm", content) || content.GetSize() == 0) {
        return false;
    }
    char* end = nullptr;
    std::strtol(reinterpret_cast<const char*>(content.GetBuffer()), &end, 10);
    kib = std::strtol(end, nullptr, 10) * (sysconf(_SC_PAGESIZE) / 1024);
    return true;
}

bool OpenDescriptors(int& count)
{
    std::vector<std::string> names;
    if (!FileOperation::ListDirectory("/proc/self/fd", names)) {
        rlimit limit = {};
        if (errno != EMFILE || getrlimit(RLIMIT_NOFILE, &limit) != 0) {
            return false;
        }
        count = static_cast<int>(limit.rlim_cur);  // all in use, so there is none left to count them with
        return true;
    }
    count = static_cast<int>(names.size()) - 1;  // one of them was the directory's own
    return true;
}

}  // namespace

HipsResourceManager::HipsResourceManager(unsigned long mainThread, long memLimitKiB, double cpuPercent)
    : mainThread_(mainThread), lastNs_(Clock::MonotonicNs()), lastCpuNs_(ProcessorNs())
{
    SetLimits(memLimitKiB, 0, cpuPercent);
}

void HipsResourceManager::SetLimits(long memLimitKiB, int fdLimit, double cpuPercent)
{
    const std::lock_guard<std::mutex> lock(mutex_);
    memory_.limit = static_cast<double>(memLimitKiB);
    fds_.limit = fdLimit;
    cpu_.limit = cpuPercent;
}

HipsResourceManager::Verdict HipsResourceManager::Judge(Watch& watch, double used, std::int64_t nowNs)
{
    watch.used = used;
    if (watch.limit <= 0) {
        watch.above = false;
        return kQuiet;
    }
    if (used > watch.limit) {
        if (nowNs < watch.nextErrorNs) {
            return kQuiet;
        }
        watch.above = true;
        watch.nextErrorNs = nowNs + kErrorPeriodNs;
        return kCrossed;
    }
    const bool wasAbove = watch.above;
    watch.above = false;
    return wasAbove ? kBack : kQuiet;
}

bool HipsResourceManager::Update()
{
    long kib = 0;
    int descriptors = 0;
    const bool memoryKnown = ResidentKiB(kib);
    const bool descriptorsKnown = OpenDescriptors(descriptors);
    struct Report {
        const char* name;
        Verdict verdict;
        double used;
        double limit;
    };
    std::vector<Report> reports;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        const std::int64_t now = Clock::MonotonicNs();
        const auto judge = [&](const char* name, Watch& watch, double used) {
            const Verdict verdict = Judge(watch, used, now);
            reports.push_back({name, verdict, watch.used, watch.limit});
        };
        if (now - lastNs_ >= Clock::kNsPerSecond) {  // over a shorter time the measuring itself counts most
            const std::int64_t cpuNs = ProcessorNs();
            judge("cpu percent", cpu_,
                  100.0 * static_cast<double>(cpuNs - lastCpuNs_) / static_cast<double>(now - lastNs_));
            lastNs_ = now;
            lastCpuNs_ = cpuNs;
        }
        if (memoryKnown) {
            judge("memory KiB", memory_, static_cast<double>(kib));
        }
        if (descriptorsKnown) {
            judge("descriptors", fds_, descriptors);
        }
    }
    for (const Report& report : reports) {
        if (report.verdict == kCrossed) {
            CHECK_LOG(ERROR, "Self resource usage is above its limit.[measure=%s used=%.1f limit=%.1f mainThread=%lu]",
                      report.name, report.used, report.limit, mainThread_);
        } else if (report.verdict == kBack) {
            CHECK_LOG(INFO, "Self resource usage is below its limit again.[measure=%s used=%.1f limit=%.1f]",
                      report.name, report.used, report.limit);
        }
    }
    return memoryKnown && descriptorsKnown;
}

double HipsResourceManager::GetCpuUsage() const
{
    const std::lock_guard<std::mutex> lock(mutex_);
    return cpu_.used;
}

long HipsResourceManager::GetMemoryUsage() const
{
    const std::lock_guard<std::mutex> lock(mutex_);
    return static_cast<long>(memory_.used);
}

int HipsResourceManager::GetFdUsage() const
{
    const std::lock_guard<std::mutex> lock(mutex_);
    return static_cast<int>(fds_.used);
}

}  // namespace NEUtils
