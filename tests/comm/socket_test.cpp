#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/resource.h>

#include "ipv4_socket.h"
#include "ipv6_socket.h"
#include "socket_proxy.h"
#include "tests/comm/peer.h"
#include "unix_socket.h"
#include "util/clock.h"

namespace {

// Any descriptor as a socket of the house.
struct Wrapped : TCPSocket {
    explicit Wrapped(int descriptor) { fd = descriptor; }
    bool Create() override { return true; }
    bool Bind(const std::string&, int) const override { return true; }
    bool Connect(const std::string&, int, int) const override { return true; }
};

int PortOf(int fd)
{
    sockaddr_in6 address = {};
    socklen_t size = sizeof(address);
    getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size);
    return ntohs(address.sin6_port);  // at the same place for both families
}

template <typename Call>
bool OnLoopback(Call call, const Wrapped& socket, int port)
{
    const sockaddr_in here = {AF_INET, htons(static_cast<std::uint16_t>(port)), {htonl(INADDR_LOOPBACK)}, {}};
    return call(socket.GetFd(), reinterpret_cast<const sockaddr*>(&here), sizeof(here)) == 0;
}

long Descriptors()
{
    return std::distance(fs::directory_iterator("/proc/self/fd"), {});
}

unsigned char* Data(std::string& text)
{
    return reinterpret_cast<unsigned char*>(text.data());
}

}  // namespace

TEST(SocketTest, EveryKindCarriesBytesBothWays)
{
    const TempDir directory;
    const std::pair<int, std::string> kinds[] = {
        {AF_UNIX, directory / "socket"}, {AF_INET, "127.0.0.1"}, {AF_INET6, "::1"}};
    for (const auto& [type, address] : kinds) {
        SCOPED_TRACE(address);
        SocketProxy server;
        ASSERT_TRUE(server.Create(type) && server.Bind(address, 0) && server.Listen());
        SocketProxy client;
        ASSERT_TRUE(client.Create(type));
        const int flags = fcntl(client.GetFd(), F_GETFL);
        ASSERT_TRUE(client.Connect(address, PortOf(server.GetFd()), 5));
        EXPECT_EQ(fcntl(client.GetFd(), F_GETFL), flags);  // blocking again
        const auto accepted = std::make_shared<SocketProxy>();
        const long before = Descriptors();
        ASSERT_TRUE(server.Accept(accepted));
        EXPECT_EQ(Descriptors(), before + 2);  // kept: one is leaked
        EXPECT_EQ(fcntl(accepted->GetFd(), F_GETFD) & fcntl(client.GetFd(), F_GETFD), FD_CLOEXEC);

        std::string sent(300000, 'x');
        std::string got;
        std::string piece(100000, '\0');
        std::thread sender([&] { EXPECT_TRUE(client.Send(Data(sent), static_cast<long>(sent.size()))); });
        EXPECT_TRUE(Eventually([&] {
            got += piece.substr(0, static_cast<std::size_t>(accepted->Recv(Data(piece), 100000)));
            return got.size() >= sent.size();
        }));
        sender.join();
        EXPECT_EQ(got, sent);
        EXPECT_EQ(accepted->Recv(Data(piece), 10), 0);  // nothing there
        EXPECT_FALSE(client.Send(Data(sent), 0));
        ASSERT_TRUE(client.Send(Data(sent), 3));
        client.Close();
        EXPECT_FALSE(client.IsValid() || client.Send(Data(sent), 1) || client.Listen());
        EXPECT_EQ(client.Recv(Data(piece), 1), -1);
        // Kept: the close counts, though three bytes came before it.
        EXPECT_TRUE(Eventually([&] { return accepted->Recv(Data(piece), 10) == -1; }));
    }
}

// Kept: an error counts as -1 bytes. A pending error of a datagram socket comes once, so the rest can be seen.
TEST(SocketTest, ErrorsAreTakenOffTheCountAndNothingIsWrittenBeforeTheBuffer)
{
    for (const bool dataFollows : {false, true}) {
        Wrapped receiver(socket(AF_INET, SOCK_DGRAM, 0));
        Wrapped peer(socket(AF_INET, SOCK_DGRAM, 0));
        ASSERT_TRUE(OnLoopback(bind, receiver, 0) && OnLoopback(bind, peer, 0));
        const int port = PortOf(peer.GetFd());
        ASSERT_TRUE(OnLoopback(connect, receiver, port));
        close(peer.GetFd());
        ASSERT_EQ(send(receiver.GetFd(), "x", 1, 0), 1);  // refused, which the next call learns
        dup2(socket(AF_INET, SOCK_DGRAM, 0), peer.GetFd());
        ASSERT_TRUE(OnLoopback(bind, peer, port) && OnLoopback(connect, peer, PortOf(receiver.GetFd())));
        ASSERT_TRUE(!dataFollows || send(peer.GetFd(), "y", 1, 0) == 1);
        std::string buffer = "########";
        EXPECT_EQ(receiver.Recv(Data(buffer) + 4, 4), dataFollows ? 0 : -1);
        EXPECT_EQ(buffer, "########");
    }
}

TEST(SocketTest, ConnectingFailsWithItsReasonAndInItsTime)
{
    const Records records;
    Ipv4Socket listener;
    ASSERT_TRUE(listener.Create() && listener.Bind("127.0.0.1", 0));
    const int port = PortOf(listener.GetFd());
    Ipv4Socket refused;
    EXPECT_TRUE(refused.Create());
    EXPECT_FALSE(refused.Connect("127.0.0.1", port, 1));
    EXPECT_TRUE(records.Has("ERROR Error in connection, error information is [Connection refused]."));
    ASSERT_EQ(listen(listener.GetFd(), 0), 0);
    Ipv4Socket clients[4];  // more than the backlog holds
    bool timedOut = false;
    for (Ipv4Socket& client : clients) {
        ASSERT_TRUE(client.Create());
        timedOut = timedOut || !client.Connect("127.0.0.1", port, 1);
    }
    EXPECT_TRUE(timedOut && records.Has("ERROR Connect timeout."));
    EXPECT_FALSE(refused.Connect("no-such-host", port, 1));
    EXPECT_TRUE(records.Has("ERROR Resolve addr [no-such-host] failed."));
    EXPECT_TRUE(records.Has("ERROR The parameter of IPv4 socket connecting is incorrect."));
    EXPECT_FALSE(refused.Bind("192.0.2.1", 80));
    EXPECT_TRUE(records.Has("ERROR Bind ip [192.0.2.1] and port [80] failed."));
    // Kept: only addresses of this host's interfaces.
    Ipv6Socket six;
    ASSERT_TRUE(six.Create());
    EXPECT_FALSE(six.Connect("2001:db8::1", port, 1) || six.Bind("2001:db8::1", 0));
    EXPECT_TRUE(records.Has("ERROR The parameter of IPv6 socket connecting is incorrect."));
    EXPECT_TRUE(records.Has("DEBUG The parameter of IPv6 socket binding is incorrect."));
}

// A descriptor beyond the size of a select set gives what select gives.
TEST(SocketTest, SelectWorksForAnyDescriptor)
{
    const rlimit limit = {2000, 2000};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    int pair[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
    const int high = dup2(pair[0], 1500);
    const Wrapped low(pair[0]);
    const Wrapped peer(pair[1]);
    const auto both = [&](int expected) {
        EXPECT_EQ(low.SocketSelect(pair[0], 0), expected);
        EXPECT_EQ(low.SocketSelect(high, 0), expected);
    };
    both(1);
    ASSERT_EQ(send(pair[1], "x", 1, 0), 1);
    both(2);
    while (send(high, pair, 1, MSG_DONTWAIT) == 1) {
    }
    both(1);
    char byte = 0;
    ASSERT_EQ(recv(high, &byte, 1, 0), 1);
    both(0);
    close(high);
    EXPECT_EQ(low.SocketSelect(high, 0), -1);
}

TEST(SocketTest, ProxyKnowsItsKinds)
{
    const Records records;
    EXPECT_EQ(SocketProxy::PraseSocketType(2, "fe80::1"), 10);
    EXPECT_EQ(SocketProxy::PraseSocketType(2, "10.0.0.1"), 2);
    EXPECT_EQ(SocketProxy::PraseSocketType(1, "a:b"), 1);
    SocketProxy proxy;
    EXPECT_FALSE(proxy.Create(7) || proxy.IsValid());
    EXPECT_TRUE(records.Has("ERROR Unsupported socket type [7]!"));
#ifndef __SANITIZE_ADDRESS__  // its checks of types open descriptors themselves
    // Kept: without a descriptor the proxy is valid nevertheless.
    const rlimit none = {0, 0};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    EXPECT_FALSE(proxy.Create(AF_INET));
    EXPECT_TRUE(proxy.IsValid());
#endif
}

TEST(UnixSocketTest, TellsErrorsOnceInHalfAnHour)
{
    const Records records;
    const TempDir directory;
    UNIXSocket socket;
    ASSERT_TRUE(socket.Create());
    const std::string path = directory / "none";
    const std::string failed = " Domain socket connects failed. Connection socket path is [" + path + "].";
    for (const std::int64_t minutes : {0, 1, 28}) {
        Clock::monotonicOffsetNs += minutes * 60 * Clock::kNsPerSecond;
        EXPECT_FALSE(socket.Connect(path, 0, 0));
    }
    EXPECT_EQ(records.Count("ERROR" + failed), 1);
    Clock::monotonicOffsetNs += 120 * Clock::kNsPerSecond;
    EXPECT_FALSE(socket.Connect(path, 0, 0));
    EXPECT_EQ(records.Count("ERROR" + failed), 2);
    EXPECT_EQ(records.Count("DEBUG" + failed), 4);

    EXPECT_TRUE(socket.Bind(path, 0));  // kept: a warning for a fresh path
    EXPECT_TRUE(records.Has("WARN Failed to remove the soft link of the file.[file=" + path + ", errno=2]"));
    const std::size_t told = records.Lines().size();
    EXPECT_FALSE(socket.Bind(std::string(108, 'x'), 0) || socket.Connect(std::string(108, 'x'), 0, 0));
    EXPECT_EQ(records.Lines().size(), told);  // kept: silent
    UNIXSocket other;
    ASSERT_TRUE(other.Create());
    EXPECT_FALSE(other.Bind(directory / "no/directory", 0));
    EXPECT_TRUE(records.Has("ERROR Domain socket bind failed. Bind path is [" + (directory / "no/directory") + "]."));
}
