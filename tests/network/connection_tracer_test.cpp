// Connections of the test's own, in the real kernel, beside what the tracer says of them.
#include "connection_tracer.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/capability.h>
#include <netinet/tcp.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <net/if.h>

#include <cstring>
#include <mutex>
#include <optional>

#include "tests/process/trace_support.h"
#include "tests/support/failing_allocations.h"

using Connection = ConnectionRecord;

namespace {

union Address {
    sockaddr any;
    sockaddr_in v4;
    sockaddr_in6 v6;
};

Address At(const std::string& text, std::uint16_t port)
{
    Address address = {};
    const bool isV6 = Contains(text, ":");
    address.v6.sin6_family = isV6 ? AF_INET6 : AF_INET;  // this and the port stand at the same place in both
    address.v6.sin6_port = htons(port);
    inet_pton(address.v6.sin6_family, text.c_str(),
              isV6 ? static_cast<void*>(&address.v6.sin6_addr) : &address.v4.sin_addr);
    return address;
}

// A socket and what a test does with it.
struct Socket {
    explicit Socket(int family, int flags = 0) : fd(socket(family, SOCK_STREAM | SOCK_CLOEXEC | flags, 0)) {}
    explicit Socket(const std::string& address, std::uint16_t port = 0) : Socket(At(address, 0).any.sa_family)
    {
        const int on = 1;
        const Address at = At(address, port);
        setsockopt(fd.Get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
        EXPECT_EQ(bind(fd.Get(), &at.any, sizeof(at)), 0);
    }
    // Errors are 0 or an errno.
    int Connect(const std::string& address, std::uint16_t port) const
    {
        const Address at = At(address, port);
        return connect(fd.Get(), &at.any, sizeof(at)) == 0 ? 0 : errno;
    }
    bool Listen(int backlog = 16) const { return listen(fd.Get(), backlog) == 0; }
    void Accept() const { close(accept(fd.Get(), nullptr, nullptr)); }
    std::uint16_t Port() const
    {
        Address at = {};
        socklen_t size = sizeof(at);
        getsockname(fd.Get(), &at.any, &size);
        return ntohs(at.v4.sin_port);
    }

    UniqueFd fd;
};

// The tracer and what it hands over.
struct Watched {
    bool Start()
    {
        return tracer.Start(
            settings,
            [this](const Connection& record) {
                onRecord(record);
                const std::lock_guard<std::mutex> lock(mutex);
                records.push_back(record);
            },
            [this](const ConnectionTracer::Counts::Kinds& lost) { losses = lost.Total(); });
    }
    std::vector<Connection> Of(std::uint16_t port) const
    {
        const std::lock_guard<std::mutex> lock(mutex);
        std::vector<Connection> found;
        std::ranges::copy_if(records, std::back_inserter(found), [=](const Connection& record) {
            return record.localPort == port || record.remotePort == port;
        });
        return found;
    }
    // Waits until this much is told, and all that was done before is.
    std::vector<Connection> Wait(std::uint16_t port, std::size_t count) const
    {
        EXPECT_TRUE(Eventually([&] { return Of(port).size() >= count; })) << port;
        const Socket marker("127.0.0.1");
        EXPECT_TRUE(marker.Listen() && Eventually([&] { return !Of(marker.Port()).empty(); }));
        return Of(port);
    }

    mutable std::mutex mutex;
    std::vector<Connection> records;
    std::atomic<std::uint64_t> losses{0};
    std::function<void(const Connection&)> onRecord = [](const Connection&) {};
    ConnectionTracer::Settings settings;
    ConnectionTracer tracer;
};

constexpr const char* kKinds[] = {"", "connect", "accept", "listen", "end"};

std::string TextOf(const Connection& record, std::uint16_t server)
{
    const auto name = [server](std::uint16_t port) { return port == 0 ? "0" : port == server ? "S" : "C"; };
    constexpr const char* kResults[] = {" pending", " opened", " failed"};
    std::string text = kKinds[record.kind];
    text += record.kind == Connection::kConnect ? kResults[record.result] : "";
    text += record.error == 0 ? "" : std::string(" ") + strerrorname_np(record.error);
    text += " " + ConnectionTracer::GetAddressText(record.local) + " " + name(record.localPort);
    if (record.remotePort != 0) {
        text += " " + ConnectionTracer::GetAddressText(record.remote) + " " + name(record.remotePort);
    }
    return text + (record.onIpv6Socket ? " v6" : "");
}

struct ConnectionTracerTest : TracerTest {
    Watched traced_;
};

}  // namespace

TEST_F(ConnectionTracerTest, EveryKindOfConnectionIsToldOnce)
{
    struct Row {
        const char* name;
        std::function<std::uint16_t()> run;  // gives the server's port
        Strings texts;
    };
    const auto serve = [](const std::string& at, const std::string& to, int family) {
        const Socket server(at);
        EXPECT_TRUE(server.Listen());
        const Socket client(family);
        EXPECT_EQ(client.Connect(to, server.Port()), 0);
        server.Accept();
        return server.Port();
    };
    const Row rows[] = {
        {"IPv4",
         [&] { return serve("127.0.0.1", "127.0.0.1", AF_INET); },
         {"listen 127.0.0.1 S", "connect opened 127.0.0.1 C 127.0.0.1 S", "accept 127.0.0.1 S 127.0.0.1 C",
          "end 127.0.0.1 S"}},
        {"IPv6",
         [&] { return serve("::1", "::1", AF_INET6); },
         {"listen ::1 S v6", "connect opened ::1 C ::1 S v6", "accept ::1 S ::1 C v6", "end ::1 S v6"}},
        {"IPv4 on IPv6 sockets",
         [&] { return serve("::", "::ffff:127.0.0.1", AF_INET6); },
         {"listen :: S v6", "connect opened 127.0.0.1 C 127.0.0.1 S v6", "accept 127.0.0.1 S 127.0.0.1 C v6",
          "end :: S v6"}},
        {"refused",
         [] {
             const Socket nobody("127.0.0.1");
             const Socket client(AF_INET);
             EXPECT_EQ(client.Connect("127.0.0.1", nobody.Port()), ECONNREFUSED);
             return nobody.Port();
         },
         {"connect failed ECONNREFUSED 127.0.0.1 C 127.0.0.1 S"}},
        {"both sides connect",
         [] {
             const Socket own("127.0.0.1");
             EXPECT_EQ(own.Connect("127.0.0.1", own.Port()), 0);
             return own.Port();
         },
         {"connect opened 127.0.0.1 S 127.0.0.1 S"}},
        {"no place to connect from",
         [] {
             const Socket taken("127.0.0.1");
             const Socket server("127.0.0.1");
             EXPECT_TRUE(server.Listen());
             const Socket first("127.0.0.2");
             EXPECT_EQ(first.Connect("127.0.0.1", server.Port()), 0);
             const Socket second("127.0.0.2", first.Port());
             EXPECT_EQ(second.Connect("127.0.0.1", server.Port()), EADDRNOTAVAIL);
             return server.Port();
         },
         {"listen 127.0.0.1 S", "connect opened 127.0.0.2 C 127.0.0.1 S", "accept 127.0.0.1 S 127.0.0.2 C",
          "connect failed 127.0.0.2 C 127.0.0.1 S", "end 127.0.0.1 S"}},
    };
    ASSERT_TRUE(traced_.Start());
    for (const Row& row : rows) {
        const std::uint16_t port = row.run();
        const auto records = traced_.Wait(port, row.texts.size());
        Strings texts;
        for (const Connection& record : records) {
            texts.push_back(TextOf(record, port));
            EXPECT_FALSE(record.foreignNetNs) << row.name;
            EXPECT_EQ(record.pid, record.kind == Connection::kAccept ? 0 : getpid()) << row.name;
        }
        EXPECT_EQ(texts, row.texts) << row.name;
    }
    EXPECT_EQ(traced_.tracer.GetCounts().malformed, 0U);
}

TEST_F(ConnectionTracerTest, TheProcessIsTheOneThatActed)
{
    Socket shared("127.0.0.1");  // which the children have too
    const std::uint16_t port = shared.Port();
    const auto connect = [&] {
        prctl(PR_SET_NAME, "a liar");
        return BecomePlainUser() && Socket(AF_INET).Connect("127.0.0.1", port) == 0 ? 0 : 1;
    };
    const auto listenElsewhere = [&] {
        ifreq loop = {};
        std::memcpy(loop.ifr_name, "lo", 3);
        loop.ifr_flags = IFF_UP;
        const bool isUp = unshare(CLONE_NEWNET) == 0 && ioctl(Socket(AF_INET).fd.Get(), SIOCSIFFLAGS, &loop) == 0;
        return isUp && Socket("127.0.0.1", port).Listen() ? 0 : 1;
    };
    std::optional<Children> children(std::in_place, std::vector<std::function<int()>>{connect, listenElsewhere});
    ASSERT_TRUE(traced_.Start() && shared.Listen());
    const std::string other = std::to_string(children->Run(0));
    const std::string elsewhere = std::to_string(children->Run(1));
    const std::string last = std::to_string(children->Parent());
    shared.fd.Reset();
    EXPECT_EQ(traced_.Wait(port, 5).size(), 5U) << "ended while a child held it";
    children.reset();
    Strings texts;
    for (const Connection& record : traced_.Wait(port, 6)) {
        texts.push_back(std::string(kKinds[record.kind]) + " " + std::to_string(record.pid) + " " +
                        std::to_string(record.uid) + " " + record.comm + " " + record.program +
                        (record.foreignNetNs ? " foreign" : ""));
    }
    const std::string program = fs::read_symlink("/proc/self/exe").filename();
    const std::string names = " 0 " + program.substr(0, 15) + " ";
    EXPECT_EQ(texts, Strings({"listen " + std::to_string(getpid()) + names + program,
                              "connect " + other + " 65534 a liar " + program, "accept 0 0  ",
                              "listen " + elsewhere + names + program + " foreign",
                              "end " + elsewhere + names + program + " foreign", "end " + last + names}));
}

// Nobody answers: an attempt is told before its result is known, and an agent that stops still tells of it.
TEST_F(ConnectionTracerTest, AnAttemptWithoutAnAnswerIsTold)
{
    const Socket server("127.0.0.1");
    ASSERT_TRUE(server.Listen(0) && traced_.Start());
    const std::uint16_t port = server.Port();
    std::vector<Socket> clients;
    const auto tried = [&](Connection::Result result) {
        return std::ranges::count_if(traced_.Of(port), [=](const Connection& record) {
            return record.kind == Connection::kConnect && record.result == result;
        });
    };
    const auto tryFour = [&] {
        for (int i = 0; i < 4; ++i) {  // the queue takes one or two
            clients.emplace_back(AF_INET, SOCK_NONBLOCK);
            EXPECT_EQ(clients.back().Connect("127.0.0.1", port), EINPROGRESS);
        }
    };
    tryFour();
    ASSERT_TRUE(Eventually([&] { return tried(Connection::kPending) > 0; }));
    const auto pending = tried(Connection::kPending);
    EXPECT_EQ(tried(Connection::kOpened) + pending, 4);
    clients.clear();
    ASSERT_TRUE(Eventually([&] { return tried(Connection::kFailed) == pending; }));
    for (const Connection& record : traced_.Of(port)) {
        EXPECT_TRUE(record.kind != Connection::kConnect || record.pid == getpid());
        EXPECT_TRUE(record.result != Connection::kFailed ||
                    (record.error == 0 && record.localPort != 0 && record.durationNs > 900000000));
    }
    tryFour();
    const auto counts = [this] { return traced_.tracer.GetCounts(); };
    ASSERT_TRUE(Eventually([&] { return counts().received.Total() == counts().seen.Total(); }));
    traced_.tracer.Stop();
    EXPECT_GT(tried(Connection::kPending), pending);
}

TEST_F(ConnectionTracerTest, WhatDoesNotFitIsCountedExactly)
{
    constexpr std::uint64_t kConnections = 1500;
    std::atomic<bool> blocked{true};
    const Socket server("127.0.0.1");
    Watched traced;
    traced.onRecord = [&](const Connection&) { blocked.wait(true); };
    traced.settings.ringSize = 1;  // the smallest there is
    ConnectionTracer& tracer = traced.tracer;
    ASSERT_TRUE(server.Listen() && traced.Start());
    for (std::uint64_t i = 0; i < kConnections; ++i) {
        EXPECT_EQ(Socket(AF_INET).Connect("127.0.0.1", server.Port()), 0);
        server.Accept();
    }
    EXPECT_TRUE(Eventually([&] { return tracer.GetBeatAgeMs() > 1200; })) << "its thread hangs in a callback";
    const auto full = tracer.GetCounts();
    EXPECT_TRUE(full.lost.connects > 0 && full.lost.results > 0 && full.lost.accepts > 0);
    blocked = false;
    blocked.notify_all();
    EXPECT_TRUE(Eventually([&] { return tracer.GetBeatAgeMs() < 1200; }));
    ASSERT_TRUE(Eventually([&] {
        const auto counts = tracer.GetCounts();
        return counts.received.Total() + counts.lost.Total() == counts.seen.Total() &&
               traced.losses == counts.lost.Total();
    }));
    tracer.Stop();
    EXPECT_EQ(tracer.GetBeatAgeMs(), -1);
    const auto counts = tracer.GetCounts();  // they stay
    EXPECT_GE(std::min({counts.seen.connects, counts.seen.results, counts.seen.accepts}), kConnections);
    EXPECT_EQ(counts.received.accepts + counts.lost.accepts, counts.seen.accepts);
    EXPECT_EQ(counts.recursionMisses, 0U);
}

TEST_F(ConnectionTracerTest, OnlyWhatIsAskedForReachesTheRing)
{
    for (int only = 0; only < 3; ++only) {
        Watched traced;
        traced.settings.connects = only == 0;
        traced.settings.accepts = only == 1;
        traced.settings.listens = only == 2;
        ASSERT_TRUE(traced.Start());
        {
            const Socket server("127.0.0.1");
            ASSERT_TRUE(server.Listen());
            EXPECT_EQ(Socket(AF_INET).Connect("127.0.0.1", server.Port()), 0);
        }
        traced.tracer.Stop();
        const auto seen = traced.tracer.GetCounts().seen;
        EXPECT_TRUE((seen.connects > 0) == (only == 0) && (seen.results > 0) == (only == 0)) << only;
        EXPECT_TRUE((seen.accepts > 0) == (only == 1) && (seen.listens > 0) == (only == 2)) << only;
    }
}

TEST_F(ConnectionTracerTest, NeedsRightsToStartButNotToGoOn)
{
    const auto bit = [](int right) { return std::uint64_t{1} << right; };
    const std::uint64_t enough = bit(CAP_BPF) | bit(CAP_PERFMON) | bit(CAP_SETUID) | bit(CAP_SETGID);
    const std::string refusal = "ERROR Fail to start the network tracer.[reason=cannot ";
    InChild([&] {
        EXPECT_TRUE(KeepRights(enough) && traced_.Start() && BecomePlainUser() && KeepRights(0));
        const Socket server("127.0.0.1");
        EXPECT_TRUE(server.Listen() && traced_.Wait(server.Port(), 1).size() == 1);
        const std::size_t before = log_.Lines().size();
        Watched refused;
        EXPECT_FALSE(refused.Start() || refused.tracer.IsRunning());
        EXPECT_TRUE(log_.CountWith(refusal) == 1 && log_.Lines().size() == before + 1);
        traced_.tracer.Stop();
    });
}

TEST_F(ConnectionTracerTest, ACallbackMayStopItAndMayThrow)
{
    for (const bool stops : {false, true}) {
        std::atomic<int> told{0};
        Watched traced;
        traced.settings.wakeMs = 0;
        traced.onRecord = [&](const Connection&) {
            ++told;
            if (stops) {
                traced.tracer.Stop();
            }
            throw std::runtime_error("odd");
        };
        ASSERT_TRUE(traced.Start());
        EXPECT_FALSE(traced.Start());
        const Socket one("127.0.0.1");
        const Socket two("127.0.0.1");
        ASSERT_TRUE(one.Listen() && two.Listen());
        ASSERT_TRUE(Eventually([&] { return told >= (stops ? 1 : 2); }));
        traced.tracer.Stop();
        EXPECT_TRUE(!stops || told == 1);
    }
    EXPECT_GT(log_.Count("ERROR A callback of the network tracer failed.[reason=odd]"), 2);
}

TEST_F(ConnectionTracerTest, WhereMemoryRunsOutItGoesOnAndCountsWhatIsLost)
{
    const Socket server("127.0.0.1");
    const std::uint16_t port = server.Port();
    std::atomic<int> told{0};
    ConnectionTracer tracer;
    const auto count = [&](const Connection& record) { told += record.remotePort == port ? 1 : 0; };
    ASSERT_TRUE(server.Listen() && tracer.Start({}, count));
    const int failures = FailingAllocations::InTurn(FailingAllocations::Mode::kOne, [&] {
        const int before = told;
        EXPECT_EQ(Socket(AF_INET).Connect("127.0.0.1", port), 0);
        server.Accept();
        while (told == before) {
            usleep(1000);
        }
    });
    EXPECT_GT(failures, 0);
    EXPECT_GT(tracer.GetCounts().malformed, 0U);
}

TEST_F(ConnectionTracerTest, AHundredStartsAndStopsLeaveNothing)
{
    ASSERT_TRUE(traced_.Start());
    traced_.tracer.Stop();
    ExpectNothingLeftOf([] {
        InThreads(4, [](int) {
            for (int i = 0; i < 25; ++i) {
                Watched traced;
                ASSERT_TRUE(traced.Start()) << i;
            }
        });
    });
}
