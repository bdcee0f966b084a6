// What the channel to the server costs, over UNIX sockets and TCP: round trips of a request and its response,
// and messages in one direction, beside ZeroMQ and bare blocking calls with the same bytes. Every peer is a
// thread of this program. Threads are bound to processors, since a wake-up across two of them costs more than
// anything that is compared here: all to one, and in the round trips named 2 the peer to another.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <pthread.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <zmq.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "config.h"
#include "median_reporter.h"
#include "socket_comm.h"
#include "temp_directory.h"

namespace {

using NEUtils::SentrelAgentMsg;
using NEUtils::SocketComm;

constexpr std::uint32_t kAsk = 1;    // is answered
constexpr std::uint32_t kQuiet = 3;  // a request without an answer
constexpr std::uint32_t kTell = 4;   // no request
constexpr std::size_t kBody = 256;
constexpr std::size_t kPeerBuffer = 1U << 20U;
constexpr std::size_t kCachedBytes = 1U << 20U;  // between two cleanings of the cache
constexpr std::array<std::size_t, 3> kSizes = {64, 4096, 262144};
constexpr std::array<int, 4> kCached = {1, 100, 1000, 10000};

enum class Transport { kUnix, kTcp };

// On which processor the peer runs; all else is on the first.
enum PeerPlace { kSame = 0, kOther = 1 };

void Require(bool done, const char* what)
{
    if (!done) {
        std::fprintf(stderr, "failed: %s\n", what);
        std::abort();
    }
}

void Bind(pthread_t thread, int processor)
{
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(processor, &set);
    Require(pthread_setaffinity_np(thread, sizeof(set), &set) == 0, "two processors, 0 and 1");
}

std::vector<char> MakeMessage(std::uint32_t type, std::size_t size)
{
    const SentrelAgentMsg header = {NEUtils::kMsgVersion, type, 0, static_cast<std::uint32_t>(size - sizeof(header))};
    std::vector<char> message(size, 'x');
    std::memcpy(message.data(), &header, sizeof(header));
    return message;
}

SentrelAgentMsg HeaderOf(const char* message)
{
    SentrelAgentMsg header;
    std::memcpy(&header, message, sizeof(header));
    return header;
}

void SetSeq(std::vector<char>& message)
{
    const std::uint32_t seq = NEUtils::NextMsgSeq();
    std::memcpy(&message[offsetof(SentrelAgentMsg, seq)], &seq, sizeof(seq));
}

void MakeResponse(char* message)
{
    const std::uint32_t type = kAsk + 1;
    std::memcpy(message + offsetof(SentrelAgentMsg, type), &type, sizeof(type));
}

void SendAll(int fd, const char* data, std::size_t length)
{
    while (length > 0) {
        const ssize_t sent = send(fd, data, length, MSG_NOSIGNAL);
        Require(sent > 0, "send");
        data += sent;
        length -= static_cast<std::size_t>(sent);
    }
}

void ReceiveAll(int fd, std::vector<char>& message)
{
    for (std::size_t place = 0; place < message.size();) {
        const ssize_t count = recv(fd, &message[place], message.size() - place, 0);
        Require(count > 0, "recv");
        place += static_cast<std::size_t>(count);
    }
}

// One thread waits for the end of what another does.
class Signal {
public:
    void Set()
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        set_ = true;
        changed_.notify_one();
    }
    void Wait()
    {
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait(lock, [this] { return set_; });
        set_ = false;
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    bool set_ = false;
};

// Counts what a peer has received.
class Tally {
public:
    void Add(std::size_t bytes)
    {
        bytes_ += bytes;
        bytes_.notify_all();
    }
    void WaitFor(std::uint64_t bytes) const
    {
        for (std::uint64_t now = bytes_; now < bytes; now = bytes_) {
            bytes_.wait(now);
        }
    }
    std::uint64_t Get() const { return bytes_; }

private:
    std::atomic<std::uint64_t> bytes_{0};
};

const TempDirectory& Directory()
{
    static const TempDirectory directory;
    return directory;
}

// The server: one connection after the other. It answers requests, or takes all bytes without a look.
class Peer {
public:
    Peer(Transport transport, bool answers)
        : transport_(transport), answers_(answers), path_(Directory().File(answers ? "echo" : "sink"))
    {
        Require(bind(listener_, Address(), addressSize_) == 0 && listen(listener_, 1) == 0, "listen");
        getsockname(listener_, Address(), &addressSize_);
        thread_ = std::thread([this] { Run(); });
    }
    ~Peer()
    {
        shutdown(listener_, SHUT_RDWR);
        thread_.join();
        close(listener_);
    }
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;

    int Connect()
    {
        const int fd = socket(Family(), SOCK_STREAM | SOCK_CLOEXEC, 0);
        Require(connect(fd, Address(), addressSize_) == 0, "connect");
        return fd;
    }

    void Configure()
    {
        const std::string port = std::to_string(ntohs(reinterpret_cast<sockaddr_in*>(&address_)->sin_port));
        const std::string text =
            transport_ == Transport::kUnix
                ? "SOCKET_TYPE=1\nSERVER_SOCKET_PATH=" + path_ + "\n"
                : "SOCKET_TYPE=2\nSERVER_IP=127.0.0.1\nAGENT_IP=127.0.0.1\nSERVER_PORT=" + port + "\n";
        Require(NEUtils::Config::ParseConfig(text, false, {}), "configuration");
    }

    const Tally& Received() const { return received_; }
    void Place(PeerPlace place) { Bind(thread_.native_handle(), place); }

private:
    int Family() const { return transport_ == Transport::kUnix ? AF_UNIX : AF_INET; }

    sockaddr* Address() { return reinterpret_cast<sockaddr*>(&address_); }

    sockaddr_storage MakeAddress()
    {
        sockaddr_storage address = {};
        address.ss_family = static_cast<sa_family_t>(Family());
        if (transport_ == Transport::kUnix) {
            auto& local = reinterpret_cast<sockaddr_un&>(address);
            Require(path_.copy(local.sun_path, sizeof(local.sun_path) - 1) == path_.size(), "a short path");
        } else {
            reinterpret_cast<sockaddr_in&>(address).sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        }
        return address;
    }

    void Run()
    {
        for (int fd = 0; (fd = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC)) != -1; close(fd)) {
            std::size_t kept = 0;
            ssize_t count = 0;
            while ((count = recv(fd, &buffer_[kept], buffer_.size() - kept, 0)) > 0) {
                received_.Add(static_cast<std::size_t>(count));
                kept = answers_ ? Answer(fd, kept + static_cast<std::size_t>(count)) : 0;
            }
        }
    }

    // Gives how many bytes of an incomplete message are kept.
    std::size_t Answer(int fd, std::size_t length)
    {
        char* at = buffer_.data();
        while (length >= sizeof(SentrelAgentMsg)) {
            const SentrelAgentMsg header = HeaderOf(at);
            const std::size_t size = sizeof(header) + header.length;
            if (length < size) {
                break;
            }
            if (header.type == kAsk) {
                MakeResponse(at);
                SendAll(fd, at, size);
            }
            at += size;
            length -= size;
        }
        std::memmove(buffer_.data(), at, length);
        return length;
    }

    const Transport transport_;
    const bool answers_;
    const std::string path_;
    sockaddr_storage address_ = MakeAddress();
    socklen_t addressSize_ = transport_ == Transport::kUnix ? sizeof(sockaddr_un) : sizeof(sockaddr_in);
    const int listener_ = socket(Family(), SOCK_STREAM | SOCK_CLOEXEC, 0);
    std::vector<char> buffer_ = std::vector<char>(kPeerBuffer);
    Tally received_;
    std::thread thread_;
};

Peer& PeerOf(Transport transport, bool answers, PeerPlace place)
{
    static std::map<std::pair<Transport, bool>, Peer> peers;
    Peer& peer = peers.try_emplace({transport, answers}, transport, answers).first->second;
    peer.Place(place);
    return peer;
}

// A bare connection.
class Wire {
public:
    explicit Wire(Peer& peer) : fd_(peer.Connect()) {}
    ~Wire()
    {
        Shutdown();
        close(fd_);
    }
    Wire(const Wire&) = delete;
    Wire& operator=(const Wire&) = delete;

    int GetFd() const { return fd_; }
    void Shutdown() { shutdown(fd_, SHUT_RDWR); }

private:
    const int fd_;
};

// The library's channel.
class Channel {
public:
    explicit Channel(Peer& peer)
    {
        peer.Configure();
        Require(comm_.Start(), "start of the channel");
    }

    void Handle(NEUtils::MsgHandler handler, void* userData)
    {
        Require(comm_.RegisterMsgHandler(kAsk + 1, handler, userData), "handler");
    }
    void Send(const std::vector<char>& message)
    {
        Require(comm_.SendMessage(message.data(), static_cast<unsigned int>(message.size())) == NEUtils::kSendDone,
                "message");
    }
    void Forget() { comm_.CleanCache(); }

private:
    SocketComm comm_;
};

// Runs an operation on as many round trips or messages as are wanted, once.
void Measure(benchmark::State& state, const std::function<void(std::uint64_t)>& run)
{
    const auto count = static_cast<std::uint64_t>(state.max_iterations);
    while (state.KeepRunningBatch(state.max_iterations)) {
        run(count);
    }
}

// Round trips of which each begins in the handler of the one before.
class Chain {
public:
    explicit Chain(Channel& channel) : channel_(channel) { channel.Handle(&OnResponse, this); }

    void Run(std::uint64_t count)
    {
        left_ = count;
        Send();
        end_.Wait();
    }

private:
    static void OnResponse(std::uint32_t, void*, void* self)
    {
        auto& chain = *static_cast<Chain*>(self);
        if (--chain.left_ == 0) {
            chain.end_.Set();
        } else {
            chain.Send();
        }
    }

    void Send()
    {
        SetSeq(message_);
        channel_.Send(message_);
    }

    Channel& channel_;
    std::vector<char> message_ = MakeMessage(kAsk, sizeof(SentrelAgentMsg) + kBody);
    std::uint64_t left_ = 0;
    Signal end_;
};

void OursHandler(benchmark::State& state, Transport transport, PeerPlace place, int cached)
{
    Channel channel(PeerOf(transport, true, place));
    std::vector<char> quiet = MakeMessage(kQuiet, 64);
    for (int i = 0; i < cached; ++i) {
        SetSeq(quiet);
        channel.Send(quiet);
    }
    Chain chain(channel);
    Measure(state, [&](std::uint64_t count) { chain.Run(count); });
}

void OursCaller(benchmark::State& state, Transport transport, PeerPlace place)
{
    Channel channel(PeerOf(transport, true, place));
    Signal answered;
    channel.Handle([](std::uint32_t, void*, void* signal) { static_cast<Signal*>(signal)->Set(); }, &answered);
    std::vector<char> message = MakeMessage(kAsk, sizeof(SentrelAgentMsg) + kBody);
    Measure(state, [&](std::uint64_t count) {
        for (; count > 0; --count) {
            SetSeq(message);
            channel.Send(message);
            answered.Wait();
        }
    });
}

void BareTrips(benchmark::State& state, Transport transport, PeerPlace place)
{
    const Wire wire(PeerOf(transport, true, place));
    const std::vector<char> message = MakeMessage(kAsk, sizeof(SentrelAgentMsg) + kBody);
    std::vector<char> response(message.size());
    Measure(state, [&](std::uint64_t count) {
        for (; count > 0; --count) {
            SendAll(wire.GetFd(), message.data(), message.size());
            ReceiveAll(wire.GetFd(), response);
        }
    });
}

// As OursCaller does it: another thread receives.
void BareCaller(benchmark::State& state, Transport transport, PeerPlace place)
{
    const Wire wire(PeerOf(transport, true, place));
    const std::vector<char> message = MakeMessage(kAsk, sizeof(SentrelAgentMsg) + kBody);
    const std::uint64_t total = static_cast<std::uint64_t>(state.max_iterations);
    Signal answered;
    std::thread reader([&] {
        std::vector<char> response(message.size());
        for (std::uint64_t left = total; left > 0; --left) {
            ReceiveAll(wire.GetFd(), response);
            answered.Set();
        }
    });
    Measure(state, [&](std::uint64_t count) {
        for (; count > 0; --count) {
            SendAll(wire.GetFd(), message.data(), message.size());
            answered.Wait();
        }
    });
    reader.join();
}

// A ZeroMQ socket in a context of its own, as each process has one.
class ZmqSocket {
public:
    explicit ZmqSocket(int type) : socket_(zmq_socket(context_, type)) {}
    ~ZmqSocket()
    {
        zmq_close(socket_);
        zmq_ctx_term(context_);
    }
    ZmqSocket(const ZmqSocket&) = delete;
    ZmqSocket& operator=(const ZmqSocket&) = delete;

    void* Get() const { return socket_; }
    void Shutdown() { zmq_ctx_shutdown(context_); }
    bool Send(const std::vector<char>& message) { return zmq_send(socket_, message.data(), message.size(), 0) != -1; }
    bool Receive(std::vector<char>& message)
    {
        return zmq_recv(socket_, message.data(), message.size(), 0) == static_cast<int>(message.size());
    }

private:
    void* const context_ = zmq_ctx_new();
    void* const socket_;
};

// A client and the thread that serves it.
class ZmqPair {
public:
    ZmqPair(Transport transport, PeerPlace place, int clientType, int serverType,
            const std::function<bool(ZmqSocket&)>& serve)
        : client_(clientType)
    {
        thread_ = std::thread([=, this] {
            Bind(pthread_self(), place);
            ZmqSocket server(serverType);
            server_ = &server;
            const std::string wanted =
                transport == Transport::kUnix ? "ipc://" + Directory().File("zmq") : "tcp://127.0.0.1:*";
            std::size_t size = sizeof(address_);
            Require(zmq_bind(server.Get(), wanted.c_str()) == 0, "zmq_bind");
            Require(zmq_getsockopt(server.Get(), ZMQ_LAST_ENDPOINT, address_, &size) == 0, "zmq_getsockopt");
            ready_.Set();
            while (serve(server)) {
            }
            left_.Wait();
        });
        ready_.Wait();
        Require(zmq_connect(client_.Get(), address_) == 0, "zmq_connect");
    }
    ~ZmqPair()
    {
        server_->Shutdown();
        left_.Set();
        thread_.join();
    }
    ZmqPair(const ZmqPair&) = delete;
    ZmqPair& operator=(const ZmqPair&) = delete;

    void Send(const std::vector<char>& message) { Require(client_.Send(message), "zmq_send"); }
    void Receive(std::vector<char>& message) { Require(client_.Receive(message), "zmq_recv"); }

private:
    ZmqSocket client_;
    ZmqSocket* server_ = nullptr;
    char address_[256] = {};
    Signal ready_;
    Signal left_;  // the server may go
    std::thread thread_;
};

void ZmqTrips(benchmark::State& state, Transport transport, PeerPlace place)
{
    const std::vector<char> message = MakeMessage(kAsk, sizeof(SentrelAgentMsg) + kBody);
    std::vector<char> buffer(message.size());
    std::vector<char> response(message.size());
    ZmqPair pair(transport, place, ZMQ_REQ, ZMQ_REP, [&buffer](ZmqSocket& server) {
        if (!server.Receive(buffer)) {
            return false;
        }
        MakeResponse(buffer.data());
        return server.Send(buffer);
    });
    Measure(state, [&](std::uint64_t count) {
        for (; count > 0; --count) {
            pair.Send(message);
            pair.Receive(response);
        }
    });
}

// One direction. All ends when the peer has received the last byte.

void OursOneWay(benchmark::State& state, Transport transport, std::uint32_t type, std::size_t size)
{
    Peer& peer = PeerOf(transport, false, kSame);
    Channel channel(peer);
    std::vector<char> message = MakeMessage(type, size);
    const std::size_t cleaning = kCachedBytes / size;
    Measure(state, [&](std::uint64_t count) {
        const std::uint64_t end = peer.Received().Get() + count * size;
        for (; count > 0; --count) {
            SetSeq(message);
            channel.Send(message);
            if (count % cleaning == 0) {
                channel.Forget();
            }
        }
        peer.Received().WaitFor(end);
    });
}

void BareOneWay(benchmark::State& state, Transport transport, std::size_t size)
{
    Peer& peer = PeerOf(transport, false, kSame);
    const Wire wire(peer);
    const std::vector<char> message = MakeMessage(kTell, size);
    Measure(state, [&](std::uint64_t count) {
        const std::uint64_t end = peer.Received().Get() + count * size;
        for (; count > 0; --count) {
            SendAll(wire.GetFd(), message.data(), message.size());
        }
        peer.Received().WaitFor(end);
    });
}

void ZmqOneWay(benchmark::State& state, Transport transport, std::size_t size)
{
    Tally received;
    std::vector<char> buffer(size);
    const std::vector<char> message = MakeMessage(kTell, size);
    ZmqPair pair(transport, kSame, ZMQ_PUSH, ZMQ_PULL, [&](ZmqSocket& server) {
        const bool whole = server.Receive(buffer);
        received.Add(whole ? size : 0);
        return whole;
    });
    Measure(state, [&](std::uint64_t count) {
        const std::uint64_t end = received.Get() + count * size;
        for (; count > 0; --count) {
            pair.Send(message);
        }
        received.WaitFor(end);
    });
}

// Rows.

template <typename Function, typename... Args>
void Row(const std::string& name, Function function, Args... args)
{
    benchmark::RegisterBenchmark(name.c_str(), [=](benchmark::State& state) { function(state, args...); })
        ->UseRealTime()
        ->Repetitions(5)
        ->ReportAggregatesOnly(true)
        ->MinTime(0.06);
}

const std::map<Transport, std::string> g_transports = {{Transport::kUnix, "unix/"}, {Transport::kTcp, "tcp/"}};
const std::map<PeerPlace, std::string> g_places = {{kSame, "1/"}, {kOther, "2/"}};

void RegisterRows()
{
    for (const auto& [transport, name] : g_transports) {
        for (const auto& [place, processors] : g_places) {
            const std::string prefix = name + processors;
            Row(prefix + "handler", &OursHandler, transport, place, 0);
            Row(prefix + "caller", &OursCaller, transport, place);
            Row(prefix + "bare", &BareTrips, transport, place);
            Row(prefix + "bare caller", &BareCaller, transport, place);
            Row(prefix + "zeromq", &ZmqTrips, transport, place);
        }
        for (const std::size_t size : kSizes) {
            const std::string prefix = name + std::to_string(size) + "/";
            Row(prefix + "even", &OursOneWay, transport, kTell, size);
            Row(prefix + "odd", &OursOneWay, transport, kQuiet, size);
            Row(prefix + "bare", &BareOneWay, transport, size);
            Row(prefix + "zeromq", &ZmqOneWay, transport, size);
        }
    }
    for (const int count : kCached) {
        Row("cached/" + std::to_string(count), &OursHandler, Transport::kUnix, kSame, count);
    }
}

class CommReporter : public MedianReporter {
public:
    void Finalize() override
    {
        PrintRows("round trip, message", "ns");
        std::printf("\n%-20s %14s %14s\n", "ratio", "to bare", "to zeromq");
        for (const auto& [transport, name] : g_transports) {
            for (const auto& [place, processors] : g_places) {
                PrintRatios(name + processors, "handler", "bare");
                PrintRatios(name + processors, "caller", "bare caller");
            }
            for (const std::size_t size : kSizes) {
                PrintRatios(name + std::to_string(size) + "/", "even", "bare");
                PrintRatios(name + std::to_string(size) + "/", "odd", "bare");
            }
        }
        std::printf("\na round trip beside N cached requests takes, to N=1:");
        for (const int count : kCached) {
            std::printf("  %d: %s", count, Ratio({"cached/" + std::to_string(count), 1}, {"cached/1", 1}).c_str());
        }
        std::printf("\n");
    }

private:
    void PrintRatios(const std::string& prefix, const char* name, const char* bare) const
    {
        const Row row = {prefix + name, 1};
        std::printf("%-20s %14s %14s\n", row.first.c_str(), Ratio(row, {prefix + bare, 1}).c_str(),
                    Ratio(row, {prefix + "zeromq", 1}).c_str());
    }
};

}  // namespace

int main(int argc, char** argv)
{
    Directory();  // outlives the peers
    Bind(pthread_self(), kSame);
    RegisterRows();
    CommReporter reporter;
    return RunBenchmarks(argc, argv, reporter);
}
