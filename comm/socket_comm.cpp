#include "socket_comm.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <algorithm>
#include <charconv>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstring>
#include <exception>
#include <new>
#include <optional>
#include <thread>
#include <utility>

#include "comm/message_handlers.h"
#include "comm/message_reader.h"
#include "comm/request_cache.h"
#include "comm/sig_pipe.h"
#include "config.h"
#include "logger.h"
#include "socket_proxy.h"
#include "util/clock.h"
#include "util/stop_signals.h"
#include "util/thread_name.h"

namespace NEUtils {

namespace {

enum SocketType { kLocalSocket = 1, kNetworkSocket = 2 };

constexpr int kConnectSeconds = 10;
constexpr int kLocalConnectSeconds = 1;  // a full backlog must not hold a stop
constexpr int kSendSeconds = 10;
constexpr int kWaitMs = 1000;
constexpr unsigned int kDeadPeerMs = 30000;  // without acknowledging what was sent
constexpr std::int64_t kRetryPeriodNs = 3 * Clock::kNsPerSecond;
constexpr std::size_t kRetriesAtOnce = 32;  // between two looks at what comes in, or both sides could wait to send
constexpr int kMaxPort = 65535;
constexpr std::chrono::milliseconds kCancelPeriod{50};

// The process-wide order of sends; held over the send itself, so that messages stay whole.
std::mutex g_sendMutex;

// A value of either table as text.
std::optional<std::string> FindConfig(const char* name)
{
    std::string text;
    int number = 0;
    if (Config::GetConfigValue(name, text)) {
        return text;
    }
    if (Config::GetConfigValue(name, number)) {
        return std::to_string(number);
    }
    return std::nullopt;
}

bool GetConfig(const char* name, std::string& value)
{
    const auto found = FindConfig(name);
    if (!found.has_value()) {
        NE_LOG(ERROR, "Can't get the config.[name=%s]", name);
        return false;
    }
    value = *found;
    return true;
}

std::optional<int> ToNumber(const std::string& text)
{
    int number = 0;
    const char* end = text.data() + text.size();
    const auto [last, error] = std::from_chars(text.data(), end, number);
    return error == std::errc() && last == end ? std::optional<int>(number) : std::nullopt;
}

void SetSendLimit(int fd, int seconds)
{
    const timeval limit = {seconds, 0};
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof(limit));
}

// Where nobody listens on a port of this host that it gives to clients, a client may be given that very port.
bool IsConnectedToItself(int fd)
{
    sockaddr_in6 own = {};
    sockaddr_in6 peer = {};
    socklen_t ownSize = sizeof(own);
    socklen_t peerSize = sizeof(peer);
    return getsockname(fd, reinterpret_cast<sockaddr*>(&own), &ownSize) == 0 &&
           getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &peerSize) == 0 && ownSize == peerSize &&
           std::memcmp(&own, &peer, ownSize) == 0;
}

}  // namespace

// One connection and its thread, which holds it until it ends.
struct SocketComm::Connection {
    // Marks the channel down; true for the one that does.
    bool MarkDown() { return working.exchange(false); }

    // Wakes whoever waits in this connection.
    void Shutdown()
    {
        if (const int descriptor = fd; descriptor != -1) {
            shutdown(descriptor, SHUT_RDWR);
        }
    }

    // Waits for the end of the thread; one caller joins it and the others wait for him.
    void Join()
    {
        std::unique_lock<std::mutex> lock(joinMutex);
        if (std::exchange(joining, true)) {
            joinEnd.wait(lock, [this] { return joined; });
            return;
        }
        lock.unlock();
        if (thread.joinable()) {
            thread.join();
        }
        lock.lock();
        joined = true;
        joinEnd.notify_all();
    }

    SocketProxy proxy;
    std::atomic<int> fd{-1};  // the proxy's, once it is there
    std::atomic<bool> working{false};
    std::thread thread;

    std::atomic<bool> finished{false};       // the thread has nothing more to do
    std::atomic<std::int64_t> sendSince{0};  // when the send under way began; 0: there is none

    // Of the thread alone:
    MessageReader reader;
    std::vector<std::max_align_t> copy;  // the message that handlers see
    bool discardTold = false;

    std::mutex joinMutex;
    std::condition_variable joinEnd;
    bool joining = false;
    bool joined = false;
};

struct SocketComm::Members {
    std::mutex mutex;  // of the four below
    std::shared_ptr<Connection> current;
    std::shared_ptr<Connection> connecting;
    std::vector<std::shared_ptr<Connection>> ended;  // stopped on a receive thread, not joined yet
    std::uint64_t stops = 0;                         // a start that finds another one when it is done gives up
    std::thread::id starter;                         // whose start is under way
    std::condition_variable startEnd;

    RequestCache cache;
    MessageHandlers handlers;
};

namespace {

thread_local const SocketComm* t_receiver = nullptr;  // whose receive thread this is

}  // namespace

SocketComm::SocketComm() : members_(std::make_unique<Members>()) {}

SocketComm::~SocketComm()
{
    SocketComm::Stop();
}

bool SocketComm::Init()
{
    return SetSigPipeHandler();
}

bool SocketComm::Start()
{
    if (StatusCheck()) {
        End(nullptr);  // what a handler has left
        return true;
    }
    SetSigPipeHandler();
    const auto connection = std::make_shared<Connection>();
    std::shared_ptr<Connection> old;
    std::uint64_t stops = 0;
    {
        const std::lock_guard<std::mutex> lock(members_->mutex);
        if (members_->current != nullptr && members_->current->working) {
            return true;
        }
        if (members_->connecting != nullptr) {
            return false;
        }
        members_->connecting = connection;
        members_->starter = std::this_thread::get_id();
        stops = members_->stops;
        old.swap(members_->current);
    }
    End(old);
    bool opened = false;
    try {
        opened = Open(*connection);
    } catch (const std::exception& error) {  // no memory; the start is to end in order nevertheless
        NE_LOG(ERROR, "Channel to the server cannot be opened.[error=%s]", error.what());
    }
    const bool started = Publish(connection, opened, stops);
    members_->startEnd.notify_all();
    if (started) {
        NE_LOG(INFO, "Channel to the server is up.");
    } else if (opened) {
        NE_LOG(ERROR, "Channel to the server is not started: stopped meanwhile, or no thread to be had.");
    }
    return started;
}

bool SocketComm::Publish(const std::shared_ptr<Connection>& connection, bool opened, std::uint64_t stops)
{
    const StopSignalsBlocked inherited;
    const std::lock_guard<std::mutex> lock(members_->mutex);
    members_->connecting.reset();
    if (!opened || members_->stops != stops) {
        return false;
    }
    connection->working = true;
    try {
        // Under the lock, so that a stop finds either no connection or one whose thread can be joined.
        connection->thread = std::thread([this, connection] { ProcessDataThread(*connection); });
    } catch (const std::exception&) {
        return false;
    }
    members_->current = connection;
    ++connections_;
    return true;
}

bool SocketComm::Stop()
{
    std::shared_ptr<Connection> current;
    {
        std::unique_lock<std::mutex> lock(members_->mutex);
        ++members_->stops;
        current.swap(members_->current);
        // A start under way ends first. It may stand right before its connect, so it is told again.
        while (members_->connecting != nullptr && t_receiver != this &&
               members_->starter != std::this_thread::get_id()) {
            const auto connecting = members_->connecting;
            connecting->Shutdown();
            members_->startEnd.wait_for(lock, kCancelPeriod);
        }
    }
    End(current);
    return true;
}

// Ends a connection, if there is one, and joins what was left to be joined. On a receive thread that is only
// what has finished: others could be the thread itself, or one that waits for it.
void SocketComm::End(const std::shared_ptr<Connection>& connection)
{
    if (connection != nullptr) {
        if (connection->MarkDown()) {
            NE_LOG(INFO, "Channel to the server is stopped.");
        }
        connection->Shutdown();
    }
    std::vector<std::shared_ptr<Connection>> joined;
    {
        const std::lock_guard<std::mutex> lock(members_->mutex);
        if (connection != nullptr) {
            members_->ended.push_back(connection);
        }
        // Left in there, so that every other caller waits for them too.
        std::copy_if(members_->ended.begin(), members_->ended.end(), std::back_inserter(joined),
                     [this](const auto& entry) { return t_receiver != this || entry->finished; });
    }
    for (const auto& entry : joined) {
        entry->Join();
    }
    const std::lock_guard<std::mutex> lock(members_->mutex);
    auto& ended = members_->ended;
    ended.erase(std::remove_if(
                    ended.begin(), ended.end(),
                    [&](const auto& entry) { return std::find(joined.begin(), joined.end(), entry) != joined.end(); }),
                ended.end());
}

bool SocketComm::DeInit()
{
    Stop();
    CleanCache();
    return true;
}

bool SocketComm::StatusCheck()
{
    const auto connection = Current();
    return connection != nullptr && connection->working;
}

std::shared_ptr<SocketComm::Connection> SocketComm::Current()
{
    const std::lock_guard<std::mutex> lock(members_->mutex);
    return members_->current;
}

bool SocketComm::Open(Connection& connection)
{
    const auto type = FindConfig("SOCKET_TYPE");
    switch (type.has_value() ? ToNumber(*type).value_or(0) : kNetworkSocket) {
    case kLocalSocket:
        return CreateDomainConnection(connection);
    case kNetworkSocket:
        return CreateNetConnection(connection);
    default:
        NE_LOG(ERROR, "Socket type value is error.");
        return false;
    }
}

bool SocketComm::CreateNetConnection(Connection& connection)
{
    std::string serverIp;
    std::string serverPort;
    std::string agentIp;
    if (!GetConfig("SERVER_IP", serverIp) || !GetConfig("SERVER_PORT", serverPort) || !GetConfig("AGENT_IP", agentIp)) {
        return false;
    }
    const int port = ToNumber(serverPort).value_or(0);
    if (port < 1 || port > kMaxPort) {
        NE_LOG(ERROR, "Invalid config, not a port number.[name=SERVER_PORT, value=%s]", serverPort.c_str());
        return false;
    }
    const SocketProxy& proxy = connection.proxy;
    if (!connection.proxy.Create(SocketProxy::PraseSocketType(kNetworkSocket, serverIp))) {
        NE_LOG(ERROR, "Create socket faild.");
        return false;
    }
    connection.fd = proxy.GetFd();
    if (!proxy.Bind(agentIp, 0)) {
        NE_LOG(ERROR, "Bind socket faild.[agentIp=%s]", agentIp.c_str());
        return false;
    }
    if (!proxy.Connect(serverIp, port, kConnectSeconds)) {
        NE_LOG(ERROR, "Connect socket faild.[serverIp=%s, serverPort=%d]", serverIp.c_str(), port);
        return false;
    }
    if (IsConnectedToItself(connection.fd)) {
        NE_LOG(ERROR, "Connect socket faild.[serverIp=%s, serverPort=%d]", serverIp.c_str(), port);
        return false;
    }
    SetSendLimit(connection.fd, kSendSeconds);
    setsockopt(connection.fd, IPPROTO_TCP, TCP_USER_TIMEOUT, &kDeadPeerMs, sizeof(kDeadPeerMs));
    return true;
}

bool SocketComm::CreateDomainConnection(Connection& connection)
{
    std::string path;
    if (!GetConfig("SERVER_SOCKET_PATH", path)) {
        return false;
    }
    if (!connection.proxy.Create(AF_UNIX)) {
        NE_LOG(ERROR, "Create domain socket failed.");
        return false;
    }
    connection.fd = connection.proxy.GetFd();
    SetSendLimit(connection.fd, kLocalConnectSeconds);
    if (!connection.proxy.Connect(path, 0, 0)) {
        NE_LOG(ERROR, "Connect domain socket failed.[server=%s]", path.c_str());
        return false;
    }
    SetSendLimit(connection.fd, kSendSeconds);
    return true;
}

void SocketComm::ProcessDataThread(Connection& connection)
{
    SetThreadName("SocketRecv");
    t_receiver = this;
    std::int64_t nextRetryNs = Clock::MonotonicNs() + kRetryPeriodNs;
    try {
        while (connection.working) {
            bool moreDue = false;
            const std::int64_t now = Clock::MonotonicNs();
            if (now >= nextRetryNs) {
                moreDue = RetryRequest(connection);
                nextRetryNs = moreDue ? now : now + kRetryPeriodNs;
            }
            pollfd wanted = {connection.fd, POLLIN, 0};
            if (poll(&wanted, 1, moreDue ? 0 : kWaitMs) > 0) {
                ReceiveData(connection);
            }
            const std::int64_t sendSince = connection.sendSince;
            if (sendSince != 0 && now - sendSince > kSendSeconds * Clock::kNsPerSecond) {
                Fail(connection, "a message could not be sent, or not in time");
            }
        }
    } catch (const std::exception& error) {
        Fail(connection, error.what());
    }
    connection.finished = true;
}

void SocketComm::ReceiveData(Connection& connection)
{
    MessageReader& reader = connection.reader;
    const long count = connection.proxy.Recv(reader.Space(), static_cast<long>(reader.SpaceSize()));
    if (count < 0) {
        Fail(connection, "the server has closed it, or it is broken");
        return;
    }
    reader.Filled(static_cast<std::size_t>(count));
    while (connection.working) {
        SentrelAgentMsg header;
        const unsigned char* message = nullptr;
        const MessageReader::Result result = reader.Next(header, message);
        if (result == MessageReader::kMessage) {
            HandleMessage(connection, header, message);
            continue;
        }
        if (result == MessageReader::kTooLong && !std::exchange(connection.discardTold, true)) {
            NE_LOG(ERROR, "Received message is too long, what was received is discarded.[type=%u length=%u]",
                   header.type, header.length);
        }
        return;
    }
}

void SocketComm::HandleMessage(Connection& connection, const SentrelAgentMsg& header, const unsigned char* message)
{
    // Kept: its request is answered even where the version turns out to be too new.
    if (IsResponseMessage(header.type) && !UpdateRequestCache(header)) {
        return;
    }
    const std::size_t size = sizeof(header) + header.length;
    NE_LOG(DEBUG, "Receive Data: type [0x%x] size [%zu]", header.type, size);
    if (header.version > kMsgVersion) {
        NE_LOG(DEBUG, "Server version: [%u], client version: [%d]", header.version, static_cast<int>(kMsgVersion));
        return;
    }
    const auto handlers = members_->handlers.Find(header.type);
    if (handlers == nullptr) {
        return;
    }
    auto& copy = connection.copy;
    copy.resize(std::max(copy.size(), size / sizeof(copy[0]) + 1));  // room for a NUL
    std::memcpy(copy.data(), message, size);
    reinterpret_cast<char*>(copy.data())[size] = '\0';
    MessageHandlers::Call(*handlers, header.type, copy.data());
}

// False where there is no such request.
bool SocketComm::UpdateRequestCache(const SentrelAgentMsg& header)
{
    if (members_->cache.Remove(header.seq)) {
        NE_LOG(DEBUG, "Remove request from cache.[seq=%u, type=%u]", header.seq, header.type);
        return true;
    }
    NE_LOG(DEBUG, "Request not in cache, drop it.[seq=%u, type=%u]", header.seq, header.type);
    return false;
}

// True if there may be more to repeat.
bool SocketComm::RetryRequest(Connection& connection)
{
    for (std::size_t count = 0; count < kRetriesAtOnce; ++count) {
        RequestCache::Due request;
        if (!members_->cache.TakeDue(request)) {
            return false;
        }
        NE_LOG(DEBUG, "Retry request, seq: %u, type: %u", request.seq, request.type);
        if (!Send(connection, request.message->data(), request.message->size())) {
            return false;
        }
    }
    return true;
}

bool SocketComm::Send(Connection& connection, const char* message, std::size_t length)
{
    bool sent = false;
    {
        const std::lock_guard<std::mutex> lock(g_sendMutex);
        // Whoever waited for a send that was cut short must not go on in the middle of that message.
        connection.sendSince = Clock::MonotonicNs();
        sent = connection.working &&
               connection.proxy.Send(reinterpret_cast<const unsigned char*>(message), static_cast<long>(length));
        connection.sendSince = 0;
    }
    if (!sent) {
        Fail(connection, "a message could not be sent, or not in time");
    }
    return sent;
}

// Takes the channel down, and tells why the first time.
void SocketComm::Fail(Connection& connection, const char* reason)
{
    if (connection.MarkDown()) {
        connection.Shutdown();
        NE_LOG(ERROR, "Channel to the server is down.[reason=%s]", reason);
    }
}

int SocketComm::SendMessage(const char* message, unsigned int length)
{
    const auto connection = Current();
    if (connection == nullptr || !connection->working) {
        NE_LOG(WARN, "Net is not working");
        return kSendFailed;
    }
    if (message == nullptr || length == 0 || length > kMaxMsgSize) {
        NE_LOG(DEBUG, "Invalid message parameter.");
        return kSendRefused;
    }
    if (!IsCacheRequestMessage(message, length)) {
        NE_LOG(DEBUG, "Malloc memory failed.");
        return kSendRefused;
    }
    return Send(*connection, message, length) ? kSendDone : kSendFailed;
}

// Keeps a copy of a request until its response comes; false without memory. Others need none.
bool SocketComm::IsCacheRequestMessage(const char* message, unsigned int length)
{
    SentrelAgentMsg header;
    if (length < sizeof(header)) {
        return true;
    }
    std::memcpy(&header, message, sizeof(header));
    if (!IsRequestMessage(header.type)) {
        return true;
    }
    try {
        members_->cache.Add(header.seq, header.type, std::make_shared<const std::string>(message, length));
    } catch (const std::bad_alloc&) {
        return false;
    }
    NE_LOG(DEBUG, "Cache request message, seq: %u, type: %u", header.seq, header.type);
    return true;
}

int SocketComm::SendControlMsg(const char* message, unsigned int length)
{
    return SendMessage(message, length);
}

int SocketComm::SendLogWithTopicHeader(const std::string& /*topic*/, const std::string& /*log*/, bool /*withHeader*/)
{
    NE_LOG(DEBUG, "The socket client sends no logs by topic.");
    return kSendRefused;
}

bool SocketComm::RegisterMsgHandler(std::uint32_t type, MsgHandler handler, void* userData)
{
    return members_->handlers.Add(type, handler, userData);
}

bool SocketComm::UnregisterMsgHandler(std::uint32_t type, MsgHandler handler)
{
    return members_->handlers.Remove(type, handler);
}

bool SocketComm::DropRequest(std::uint32_t seq)
{
    return members_->cache.Remove(seq);
}

void SocketComm::CleanCache()
{
    members_->cache.Clear();
}

}  // namespace NEUtils
