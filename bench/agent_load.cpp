// The load of agent_load.sh, and the bare readers beside the agent: loops that take the same events and only count.
//   agent_load make DIRECTORY SECONDS   1,000 process events and 1,000 file changes a second, 10 opens of guarded files
//   agent_load read DIRECTORY           until SIGTERM
// DIRECTORY holds tree/ with directories d0 to d99, and guarded/ with files g0 to g9.
#include <sys/fanotify.h>
#include <sys/inotify.h>
#include <sys/stat.h>

#include <array>
#include <atomic>

#include "connector.h"
#include "process_monitor.h"
#include "readers.h"

namespace {

using namespace Readers;

constexpr int kTicks = 100;  // a second
constexpr std::int64_t kTickNs = 1000000000 / kTicks;
constexpr int kChanges = 10;  // a tick
constexpr int kDirectories = 100;
constexpr int kFiles = 1100;  // so that files are left in several states at the end of whole minutes
constexpr int kGuarded = 10;  // each opened once a second: the kernel merges events of one file
constexpr std::uint32_t kTreeMask = IN_CREATE | IN_DELETE | IN_MOVE | IN_CLOSE_WRITE | IN_ATTRIB;

std::string TreeFile(const std::string& directory, long i, const char* prefix)
{
    return directory + "/tree/d" + std::to_string(i % kDirectories) + prefix + std::to_string(i);
}

std::string GuardedFile(const std::string& directory, long i)
{
    return directory + "/guarded/g" + std::to_string(i % kGuarded);
}

void Require(bool done, const char* what)
{
    if (!done) {
        Fail(what);
    }
}

class Load {
public:
    explicit Load(std::string directory) : directory_(std::move(directory)) {}

    void Run(long ticks)
    {
        const std::int64_t start = NowNs();
        for (long tick = 0; tick < ticks; ++tick) {
            WaitUntil(start + tick * kTickNs);
            MakeTick(tick);
        }
        while (wait(nullptr) > 0) {
        }
        std::printf("spawned=%ld created=%ld written=%ld renamed=%ld deleted=%ld opened=%ld milliseconds=%lld\n",
                    spawned_, done_[0], done_[1], done_[2], done_[3], opened_,
                    static_cast<long long>((NowNs() - start) / 1000000));
    }

private:
    static void WaitUntil(std::int64_t ns)
    {
        const timespec time = {ns / 1000000000, ns % 1000000000};
        clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &time, nullptr);
    }

    void MakeTick(long tick)
    {
        while (spawned_ < (tick + 1) * 10 / 3) {
            Spawn();
        }
        for (int i = 0; i < kChanges; ++i) {
            Change();
        }
        if (tick % (kTicks / 10) == 0) {
            const int fd = open(GuardedFile(directory_, opened_++).c_str(), O_RDONLY | O_CLOEXEC);
            Require(fd >= 0 && close(fd) == 0, "open");
        }
        while (waitpid(-1, nullptr, WNOHANG) > 0) {
        }
    }

    // Every other one lives long enough to be looked at.
    void Spawn()
    {
        char brief[] = "/bin/true";
        char longer[] = "/bin/sleep";
        char time[] = "0.1";
        char* args[] = {spawned_ % 2 == 0 ? brief : longer, spawned_ % 2 == 0 ? nullptr : time, nullptr};
        pid_t pid = -1;
        Require(posix_spawn(&pid, args[0], nullptr, nullptr, args, environ) == 0, args[0]);
        ++spawned_;
    }

    // One change is one report: a file is made without being opened.
    void Change()
    {
        const long i = changes_ % kFiles;
        const long step = changes_ / kFiles % 4;
        const std::string path = TreeFile(directory_, i, "/f");
        const std::string renamed = TreeFile(directory_, i, "/r");
        bool done = false;
        switch (step) {
        case 0:
            done = mknod(path.c_str(), S_IFREG | 0600, 0) == 0;
            break;
        case 1:
            done = Write(path);
            break;
        case 2:
            done = rename(path.c_str(), renamed.c_str()) == 0;
            break;
        default:
            done = unlink(renamed.c_str()) == 0;
        }
        Require(done, "change");
        ++done_[static_cast<std::size_t>(step)];
        ++changes_;
    }

    bool Write(const std::string& path) const
    {
        const std::string text = "change " + std::to_string(changes_) + "\n";
        const int fd = open(path.c_str(), O_WRONLY | O_CLOEXEC);
        return fd >= 0 && write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size()) && close(fd) == 0;
    }

    const std::string directory_;
    long spawned_ = 0;
    long opened_ = 0;
    long changes_ = 0;
    std::array<long, 4> done_{};  // created, written, renamed, deleted
};

// The bare readers, a thread each.

struct Tally {
    std::atomic<long> processes{0};
    std::atomic<long> changes{0};
    std::atomic<long> opens{0};
};

void ReadProcesses(Tally& tally)
{
    static const std::atomic<bool> running{true};
    const int fd = Connector::Open();
    Require(fd >= 0, "netlink");
    Connector::Read(fd, running, [&tally](std::uint32_t what) {
        constexpr std::uint32_t kKinds = NEUtils::kForkEvent | NEUtils::kExecEvent | NEUtils::kExitEvent;
        tally.processes += (what & kKinds) != 0 ? 1 : 0;
    });
}

[[noreturn]] void ReadTree(const std::string& directory, Tally& tally)
{
    const int fd = inotify_init1(IN_CLOEXEC);
    for (int i = 0; i < kDirectories; ++i) {
        const std::string path = directory + "/tree/d" + std::to_string(i);
        Require(inotify_add_watch(fd, path.c_str(), kTreeMask) >= 0, "inotify");
    }
    alignas(inotify_event) static char buffer[65536];
    for (;;) {
        const ssize_t length = read(fd, buffer, sizeof(buffer));
        for (ssize_t place = 0; place < length;) {
            const auto* record = reinterpret_cast<const inotify_event*>(buffer + place);
            tally.changes += (record->mask & IN_MOVED_FROM) == 0 ? 1 : 0;
            place += static_cast<ssize_t>(sizeof(*record) + record->len);
        }
    }
}

[[noreturn]] void ReadGuarded(const std::string& directory, Tally& tally)
{
    const int fd = fanotify_init(FAN_CLOEXEC | FAN_CLASS_NOTIF, O_RDONLY);
    const std::string path = directory + "/guarded";
    Require(fd >= 0 && fanotify_mark(fd, FAN_MARK_ADD, FAN_OPEN | FAN_EVENT_ON_CHILD, AT_FDCWD, path.c_str()) == 0,
            "fanotify");
    static fanotify_event_metadata records[100];
    for (;;) {
        const ssize_t length = read(fd, records, sizeof(records));
        for (std::size_t i = 0; length > 0 && i < static_cast<std::size_t>(length) / sizeof(records[0]); ++i) {
            char name[4096];
            const std::string link = "/proc/self/fd/" + std::to_string(records[i].fd);
            tally.opens += readlink(link.c_str(), name, sizeof(name)) > 0 ? 1 : 0;
            close(records[i].fd);
        }
    }
}

[[noreturn]] void ReadBare(const std::string& directory)
{
    static Tally tally;
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    const auto start = [](const char* name, auto reader) {
        std::thread thread(reader);
        pthread_setname_np(thread.native_handle(), name);
        thread.detach();
    };
    start("netlink", [] { ReadProcesses(tally); });
    start("inotify", [&directory] { ReadTree(directory, tally); });
    start("fanotify", [&directory] { ReadGuarded(directory, tally); });
    int signo = 0;
    sigwait(&signals, &signo);
    std::printf("processes=%ld changes=%ld opens=%ld\n", tally.processes.load(), tally.changes.load(),
                tally.opens.load());
    static_cast<void>(std::fflush(stdout));
    _exit(0);
}

}  // namespace

int main(int argc, char** argv)
{
    constexpr long kMaxSeconds = 3600;
    const std::string mode = argc > 2 ? argv[1] : "";
    const long seconds = argc == 4 ? std::strtol(argv[3], nullptr, 10) : 0;
    if (mode == "read" && argc == 3) {
        ReadBare(argv[2]);
    }
    if (mode != "make" || seconds < 1 || seconds > kMaxSeconds) {
        std::fprintf(stderr, "usage: %s make DIRECTORY SECONDS | read DIRECTORY\n", argv[0]);
        return 2;
    }
    Load(argv[2]).Run(seconds * kTicks);
    return 0;
}
