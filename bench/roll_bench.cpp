// How long a record may take that finds its file too large, beside gzip alone on the same bytes.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include "log_system.h"
#include "logger.h"
#include "temp_directory.h"

namespace {

using NEUtils::LogSystem;
using Clock = std::chrono::steady_clock;

constexpr unsigned int kLimit = 10U << 20;
constexpr int kRolls = 3;
constexpr int kMaxRecords = 1000000;  // a tenth of it is enough for one roll
constexpr double kAimMs = 5;

template <typename Function>
double MeasureMs(Function&& function)
{
    const auto start = Clock::now();
    function();
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

bool Run(const std::string& command)
{
    const bool done = std::system(command.c_str()) == 0;
    if (!done) {
        std::fprintf(stderr, "failed: %s\n", command.c_str());
    }
    return done;
}

// Gives the slowest call up to the one that rolled, or 0 if none did.
double LogUntilRolled(const std::string& newestCopy)
{
    struct stat before = {};
    stat(newestCopy.c_str(), &before);
    double longest = 0;
    for (int i = 0; i < kMaxRecords; ++i) {
        longest = std::max(longest, MeasureMs([i] {
                               NE_LOG(INFO, "Process executed.[pid=%d ppid=%d user=%s cmdLine=%s -n %d]",
                                      1000 + i % 30000, 1 + i % 977, i % 3 == 0 ? "root" : "backup",
                                      "/usr/bin/rsync -a --delete /srv/data/ backup:/srv/data/", i * 7919 % 65536);
                           }));
        struct stat now = {};
        if (stat(newestCopy.c_str(), &now) == 0 && now.st_ino != before.st_ino) {
            return longest;
        }
    }
    return 0;
}

// Compresses the bytes of the newest copy once more; a negative time stands for a failure.
double MeasureGzip(const TempDirectory& directory, const std::string& newestCopy, long long& size)
{
    const std::string equal = directory.File("equal");
    struct stat status = {};
    if (!Run("gzip -dc " + newestCopy + " > " + equal) || stat(equal.c_str(), &status) != 0) {
        return -1;
    }
    size = status.st_size;
    bool done = false;
    const double ms = MeasureMs([&] { done = Run("gzip " + equal); });
    unlink((equal + ".gz").c_str());
    return done ? ms : -1;
}

}  // namespace

int main()
{
    const TempDirectory directory;
    const std::string path = directory.File("roll.log");
    const std::string newestCopy = path + ".1.gz";
    const auto file = std::make_shared<LogSystem::LogFile>(path, INFO, kLimit, kRolls);
    if (!LogSystem::Register(file, NEUtils::kNormalLog, "RollLog", &LogSystem::GetDefaultLogContent)) {
        return 1;
    }
    double longest = 0;
    double longestGzip = 0;
    std::printf("%6s %12s %14s %10s %14s\n", "roll", "file bytes", "slowest call", "gzip", "difference ms");
    for (int roll = 1; roll <= kRolls; ++roll) {
        const double call = LogUntilRolled(newestCopy);
        long long size = 0;
        const double gzip = MeasureGzip(directory, newestCopy, size);
        if (call <= 0 || gzip < 0) {
            std::fprintf(stderr, "the file did not roll\n");
            return 1;
        }
        std::printf("%6d %12lld %14.1f %10.1f %14.1f\n", roll, size, call, gzip, call - gzip);
        static_cast<void>(std::fflush(stdout));
        longest = std::max(longest, call);
        longestGzip = std::max(longestGzip, gzip);
    }
    LogSystem::CloseAllLogFile();
    std::printf("longest call %.1f ms, longest gzip %.1f ms, difference %.1f ms (aim: at most %.0f)\n", longest,
                longestGzip, longest - longestGzip, kAimMs);
    return 0;
}
