// The collector under load: 200 agents in one thread, each with 50 unanswered reports at most, beside a bare
// server that only answers. The agents are bound to one processor and the server to another one.
#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <spawn.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <functional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "basecomm.h"
#include "report_messages.h"
#include "temp_directory.h"
#include "tlv.h"

extern char** environ;

namespace {

using NEUtils::SentrelAgentMsg;

constexpr int kAgents = 200;
constexpr std::size_t kWindow = 50;
constexpr std::chrono::seconds kDuration{5};
constexpr std::chrono::milliseconds kStart{100};
constexpr int kEvents = 64;
constexpr std::size_t kReadSize = 131072;
constexpr int kLoadProcessor = 0;
constexpr int kServerProcessor = 1;

void Require(bool done, const char* what)
{
    if (!done) {
        std::perror(what);
        std::exit(1);
    }
}

void Bind(int processor)
{
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(processor, &set);
    Require(sched_setaffinity(0, sizeof(set), &set) == 0, "two processors, 0 and 1");
}

// A report like those of the agent.
std::string MakeReport()
{
    const std::int64_t time = 1700000000000;
    std::array<NEUtils::TLVValue, 7> items;
    items[0].Init(NEUtils::kTagTime, reinterpret_cast<const unsigned char*>(&time), sizeof(time));
    items[1].Init(NEUtils::kTagEvent, NEUtils::kProcessExited);
    items[2].Init(NEUtils::kTagPid, 12345);
    items[3].Init(NEUtils::kTagParentPid, 1234);
    items[4].Init(NEUtils::kTagUser, std::string("root"));
    items[5].Init(NEUtils::kTagCmdLine, std::string("/usr/bin/find /var/lib -name *.list -newer /tmp/stamp -print"));
    items[6].Init(NEUtils::kTagExitCode, 0);
    NEUtils::TLVPacker packer;
    for (NEUtils::TLVValue& item : items) {
        packer.Add(std::move(item));
    }
    Require(packer.Pack(NEUtils::kSwapReport) == 0, "pack");
    const SentrelAgentMsg header = {NEUtils::kMsgVersion, NEUtils::kMsgProcess, 1, packer.GetSize()};
    std::string report(reinterpret_cast<const char*>(&header), sizeof(header));
    return report.append(reinterpret_cast<const char*>(packer.GetBuffer()), packer.GetSize());
}

sockaddr_un MakeAddress(const std::string& path)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    Require(path.copy(address.sun_path, sizeof(address.sun_path) - 1) == path.size(), "a short path");
    return address;
}

void Watch(int epoll, int fd)
{
    epoll_event event = {};
    event.events = EPOLLIN;
    event.data.fd = fd;
    Require(epoll_ctl(epoll, EPOLL_CTL_ADD, fd, &event) == 0, "epoll_ctl");
}

// The agents, all connected.
class Agents {
public:
    explicit Agents(const std::string& path)
    {
        const sockaddr_un address = MakeAddress(path);
        for (int& fd : fds_) {
            fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
            Require(connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0, "connect");
            Watch(epoll_, fd);
        }
        const std::string report = MakeReport();
        for (std::size_t i = 0; i < kWindow; ++i) {
            reports_ += report;
        }
    }
    ~Agents()
    {
        for (const int fd : fds_) {
            close(fd);
        }
        close(epoll_);
    }
    Agents(const Agents&) = delete;
    Agents& operator=(const Agents&) = delete;

    // Sends for a while; gives how many reports were answered in a second.
    double Run()
    {
        for (const int fd : fds_) {
            Send(fd, kWindow);
        }
        const auto start = std::chrono::steady_clock::now();
        std::chrono::duration<double> passed{0};
        while (passed < kDuration) {
            Serve();
            passed = std::chrono::steady_clock::now() - start;
        }
        return static_cast<double>(answered_) / passed.count();
    }

    std::uint64_t GetAnswered() const { return answered_; }

private:
    void Send(int fd, std::size_t count)
    {
        const std::size_t length = reports_.size() / kWindow * count;
        Require(send(fd, reports_.data(), length, MSG_NOSIGNAL) == static_cast<ssize_t>(length), "send");
    }

    // Every answer makes room for another report.
    void Serve()
    {
        std::array<epoll_event, kEvents> events;
        const int count = epoll_wait(epoll_, events.data(), kEvents, 1000);
        Require(count > 0, "answers of the server");
        for (int i = 0; i < count; ++i) {
            const int fd = events[static_cast<std::size_t>(i)].data.fd;
            std::array<char, kWindow * sizeof(SentrelAgentMsg)> answers;
            const ssize_t length = recv(fd, answers.data(), answers.size(), 0);
            Require(length > 0 && length % sizeof(SentrelAgentMsg) == 0, "answer");
            const std::size_t answered = static_cast<std::size_t>(length) / sizeof(SentrelAgentMsg);
            answered_ += answered;
            Send(fd, answered);
        }
    }

    const int epoll_ = epoll_create1(EPOLL_CLOEXEC);
    std::array<int, kAgents> fds_;
    std::string reports_;  // as many as may be unanswered
    std::uint64_t answered_ = 0;
};

// The bare server. Reports come whole, since they are sent whole and never more than fit.

void AnswerBare(int fd)
{
    static std::array<char, kReadSize> reports;
    static std::array<SentrelAgentMsg, kWindow> answers;
    std::size_t answered = 0;
    const ssize_t count = recv(fd, reports.data(), reports.size(), 0);
    for (ssize_t place = 0; place < count && answered < kWindow; ++answered) {
        SentrelAgentMsg& answer = answers[answered];
        std::memcpy(&answer, &reports[static_cast<std::size_t>(place)], sizeof(answer));
        place += static_cast<ssize_t>(sizeof(answer) + answer.length);
        answer.type = NEUtils::ResponseType(answer.type);
        answer.length = 0;
    }
    if (count <= 0 || send(fd, answers.data(), answered * sizeof(SentrelAgentMsg), MSG_NOSIGNAL) < 0) {
        close(fd);
    }
}

[[noreturn]] void ServeBare(const std::string& path)
{
    const sockaddr_un address = MakeAddress(path);
    const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    Require(bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0, "bind");
    Require(listen(listener, kAgents) == 0, "listen");
    const int epoll = epoll_create1(EPOLL_CLOEXEC);
    Watch(epoll, listener);
    for (;;) {
        std::array<epoll_event, kEvents> events;
        const int count = epoll_wait(epoll, events.data(), kEvents, -1);
        for (int i = 0; i < count; ++i) {
            const int fd = events[static_cast<std::size_t>(i)].data.fd;
            if (fd == listener) {
                Watch(epoll, accept4(listener, nullptr, nullptr, SOCK_CLOEXEC));
            } else {
                AnswerBare(fd);
            }
        }
    }
}

pid_t StartBare(const std::string& path)
{
    const pid_t pid = fork();
    if (pid == 0) {
        ServeBare(path);
    }
    return pid;
}

pid_t StartCollector(const std::string& path, bool json)
{
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    for (const int fd : {STDOUT_FILENO, STDERR_FILENO}) {
        posix_spawn_file_actions_addopen(&actions, fd, "/dev/null", O_WRONLY, 0);
    }
    std::string endpoint = "unix:" + path;
    std::string program = COLLECTOR_PROGRAM;
    std::string listenOption = "--listen";
    std::string jsonOption = "--json";
    char* args[] = {program.data(), listenOption.data(), endpoint.data(), json ? jsonOption.data() : nullptr, nullptr};
    pid_t pid = -1;
    const int error = posix_spawn(&pid, COLLECTOR_PROGRAM, &actions, nullptr, args, environ);
    posix_spawn_file_actions_destroy(&actions);
    Require(error == 0, COLLECTOR_PROGRAM);
    return pid;
}

long StatusKiB(pid_t pid, const std::string& name)
{
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    std::string word;
    while (status >> word && word != name + ":") {
    }
    long kib = 0;
    Require(static_cast<bool>(status >> kib), name.c_str());
    return kib;
}

double CpuMicros(pid_t pid)
{
    clockid_t clock;
    timespec used = {};
    Require(clock_getcpuclockid(pid, &clock) == 0 && clock_gettime(clock, &used) == 0, "processor time");
    return static_cast<double>(used.tv_sec) * 1e6 + static_cast<double>(used.tv_nsec) / 1e3;
}

struct Result {
    double reportsPerSecond;
    double microsPerReport;  // processor time of the server
    long idleKiB;            // resident, all agents connected
    long afterKiB;
    long peakKiB;
};

Result Measure(const std::function<pid_t(const std::string&)>& start)
{
    const TempDirectory directory;
    const std::string path = directory.File("socket");
    Bind(kServerProcessor);
    const pid_t pid = start(path);
    Require(pid > 0, "start of the server");
    Bind(kLoadProcessor);
    std::this_thread::sleep_for(kStart);
    Result result = {};
    {
        Agents agents(path);
        std::this_thread::sleep_for(kStart);
        result.idleKiB = StatusKiB(pid, "VmRSS");
        const double before = CpuMicros(pid);
        result.reportsPerSecond = agents.Run();
        result.microsPerReport = (CpuMicros(pid) - before) / static_cast<double>(agents.GetAnswered());
        result.afterKiB = StatusKiB(pid, "VmRSS");
        result.peakKiB = StatusKiB(pid, "VmHWM");
    }
    kill(pid, SIGTERM);
    waitpid(pid, nullptr, 0);
    return result;
}

void Print(const char* name, const Result& result, const Result& bare)
{
    std::printf("%-16s %10.0f %10.2f %10.2f %10ld %10ld %10ld\n", name, result.reportsPerSecond, result.microsPerReport,
                result.microsPerReport / bare.microsPerReport, result.idleKiB, result.afterKiB, result.peakKiB);
}

}  // namespace

int main()
{
    std::printf("%d agents, reports of %zu bytes, %lld s for each of three servers.\n", kAgents, MakeReport().size(),
                static_cast<long long>(kDuration.count()));
    static_cast<void>(std::fflush(stdout));
    const Result text = Measure([](const std::string& path) { return StartCollector(path, false); });
    const Result json = Measure([](const std::string& path) { return StartCollector(path, true); });
    const Result bare = Measure(&StartBare);
    std::printf("%-16s %10s %10s %10s %10s %10s %10s\n", "server", "reports/s", "us/report", "to bare", "idle KiB",
                "after KiB", "peak KiB");
    Print("collector", text, bare);
    Print("collector --json", json, bare);
    Print("bare", bare, bare);
    return 0;
}
