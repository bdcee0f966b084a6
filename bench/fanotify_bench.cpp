// What a fanotify event costs its reader: the library's watcher, a bare loop, and fatrace, on a file system of their
// own, paced and in a burst.
#include <sched.h>
#include <sys/fanotify.h>
#include <sys/mount.h>

#include <atomic>
#include <filesystem>

#include "fanotify_watcher.h"
#include "readers.h"
#include "temp_directory.h"

namespace {

using namespace Readers;

constexpr int kExitSkipped = 77;
constexpr int kPaced = 20000;
constexpr int kBurst = 15000;
constexpr int kTouchesAtOnce = 10;
constexpr timespec kPause = {0, 2000000};

std::atomic<long> g_told{0};

// Each file is touched once, so that the kernel merges no events: every other one is opened, in a directory where this
// is an event, the others are written, in a directory where that is one.
std::string FilePath(const std::string& place, int i)
{
    return place + (i % 2 == 0 ? "/opens/" : "/writes/") + std::to_string(i);
}

void TouchFiles(const std::string& place, int count, bool paced)
{
    for (int i = 0; i < count; ++i) {
        const bool writes = i % 2 != 0;
        const int fd = open(FilePath(place, i).c_str(), (writes ? O_WRONLY : O_RDONLY) | O_CLOEXEC);
        if (fd < 0 || (writes && write(fd, "x", 1) != 1) || close(fd) != 0) {
            Fail("touching a file");
        }
        if (paced && (i + 1) % kTouchesAtOnce == 0) {
            nanosleep(&kPause, nullptr);
        }
    }
}

struct Result {
    long told = 0;
    std::int64_t cpuNs = 0;
};

Result MeasureOurs(const std::string& place, int count, bool paced)
{
    g_told = 0;
    NEUtils::FanotifyWatcher watcher;
    const auto callback = [](int, const std::string&, std::uint64_t, bool) { ++g_told; };
    if (!watcher.Init(callback) || !watcher.AddWatch(place + "/opens", FAN_OPEN) ||
        !watcher.AddWatch(place + "/writes", FAN_MODIFY)) {
        Fail("watcher");
    }
    std::atomic<bool> running{true};
    std::thread reader([&] {
        while (running) {
            if (watcher.Poll()) {
                watcher.HandleEvent();
            }
        }
    });
    const std::int64_t used = CpuNsOf(
        ClockOf(reader), [] { return g_told.load(); }, [&] { TouchFiles(place, count, paced); });
    running = false;
    reader.join();
    return {g_told, used};
}

// Does what is needed to know the path of each event.
void ReadBare(int fd, const std::atomic<bool>& running)
{
    constexpr std::size_t kRecords = 500;  // each is an open descriptor, of which a process may have 1,024
    static fanotify_event_metadata records[kRecords];
    char path[4096];
    while (running) {
        const ssize_t length = read(fd, records, sizeof(records));
        for (std::size_t i = 0; length > 0 && i < static_cast<std::size_t>(length) / sizeof(records[0]); ++i) {
            char link[64];
            std::snprintf(link, sizeof(link), "/proc/self/fd/%d", records[i].fd);
            g_told += records[i].fd >= 0 && readlink(link, path, sizeof(path)) > 0 ? 1 : 0;
            close(records[i].fd);
        }
    }
}

int OpenBare(const std::string& place)
{
    const int fd = fanotify_init(FAN_CLOEXEC | FAN_CLASS_CONTENT, O_RDONLY);
    const auto mark = [fd](const std::string& path, std::uint64_t mask) {
        return fanotify_mark(fd, FAN_MARK_ADD, mask | FAN_EVENT_ON_CHILD, AT_FDCWD, path.c_str()) == 0;
    };
    const bool marked = fd >= 0 && mark(place + "/opens", FAN_OPEN) && mark(place + "/writes", FAN_MODIFY);
    return marked ? fd : -1;
}

Result MeasureBare(const std::string& place, int count, bool paced)
{
    g_told = 0;
    const int fd = OpenBare(place);
    std::atomic<bool> running{true};
    std::thread reader([&] { ReadBare(fd, running); });
    const std::int64_t used = CpuNsOf(
        ClockOf(reader), [] { return g_told.load(); }, [&] { TouchFiles(place, count, paced); });
    const Result result = {g_told, used};
    running = false;
    TouchFiles(place, 1, false);  // wakes it up
    reader.join();
    close(fd);
    return result;
}

// It reports the whole file system, so it sees the opening of the files that are written too.
Result MeasureFatrace(const std::string& place, int count, bool paced)
{
    const TempDirectory directory;
    const std::string name = directory.File("output");
    const int output = open(name.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    const pid_t pid = StartProgram({FATRACE_PROGRAM, "-c", "-f", "OW"}, place, output, STDERR_FILENO);
    close(output);
    clockid_t clock = {};
    clock_getcpuclockid(pid, &clock);
    Result result;
    result.cpuNs = CpuNsOf(
        clock, [clock] { return NowNs(clock); }, [&] { TouchFiles(place, count, paced); });
    StopProgram(pid);
    ForEachLine(open(name.c_str(), O_RDONLY | O_CLOEXEC),
                [&result](const char* line) { result.told += std::strchr(line, '/') != nullptr ? 1 : 0; });
    return result;
}

void Measure(const std::string& place, int count, bool paced)
{
    std::printf("\n%d files opened or written, %s\n%-10s %8s %10s %10s\n", count,
                paced ? "10 in 2 ms" : "as fast as it goes", "reader", "told", "us/event", "to bare");
    using Reader = Result (*)(const std::string&, int, bool);
    double bare = 0;
    for (const auto& [name, reader] :
         {std::pair<const char*, Reader>{"bare", &MeasureBare}, {"ours", &MeasureOurs}, {"fatrace", &MeasureFatrace}}) {
        const Result result = reader(place, count, paced);
        const double each = static_cast<double>(result.cpuNs) / 1000 / static_cast<double>(std::max(result.told, 1L));
        bare = bare == 0 ? each : bare;
        std::printf("%-10s %8ld %10.2f %10.2f\n", name, result.told, each, each / bare);
        static_cast<void>(std::fflush(stdout));
    }
}

}  // namespace

int main()
{
    const TempDirectory directory;
    const std::string place = directory.File("mount");
    std::filesystem::create_directory(place);
    // The mount is seen by this program and its children alone, and ends with them.
    if (unshare(CLONE_NEWNS) != 0 || mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("none", place.c_str(), "tmpfs", 0, nullptr) != 0) {
        std::perror("skipped: a file system of its own needs CAP_SYS_ADMIN, run it as root");
        return kExitSkipped;
    }
    std::filesystem::create_directory(place + "/opens");
    std::filesystem::create_directory(place + "/writes");
    for (int i = 0; i < kPaced; ++i) {
        close(open(FilePath(place, i).c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    }
    const int probe = OpenBare(place);
    if (probe < 0) {
        std::perror("skipped: fanotify does not work here");
        umount(place.c_str());
        return kExitSkipped;
    }
    close(probe);
    Measure(place, kPaced, true);
    Measure(place, kBurst, false);
    umount(place.c_str());
    return 0;
}
