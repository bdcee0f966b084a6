// What watching files costs: the watcher alone, the whole monitor, a bare inotify loop and inotifywait, each during
// an equal storm of changes, and at single changes; what it takes to watch a large tree; and a full attribute table.
#include <ftw.h>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/mman.h>

#include <array>
#include <atomic>
#include <filesystem>
#include <fstream>

#include "attribute.h"
#include "inotify_monitor.h"
#include "inotify_watcher.h"
#include "readers.h"
#include "temp_directory.h"

namespace {

using namespace Readers;

constexpr std::uint32_t kMask = IN_CREATE | IN_MODIFY | IN_MOVE | IN_DELETE;
constexpr int kFiles = 20000;
constexpr int kDirectories = 200;
constexpr int kSingleFiles = 500;
constexpr int kMovedOut = 100;
constexpr int kTops = 100;
constexpr int kSubs = 99;
constexpr int kTreeRuns = 3;
constexpr int kRecords = 21000;
constexpr int kRecordsEach = 105;

// Written by the reading thread alone; the main thread looks on.
struct Tally {
    std::array<std::atomic<long>, 4> told{};  // created, written, renamed, deleted
    std::atomic<long> overflows{0};
    std::atomic<bool> held{false};
    std::vector<std::int64_t> arrivals;  // not kept during a storm
    bool keepsArrivals = false;

    void Count(std::uint32_t mask)
    {
        constexpr std::uint32_t kKinds[] = {IN_CREATE, IN_MODIFY, IN_MOVED_TO, IN_DELETE};
        if (keepsArrivals && (mask & (IN_CREATE | IN_MODIFY | IN_MOVED_TO | IN_DELETE)) != 0) {
            arrivals.push_back(NowNs());
        }
        for (std::size_t i = 0; i < told.size(); ++i) {
            if ((mask & kKinds[i]) != 0) {
                told[i].store(told[i].load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
            }
        }
        overflows += (mask & IN_Q_OVERFLOW) != 0 ? 1 : 0;
    }

    // A rename is two records of the kernel's.
    [[nodiscard]] long Records() const { return told[0] + told[1] + 2 * told[2] + told[3]; }
};

void OnEvent(const NEUtils::Monitor::FileEvent& event, void* userData)
{
    auto& tally = *static_cast<Tally*>(userData);
    tally.Count(event.mask);
    while (tally.held) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

// How changes are made: pauses come after so many of them; their times are taken down where there is room.
struct Pace {
    int changes = 0;
    long pauseNs = 0;
    std::int64_t* starts = nullptr;

    template <typename Change>
    void Make(Change change)
    {
        if (starts != nullptr) {
            *starts++ = NowNs();
        }
        if (!change()) {
            Fail("change");
        }
        if (changes > 0 && ++done % changes == 0) {
            const timespec pause = {0, pauseNs};
            nanosleep(&pause, nullptr);
        }
    }

    int done = 0;
};

std::string FilePath(const std::string& tree, int i, const char* prefix)
{
    return tree + "/d" + std::to_string(i % kDirectories) + prefix + std::to_string(i);
}

bool Touch(const std::string& path, int flags, bool writes)
{
    const int fd = open(path.c_str(), O_WRONLY | O_CLOEXEC | flags, 0600);
    return fd >= 0 && (!writes || write(fd, "x", 1) == 1) && close(fd) == 0;
}

void MakeFiles(const std::string& tree, int files, Pace& pace)
{
    for (int i = 0; i < files; ++i) {
        const std::string path = FilePath(tree, i, "/f");
        pace.Make([&] { return Touch(path, O_CREAT, false); });
    }
}

void ChangeFiles(const std::string& tree, int files, Pace pace)
{
    MakeFiles(tree, files, pace);
    for (int i = 0; i < files; ++i) {
        const std::string path = FilePath(tree, i, "/f");
        pace.Make([&] { return Touch(path, 0, true); });
    }
    for (int i = 0; i < files; ++i) {
        const std::string path = FilePath(tree, i, "/f");
        const std::string renamed = FilePath(tree, i, "/r");
        pace.Make([&] { return rename(path.c_str(), renamed.c_str()) == 0; });
    }
    for (int i = 0; i < files; ++i) {
        const std::string path = FilePath(tree, i, "/r");
        pace.Make([&] { return unlink(path.c_str()) == 0; });
    }
}

// The readers: each looks at the tree while the work, which gets its clock, is done.
using Work = std::function<void(clockid_t, const Progress&)>;

void WithMonitor(const std::string& tree, Tally& tally, const Work& work)
{
    NEUtils::InotifyMonitor monitor;
    if (!monitor.Init() || !monitor.AddRule({tree, true, kMask, {}, &OnEvent, &tally, false, false})) {
        Fail("monitor");
    }
    std::thread reader([&monitor] { monitor.ReadEvent(); });
    work(ClockOf(reader), [&tally] { return tally.Records(); });
    tally.overflows = static_cast<long>(monitor.GetOverflowCount());
    monitor.DeInit();
    reader.join();
}

void WithWatcher(const std::string& tree, Tally& tally, const Work& work)
{
    NEUtils::InotifyWatcher watcher;
    bool watched = watcher.Init();
    for (int i = 0; i < kDirectories; ++i) {
        watched = watched && watcher.AddWatch(tree + "/d" + std::to_string(i), kMask) != 0;
    }
    if (!watched) {
        Fail("watcher");
    }
    std::atomic<bool> running{true};
    std::thread reader([&] {
        std::vector<NEUtils::InotifyWatcher::Event> events;
        while (running) {
            events.clear();
            if (watcher.Poll() && watcher.ReadEvent(events)) {
                for (const auto& event : events) {
                    tally.Count(event.mask);
                }
            }
        }
    });
    work(ClockOf(reader), [&tally] { return tally.Records(); });
    running = false;
    reader.join();
    tally.overflows = static_cast<long>(watcher.GetOverflowCount());
    close(watcher.GetFd());
}

void ReadBare(int fd, const std::atomic<bool>& running, Tally& tally)
{
    alignas(inotify_event) static char buffer[65536];
    while (running) {
        const ssize_t length = read(fd, buffer, sizeof(buffer));
        for (ssize_t place = 0; place < length;) {
            const auto* record = reinterpret_cast<const inotify_event*>(buffer + place);
            tally.Count(record->mask);
            place += static_cast<ssize_t>(sizeof(*record) + record->len);
        }
    }
}

void WithBare(const std::string& tree, Tally& tally, const Work& work)
{
    const int fd = inotify_init1(IN_CLOEXEC);
    int wd = -1;
    for (int i = 0; i < kDirectories; ++i) {
        wd = inotify_add_watch(fd, (tree + "/d" + std::to_string(i)).c_str(), kMask);
    }
    if (wd < 0) {
        Fail("inotify");
    }
    std::atomic<bool> running{true};
    std::thread reader([&] { ReadBare(fd, running, tally); });
    work(ClockOf(reader), [&tally] { return tally.Records(); });
    running = false;
    inotify_rm_watch(fd, wd);  // wakes it up
    reader.join();
    close(fd);
}

void CountLine(const char* line, Tally& tally)
{
    constexpr std::pair<const char*, std::uint32_t> kNames[] = {
        {"CREATE", IN_CREATE},         {"MODIFY", IN_MODIFY}, {"MOVED_TO", IN_MOVED_TO},
        {"MOVED_FROM", IN_MOVED_FROM}, {"DELETE", IN_DELETE}, {"Q_OVER", IN_Q_OVERFLOW}};
    for (const auto& [name, mask] : kNames) {
        if (std::strncmp(line, name, std::strlen(name)) == 0) {
            tally.Count(mask);
        }
    }
}

// Its output goes into a file during a storm, so that nobody competes with it for the processors, and into a pipe
// that a thread reads where the time of each line counts.
void WithInotifywait(const std::string& tree, Tally& tally, const Work& work)
{
    const TempDirectory directory;
    const std::string name = directory.File("output");
    int ends[2] = {};
    if (pipe2(ends, O_CLOEXEC) != 0) {
        Fail("pipe");
    }
    const int output = tally.keepsArrivals ? dup(ends[1]) : open(name.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    close(ends[1]);
    const pid_t pid = StartProgram(
        {INOTIFYWAIT_PROGRAM, "-m", "-r", "-q", "-e", "create,modify,move,delete", "--format", "%e %w%f", tree}, "/",
        output, STDERR_FILENO);
    close(output);
    std::thread reader([&] { ForEachLine(ends[0], [&tally](const char* line) { CountLine(line, tally); }); });
    clockid_t clock = {};
    clock_getcpuclockid(pid, &clock);
    const Progress progress = [clock] { return NowNs(clock); };
    work(clock, progress);
    StopProgram(pid);
    reader.join();
    if (!tally.keepsArrivals) {
        ForEachLine(open(name.c_str(), O_RDONLY | O_CLOEXEC), [&tally](const char* line) { CountLine(line, tally); });
    }
}

struct Reader {
    const char* name;
    void (*with)(const std::string&, Tally&, const Work&);
};

constexpr Reader kReaders[] = {
    {"bare", &WithBare}, {"watcher", &WithWatcher}, {"monitor", &WithMonitor}, {"inotifywait", &WithInotifywait}};

void MeasureStorm(const std::string& tree, int files, const Pace& pace, const char* name)
{
    std::printf("\n%d files created, written, renamed and deleted in %d directories, %s\n", files, kDirectories, name);
    std::printf("%-12s %8s %8s %8s %8s %10s %10s %10s\n", "reader", "created", "written", "renamed", "deleted",
                "overflows", "us/record", "to bare");
    double bare = 0;
    for (const Reader& reader : kReaders) {
        Tally tally;
        std::int64_t used = 0;
        reader.with(tree, tally, [&](clockid_t clock, const Progress& progress) {
            used = CpuNsOf(clock, progress, [&] { ChangeFiles(tree, files, pace); });
        });
        const double each = static_cast<double>(used) / 1000 / static_cast<double>(std::max(tally.Records(), 1L));
        bare = bare == 0 ? each : bare;
        std::printf("%-12s %8ld %8ld %8ld %8ld %10ld %10.2f %10.2f\n", reader.name, tally.told[0].load(),
                    tally.told[1].load(), tally.told[2].load(), tally.told[3].load(), tally.overflows.load(), each,
                    each / bare);
        static_cast<void>(std::fflush(stdout));
    }
}

// The callback does not return until all files have been made, so the kernel's queue overflows.
void MeasureOverflow(const std::string& tree)
{
    Tally tally;
    tally.held = true;
    double took = 0;
    WithMonitor(tree, tally, [&](clockid_t clock, const Progress& progress) {
        RunInChild([&tree] {
            Pace pace;
            MakeFiles(tree, kFiles, pace);
        });
        const std::int64_t start = NowNs();
        tally.held = false;
        for (int i = 0; i < 10000 && tally.told[0] < kFiles; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        took = static_cast<double>(NowNs() - start) / 1e6;
        CpuNsWhenDone(clock, progress);
    });
    std::printf("\n%d files created while the callback waits: %ld told, %ld overflows, caught up in %.0f ms\n", kFiles,
                tally.told[0].load(), tally.overflows.load(), took);
}

void PrintLatency(const char* name, const char* what, const std::vector<std::int64_t>& arrivals,
                  const std::int64_t* starts, std::size_t changes, std::array<double, 2>& bare)
{
    if (arrivals.size() != changes) {
        std::printf("%-12s %-12s %zu of %zu told\n", name, what, arrivals.size(), changes);
        return;
    }
    std::vector<double> took;
    for (std::size_t i = 0; i < changes; ++i) {
        took.push_back(static_cast<double>(arrivals[i] - starts[i]) / 1000);
    }
    const std::array<double, 2> figures = {Percentile(took, 0.5), Percentile(took, 0.99)};
    bare = bare[0] == 0 ? figures : bare;
    std::printf("%-12s %-12s %10.0f %10.0f %10.2f %10.2f\n", name, what, figures[0], figures[1], figures[0] / bare[0],
                figures[1] / bare[1]);
}

void MeasureLatency(const std::string& tree)
{
    const TempDirectory elsewhere;
    constexpr std::size_t kChanges = 4 * kSingleFiles;
    auto* starts = static_cast<std::int64_t*>(
        mmap(nullptr, kChanges * sizeof(std::int64_t), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    if (starts == MAP_FAILED) {
        Fail("mmap");
    }
    std::printf("\nsingle changes, from before the system call\n%-12s %-12s %10s %10s %10s %10s\n", "reader", "changes",
                "median us", "99% us", "to bare", "to bare");
    std::array<double, 2> bare = {};
    for (const Reader& reader : kReaders) {
        Tally tally;
        tally.keepsArrivals = true;
        tally.arrivals.reserve(kChanges);
        reader.with(tree, tally, [&](clockid_t clock, const Progress& progress) {
            CpuNsOf(clock, progress, [&] { ChangeFiles(tree, kSingleFiles, {1, 2000000, starts}); });
        });
        PrintLatency(reader.name, "all four", tally.arrivals, starts, kChanges, bare);
    }
    for (int i = 0; i < kMovedOut; ++i) {
        Touch(FilePath(tree, i, "/f"), O_CREAT, false);
    }
    Tally tally;
    tally.keepsArrivals = true;
    const auto moveOut = [&] {
        Pace pace = {1, 50000000, starts};
        for (int i = 0; i < kMovedOut; ++i) {
            const std::string from = FilePath(tree, i, "/f");
            pace.Make([&] { return rename(from.c_str(), elsewhere.File("moved").c_str()) == 0; });
        }
    };
    WithMonitor(tree, tally, [&](clockid_t clock, const Progress& progress) { CpuNsOf(clock, progress, moveOut); });
    PrintLatency("monitor", "moved out", tally.arrivals, starts, kMovedOut, bare);
}

long RssKiB(const std::string& process)
{
    std::ifstream file("/proc/" + process + "/statm");
    long size = 0;
    long resident = 0;
    file >> size >> resident;
    return resident * sysconf(_SC_PAGESIZE) / 1024;
}

long CountWatches(const std::string& process)
{
    long watches = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/" + process + "/fdinfo")) {
        std::ifstream lines(entry.path());
        for (std::string line; std::getline(lines, line);) {
            watches += line.compare(0, 8, "inotify ") == 0 ? 1 : 0;
        }
    }
    return watches;
}

struct Setup {
    double ms = 0;
    long kiB = 0;
    long watches = 0;
};

int g_bareFd = -1;

int WatchBare(const char* path, const struct stat* /*status*/, int type, FTW* /*place*/)
{
    return type == FTW_D && inotify_add_watch(g_bareFd, path, kMask) < 0 ? 1 : 0;
}

// In a process of its own, so that its growth is not met from what others have given back.
Setup SetUpIn(const std::function<bool()>& begin, const std::function<bool()>& watch)
{
    auto* shared =
        static_cast<Setup*>(mmap(nullptr, sizeof(Setup), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    RunInChild([&] {
        const bool begun = begin();
        const long before = RssKiB("self");
        const std::int64_t start = NowNs();
        if (!begun || !watch()) {
            Fail("watching a tree");
        }
        shared->ms = static_cast<double>(NowNs() - start) / 1e6;
        shared->kiB = RssKiB("self") - before;
        shared->watches = CountWatches("self");
    });
    return *shared;
}

Setup SetUpMonitor(const std::string& tree)
{
    NEUtils::InotifyMonitor monitor;
    static Tally tally;
    return SetUpIn([&] { return monitor.Init(); },
                   [&] {
                       return monitor.AddRule({tree, true, kMask, {}, &OnEvent, &tally, false, false});
                   });
}

Setup SetUpBare(const std::string& tree)
{
    return SetUpIn([] { return (g_bareFd = inotify_init1(IN_CLOEXEC)) >= 0; },
                   [&] { return nftw(tree.c_str(), &WatchBare, 64, FTW_PHYS) == 0; });
}

// All that it needs, with its start: it is done when it says so.
Setup SetUpInotifywait(const std::string& tree)
{
    int ends[2] = {};
    if (pipe2(ends, O_CLOEXEC) != 0) {
        Fail("pipe");
    }
    const std::int64_t start = NowNs();
    const pid_t pid = StartProgram(
        {INOTIFYWAIT_PROGRAM, "-m", "-t", "60", "-r", "-e", "create,modify,move,delete", tree}, "/", ends[1], ends[1]);
    close(ends[1]);
    Setup setup;
    ForEachLine(ends[0], [&](const char* line) {
        if (std::strstr(line, "established") != nullptr) {
            setup = {static_cast<double>(NowNs() - start) / 1e6, RssKiB(std::to_string(pid)),
                     CountWatches(std::to_string(pid))};
            kill(pid, SIGTERM);
        }
    });
    StopProgram(pid);
    return setup;
}

void MeasureTree()
{
    std::ifstream allowance("/proc/sys/fs/inotify/max_user_watches");
    if (int watches = 0; !(allowance >> watches) || watches < 10240) {
        std::printf("skipped the large tree: fs.inotify.max_user_watches is below 10240\n");
        return;
    }
    const TempDirectory directory;
    const std::string tree = directory.File("tree");
    for (int i = 0; i < kTops * kSubs; ++i) {
        const std::string sub = tree + "/t" + std::to_string(i / kSubs) + "/s" + std::to_string(i);
        std::filesystem::create_directories(sub);
        Touch(sub + "/file", O_CREAT, false);
    }
    std::printf("\na tree of %d directories with a file in each of %d, the median of %d\n%-12s %10s %10s %10s %10s\n",
                1 + kTops + kTops * kSubs, kTops * kSubs, kTreeRuns, "reader", "watches", "ms", "to bare", "KiB");
    using SetUp = Setup (*)(const std::string&);
    double bare = 0;
    for (const auto& [name, setUp] : {std::pair<const char*, SetUp>{"bare", &SetUpBare},
                                      {"monitor", &SetUpMonitor},
                                      {"inotifywait", &SetUpInotifywait}}) {
        std::vector<double> ms;
        Setup setup;
        for (int i = 0; i < kTreeRuns; ++i) {
            setup = setUp(tree);
            ms.push_back(setup.ms);
        }
        bare = bare == 0 ? Percentile(ms, 0.5) : bare;
        std::printf("%-12s %10ld %10.1f %10.2f %10ld\n", name, setup.watches, Percentile(ms, 0.5),
                    Percentile(ms, 0.5) / bare, setup.kiB);
    }
}

void MeasureTable()
{
    using NEUtils::Monitor::g_attrMap;
    const auto top = [](int i) { return "/data/d" + std::to_string(i) + "/"; };
    const auto fill = [&](int i) {
        for (int k = 0; k < kRecordsEach; ++k) {
            g_attrMap[top(i) + "file" + std::to_string(k)] = {};
        }
    };
    const int tops = kRecords / kRecordsEach;
    for (int i = 0; i < tops; ++i) {
        fill(i);
    }
    const auto measure = [&](const std::function<void(const std::string&)>& remove) {
        std::vector<double> took;
        for (int i = 0; i < tops; ++i) {
            const std::int64_t start = NowNs();
            remove(top(i));
            took.push_back(static_cast<double>(NowNs() - start) / 1000);
            fill(i);
        }
        return Percentile(took, 0.5);
    };
    const double ours = measure([](const std::string& path) { NEUtils::Monitor::RemoveRecordRecursive(path); });
    const double walk = measure([](const std::string& path) {
        const std::lock_guard<std::mutex> lock(NEUtils::Monitor::g_mutex);
        std::erase_if(g_attrMap, [&path](const auto& entry) { return entry.first.starts_with(path); });
    });
    std::printf("\n%d of %zu records removed by their directory: ours %.1f us, a walk over the table %.1f us (%.3f)\n",
                kRecordsEach, g_attrMap.size(), ours, walk, ours / walk);
}

}  // namespace

int main()
{
    MeasureTree();  // before anything else has grown the process
    MeasureTable();
    const TempDirectory directory;
    const std::string tree = directory.File("tree");
    for (int i = 0; i < kDirectories; ++i) {
        std::filesystem::create_directories(tree + "/d" + std::to_string(i));
    }
    MeasureStorm(tree, kFiles, {}, "at full speed");
    MeasureStorm(tree, kFiles / 4, {10, 1000000}, "10 changes, then a millisecond of pause");
    MeasureLatency(tree);
    MeasureOverflow(tree);
    return 0;
}
