// What the connection tracer costs a busy server on the loopback interface: requests a second and processor time a
// request of server and client together, with the tracer and without, in turns. Needs root.
//
//   network_bench [ROUNDS] [REQUESTS]
#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "connection_tracer.h"

namespace {

using NEUtils::ConnectionTracer;

constexpr std::size_t kRequest = 128;
constexpr std::size_t kAnswer = 1024;
constexpr double kUsPerSecond = 1e6;

struct Figures {
    double wallUs = 0;
    double cpuUs = 0;     // of server and client
    double readerUs = 0;  // of the tracer's thread, in this process
};

double CpuUs(int who)
{
    rusage usage = {};
    getrusage(who, &usage);
    return kUsPerSecond * static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec);
}

bool Receive(int fd, std::size_t size)
{
    char buffer[kAnswer];
    return recv(fd, buffer, size, MSG_WAITALL) == static_cast<ssize_t>(size);
}

bool Send(int fd, std::size_t size)
{
    const char buffer[kAnswer] = {};
    return send(fd, buffer, size, MSG_NOSIGNAL) == static_cast<ssize_t>(size);
}

[[noreturn]] void Serve(int listener)
{
    for (int fd = accept(listener, nullptr, nullptr); fd >= 0; fd = accept(listener, nullptr, nullptr)) {
        while (Receive(fd, kRequest) && Send(fd, kAnswer)) {
        }
        close(fd);
    }
    _exit(0);
}

[[noreturn]] void Ask(const sockaddr_in& at, int requests, int requestsPerConnection)
{
    for (int i = 0; i < requests; i += requestsPerConnection) {
        const int fd = socket(AF_INET, SOCK_STREAM, 0);
        const int on = 1;
        const linger reset = {1, 0};  // no ports that wait
        setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
        setsockopt(fd, SOL_SOCKET, SO_LINGER, &reset, sizeof(reset));
        if (connect(fd, reinterpret_cast<const sockaddr*>(&at), sizeof(at)) != 0) {
            _exit(1);
        }
        for (int k = 0; k < requestsPerConnection; ++k) {
            if (!Send(fd, kRequest) || !Receive(fd, kAnswer)) {
                _exit(1);
            }
        }
        close(fd);
    }
    _exit(0);
}

// One round; the children are the server and the client.
Figures Run(int requests, int requestsPerConnection)
{
    sockaddr_in at = {};
    socklen_t size = sizeof(at);
    at.sin_family = AF_INET;
    at.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const int listener = socket(AF_INET, SOCK_STREAM, 0);
    if (bind(listener, reinterpret_cast<sockaddr*>(&at), sizeof(at)) != 0 || listen(listener, 64) != 0 ||
        getsockname(listener, reinterpret_cast<sockaddr*>(&at), &size) != 0) {
        std::perror("listen");
        std::exit(1);
    }
    const double cpu = CpuUs(RUSAGE_CHILDREN);
    const double reader = CpuUs(RUSAGE_SELF);
    const auto start = std::chrono::steady_clock::now();
    const pid_t server = fork();
    if (server == 0) {
        Serve(listener);
    }
    const pid_t client = fork();
    if (client == 0) {
        Ask(at, requests, requestsPerConnection);
    }
    int status = 0;
    waitpid(client, &status, 0);
    const std::chrono::duration<double, std::micro> wall = std::chrono::steady_clock::now() - start;
    shutdown(listener, SHUT_RDWR);
    close(listener);
    waitpid(server, nullptr, 0);
    if (status != 0) {
        std::fprintf(stderr, "a request failed\n");
        std::exit(1);
    }
    return {wall.count() / requests, (CpuUs(RUSAGE_CHILDREN) - cpu) / requests,
            (CpuUs(RUSAGE_SELF) - reader) / requests};
}

double Median(std::vector<Figures> rounds, double Figures::*figure)
{
    std::sort(rounds.begin(), rounds.end(),
              [figure](const Figures& a, const Figures& b) { return a.*figure < b.*figure; });
    return rounds[rounds.size() / 2].*figure;
}

void Compare(const char* name, int rounds, int requests, int requestsPerConnection)
{
    std::vector<Figures> without;
    std::vector<Figures> with;
    std::atomic<std::uint64_t> told{0};
    ConnectionTracer tracer;
    for (int i = 0; i < rounds; ++i) {
        without.push_back(Run(requests, requestsPerConnection));
        if (!tracer.Start({}, [&told](const NEUtils::ConnectionRecord&) { ++told; })) {
            std::fprintf(stderr, "the tracer does not start: needs root and a kernel with BTF\n");
            std::exit(77);
        }
        with.push_back(Run(requests, requestsPerConnection));
        tracer.Stop();
    }
    const double wall[] = {Median(without, &Figures::wallUs), Median(with, &Figures::wallUs)};
    const double cpu[] = {Median(without, &Figures::cpuUs), Median(with, &Figures::cpuUs)};
    std::printf("%-24s %10.0f %10.0f %7.2f %9.2f %9.2f %7.2f %9.3f\n", name, kUsPerSecond / wall[0],
                kUsPerSecond / wall[1], 100 * (wall[1] / wall[0] - 1), cpu[0], cpu[1], 100 * (cpu[1] / cpu[0] - 1),
                Median(with, &Figures::readerUs));
}

}  // namespace

int main(int argc, char** argv)
{
    const int rounds = argc > 1 ? std::atoi(argv[1]) : 15;
    const int requests = argc > 2 ? std::atoi(argv[2]) : 20000;
    std::printf("%-24s %10s %10s %7s %9s %9s %7s %9s\n", "requests a connection", "1/s before", "1/s traced", "less %",
                "us before", "us traced", "more %", "reader us");
    for (const int each : {1, 10, 100}) {
        Compare(std::to_string(each).c_str(), rounds, requests, each);
    }
    return 0;
}
