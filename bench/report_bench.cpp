// What a report costs on its way through the queue and the channel: processor time and context switches of the
// agent's side without the thread that reports, and how long a report takes, at several rates. The server is a
// process of its own that answers everything that one read has brought, in one send or each by itself.
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include "config.h"
#include "report_queue.h"
#include "temp_directory.h"

namespace {

using NEUtils::SentrelAgentMsg;

constexpr std::size_t kBody = 150;
constexpr std::int64_t kNsPerSecond = 1000000000;
constexpr std::int64_t kStepNs = 1000000;  // reports are made in steps
constexpr std::size_t kMost = 1 << 20;     // latencies
constexpr int kSeconds = 4;
constexpr std::array<int, 4> kRates = {20, 1000, 10000, 0};  // a second; 0: as fast as the queue takes them

void Require(bool done, const char* what)
{
    if (!done) {
        std::perror(what);
        std::exit(1);
    }
}

std::int64_t NowNs()
{
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * kNsPerSecond + now.tv_nsec;
}

// Latencies, in memory that the server shares.
struct Times {
    std::size_t count;
    std::array<std::int64_t, kMost> ns;
};

// Answers everything; notes the time of each report, which is at the front of its body.
class Server {
public:
    Server(int fd, bool joins, Times& times) : fd_(fd), joins_(joins), times_(times) {}

    void Run()
    {
        std::vector<char> buffer(1U << 20U);
        std::size_t end = 0;
        for (ssize_t count = 0; (count = recv(fd_, &buffer[end], buffer.size() - end, 0)) > 0;) {
            end += static_cast<std::size_t>(count);
            const std::size_t used = Answer(buffer.data(), end);
            end -= used;
            std::memmove(buffer.data(), &buffer[used], end);
        }
    }

private:
    std::size_t Answer(const char* bytes, std::size_t size)
    {
        std::string answers;
        std::size_t at = 0;
        for (SentrelAgentMsg header; size - at >= sizeof(header); at += sizeof(header) + header.length) {
            std::memcpy(&header, bytes + at, sizeof(header));
            if (size - at < sizeof(header) + header.length) {
                break;
            }
            if (header.length == kBody && times_.count < kMost) {
                std::int64_t made = 0;
                std::memcpy(&made, bytes + at + sizeof(header), sizeof(made));
                times_.ns[times_.count++] = NowNs() - made;
            }
            const SentrelAgentMsg answer = {NEUtils::kMsgVersion, header.type + 1, header.seq, 0};
            answers.append(reinterpret_cast<const char*>(&answer), sizeof(answer));
        }
        const std::size_t piece = joins_ ? std::max<std::size_t>(answers.size(), 1) : sizeof(SentrelAgentMsg);
        for (std::size_t place = 0; place < answers.size(); place += piece) {
            Require(send(fd_, &answers[place], piece, MSG_NOSIGNAL) == static_cast<ssize_t>(piece), "answer");
        }
        return at;
    }

    const int fd_;
    const bool joins_;
    Times& times_;
};

struct Usage {
    double us = 0;
    double switches = 0;
};

Usage GetUsage(int who)
{
    rusage usage = {};
    getrusage(who, &usage);
    return {static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) * 1e6 +
                static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec),
            static_cast<double>(usage.ru_nvcsw + usage.ru_nivcsw)};
}

// Of all threads but this one.
Usage GetOthers()
{
    const Usage all = GetUsage(RUSAGE_SELF);
    const Usage own = GetUsage(RUSAGE_THREAD);
    return {all.us - own.us, all.switches - own.switches};
}

void Push(NEUtils::ReportQueue& queue)
{
    std::array<char, kBody> body = {};
    const std::int64_t now = NowNs();
    std::memcpy(body.data(), &now, sizeof(now));
    while (queue.GetCount() >= 5000) {  // only if there is no rate
        usleep(200);
    }
    Require(queue.Push(1, body.data(), body.size()), "push");
}

std::uint64_t MakeReports(NEUtils::ReportQueue& queue, int rate)
{
    const std::int64_t start = NowNs();
    std::int64_t made = 0;
    for (std::int64_t next = start; next < start + kSeconds * kNsPerSecond; next += kStepNs) {
        if (rate == 0) {
            for (next = NowNs(); made < 300000; ++made) {
                Push(queue);
            }
            break;
        }
        const timespec until = {next / kNsPerSecond, next % kNsPerSecond};
        clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr);
        for (; made < (next - start) * rate / kNsPerSecond; ++made) {
            Push(queue);
        }
    }
    Require(queue.Drain(20000), "drain");
    return static_cast<std::uint64_t>(made);
}

void Measure(int listener, int rate, bool joins, Times& times)
{
    times.count = 0;
    const pid_t server = fork();
    if (server == 0) {
        Server(accept(listener, nullptr, nullptr), joins, times).Run();
        _exit(0);
    }
    const auto channel = std::make_shared<NEUtils::SocketComm>();
    NEUtils::ReportQueue queue;
    Require(channel->Start() && queue.Start(channel, 6000, 1U << 24U), "start");
    const Usage before = GetOthers();
    const std::int64_t start = NowNs();
    const auto made = static_cast<double>(MakeReports(queue, rate));
    const double seconds = static_cast<double>(NowNs() - start) / 1e9;
    const Usage after = GetOthers();
    queue.Stop();
    channel->DeInit();
    rusage peer = {};
    wait4(server, nullptr, 0, &peer);
    std::sort(times.ns.begin(), times.ns.begin() + static_cast<std::ptrdiff_t>(times.count));
    const auto ms = [&](double share) {
        return static_cast<double>(times.ns[static_cast<std::size_t>(share * static_cast<double>(times.count - 1))]) /
               1e6;
    };
    std::printf("%10.0f %8s %10.2f %12.0f %12.3f %14.0f %10.2f %10.2f\n", made / seconds, joins ? "joined" : "each",
                (after.us - before.us) / made, (after.switches - before.switches) / seconds,
                (after.switches - before.switches) / made,
                static_cast<double>(peer.ru_nvcsw + peer.ru_nivcsw) / seconds, ms(0.5), ms(0.99));
    std::fflush(stdout);
}

}  // namespace

int main()
{
    const TempDirectory directory;
    const std::string path = directory.File("server");
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    Require(bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0, "bind");
    Require(listen(listener, 1) == 0, "listen");
    NEUtils::Config::ParseConfig("SOCKET_TYPE=1\nSERVER_SOCKET_PATH=" + path, false, {});
    void* const shared = mmap(nullptr, sizeof(Times), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    Require(shared != MAP_FAILED, "mmap");
    std::printf("%10s %8s %10s %12s %12s %14s %10s %10s\n", "reports/s", "answers", "us/report", "switches/s",
                "a report", "server's /s", "median ms", "99 % ms");
    for (const bool joins : {true, false}) {
        for (const int rate : kRates) {
            Measure(listener, rate, joins, *static_cast<Times*>(shared));
        }
    }
    return 0;
}
