#include "socket_comm.h"

#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <charconv>
#include <cstddef>
#include <cstring>
#include <new>
#include <optional>
#include <utility>

#include "comm/connection.h"
#include "comm/connection_keeper.h"
#include "comm/message_handlers.h"
#include "comm/request_cache.h"
#include "comm/send_mutex.h"
#include "comm/sig_pipe.h"
#include "comm/socket_options.h"
#include "config.h"
#include "logger.h"
#include "util/clock.h"

namespace NEUtils {

namespace {

enum SocketType { kLocalSocket = 1, kNetworkSocket = 2 };

constexpr int kConnectSeconds = 10;
constexpr int kLocalConnectSeconds = 1;  // a stop waits that long if the server accepts nothing
constexpr int kSendSeconds = 10;
constexpr unsigned int kDeadPeerMs = 30000;  // in which its kernel does not acknowledge what was sent
constexpr int kRetryPeriodMs = RequestCache::kLookSeconds * 1000;
constexpr int kRetryBusyMs = 100;  // others send
constexpr int kMaxPort = 65535;

// The order of all sends of the process. It is held during a send, so that messages stay whole. It is never
// destroyed, since threads may send while the process ends.
SendMutex& g_sendMutex = *new SendMutex;

std::int64_t SendEnd()
{
    return Clock::MonotonicNs() + kSendSeconds * Clock::kNsPerSecond;
}

// A value of either table, as text.
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

bool IsWhole(const SocketComm::Request& request)
{
    return request != nullptr && request->size() >= sizeof(SentrelAgentMsg) && request->size() <= kMaxMsgSize;
}

}  // namespace

struct SocketComm::Members {
    explicit Members(Connection::Callbacks callbacks)
        : keeper({std::move(callbacks.onMessage), std::move(callbacks.repeatRequest), &beatNs})
    {
    }

    std::atomic<std::int64_t> beatNs{0};  // when the thread that receives last came round; 0 while there is none
    RequestCache cache;
    MessageHandlers handlers;
    ConnectionKeeper keeper;  // last: its threads use the others
};

SocketComm::SocketComm()
    : members_(std::make_unique<Members>(Connection::Callbacks{
          [this](const SentrelAgentMsg& header, void* message) { HandleMessage(header, message); },
          [this](Connection& connection) { return RetryRequest(connection); }}))
{
}

SocketComm::~SocketComm()
{
    members_->keeper.Stop();
}

bool SocketComm::Init()
{
    return SetSigPipeHandler();
}

bool SocketComm::Start()
{
    SetSigPipeHandler();
    return members_->keeper.Start([this](Connection& connection) { return Open(connection); });
}

bool SocketComm::Stop()
{
    members_->keeper.Stop();
    return true;
}

bool SocketComm::DeInit()
{
    Stop();
    CleanCache();
    return true;
}

bool SocketComm::StatusCheck()
{
    const auto connection = members_->keeper.GetCurrent();
    return connection != nullptr && connection->IsUp();
}

void SocketComm::GiveUp(std::uint32_t connection, const char* reason)
{
    if (const auto current = members_->keeper.GetCurrent(connection); current != nullptr) {
        current->Fail(reason);
    }
}

std::uint32_t SocketComm::GetConnectionCount() const
{
    return members_->keeper.GetCount();
}

long long SocketComm::GetBeatAgeMs() const
{
    const std::int64_t beatNs = members_->beatNs;
    return beatNs == 0 ? -1 : (Clock::MonotonicNs() - beatNs) / Clock::kNsPerMs;
}

bool SocketComm::GetPeerUser(std::uint32_t& uid) const
{
    const auto connection = members_->keeper.GetCurrent();
    if (connection == nullptr || !connection->IsUp()) {
        return false;
    }
    return GetPeerUserOf(connection->GetSocket().GetFd(), uid);
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
    if (!connection.Create(SocketProxy::PraseSocketType(kNetworkSocket, serverIp))) {
        NE_LOG(ERROR, "Create socket faild.");
        return false;
    }
    const SocketProxy& proxy = connection.GetSocket();
    if (!proxy.Bind(agentIp, 0)) {
        NE_LOG(ERROR, "Bind socket faild.[agentIp=%s]", agentIp.c_str());
        return false;
    }
    if (!proxy.Connect(serverIp, port, kConnectSeconds) || IsConnectedToItself(proxy.GetFd())) {
        NE_LOG(ERROR, "Connect socket faild.[serverIp=%s, serverPort=%d]", serverIp.c_str(), port);
        return false;
    }
    LimitAcknowledging(proxy.GetFd(), kDeadPeerMs);
    return true;
}

bool SocketComm::CreateDomainConnection(Connection& connection)
{
    std::string path;
    if (!GetConfig("SERVER_SOCKET_PATH", path)) {
        return false;
    }
    if (!connection.Create(AF_UNIX)) {
        NE_LOG(ERROR, "Create domain socket failed.");
        return false;
    }
    const SocketProxy& proxy = connection.GetSocket();
    LimitSending(proxy.GetFd(), kLocalConnectSeconds);
    if (!proxy.Connect(path, 0, 0)) {
        NE_LOG(ERROR, "Connect domain socket failed.[server=%s]", path.c_str());
        return false;
    }
    return true;
}

void SocketComm::HandleMessage(const SentrelAgentMsg& header, void* message)
{
    // Kept because servers rely on it: a response of a newer version answers its request, though nobody gets it.
    if (IsResponseMessage(header.type) && !UpdateRequestCache(header)) {
        return;
    }
    NE_LOG(DEBUG, "Receive Data: type [0x%x] size [%zu]", header.type, sizeof(header) + header.length);
    if (header.version > kMsgVersion) {
        NE_LOG(DEBUG, "Server version: [%u], client version: [%d]", header.version, static_cast<int>(kMsgVersion));
        return;
    }
    if (const auto handlers = members_->handlers.Find(header.type); handlers != nullptr) {
        MessageHandlers::Call(*handlers, header.type, message);
    }
}

// False if there is no such request.
bool SocketComm::UpdateRequestCache(const SentrelAgentMsg& header)
{
    if (members_->cache.Remove(header.seq)) {
        NE_LOG(DEBUG, "Remove request from cache.[seq=%u, type=%u]", header.seq, header.type);
        return true;
    }
    NE_LOG(DEBUG, "Request not in cache, drop it.[seq=%u, type=%u]", header.seq, header.type);
    return false;
}

// Gives after how many milliseconds it is to be called again. It runs on the thread that receives, so it does
// not wait for other senders.
int SocketComm::RetryRequest(Connection& connection)
{
    if (!g_sendMutex.TryLock()) {
        return kRetryBusyMs;
    }
    RequestCache::Due request;
    bool sent = false;
    const bool isDue = members_->cache.TakeDue(request);
    if (isDue) {
        sent = connection.Send(request.message->data(), request.message->size(), SendEnd());
    }
    g_sendMutex.Unlock();
    if (isDue) {
        NE_LOG(DEBUG, "Retry request, seq: %u, type: %u", request.seq, request.type);
    }
    connection.LogFailedSend();
    return sent ? 0 : kRetryPeriodMs;
}

int SocketComm::SendMessage(const char* message, unsigned int length)
{
    const auto connection = GetConnection();
    if (connection == nullptr) {
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

int SocketComm::SendRequests(const std::vector<Request>& requests)
{
    const auto connection = GetConnection();
    if (connection == nullptr) {
        return kSendFailed;
    }
    if (requests.empty() || !std::all_of(requests.begin(), requests.end(), &IsWhole)) {
        NE_LOG(DEBUG, "Invalid message parameter.");
        return kSendRefused;
    }
    std::string joined;
    for (const Request& request : requests) {
        SentrelAgentMsg header;
        std::memcpy(&header, request->data(), sizeof(header));
        CacheRequest(header, request);
        if (requests.size() > 1) {
            joined.append(*request);
        }
    }
    const std::string& bytes = requests.size() == 1 ? *requests.front() : joined;
    return Send(*connection, bytes.data(), bytes.size()) ? kSendDone : kSendFailed;
}

// The current connection, if it is up.
std::shared_ptr<Connection> SocketComm::GetConnection()
{
    auto connection = members_->keeper.GetCurrent();
    if (connection == nullptr || !connection->IsUp()) {
        NE_LOG(WARN, "Net is not working");
        return nullptr;
    }
    return connection;
}

bool SocketComm::Send(Connection& connection, const char* messages, std::size_t length)
{
    const std::int64_t end = SendEnd();
    if (!g_sendMutex.LockUntil(end, connection)) {
        return false;
    }
    const bool sent = connection.Send(messages, length, end);
    g_sendMutex.Unlock();
    connection.LogFailedSend();
    return sent;
}

// Keeps a copy of a request until its response comes. False if there is no memory.
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
        CacheRequest(header, std::make_shared<const std::string>(message, length));
    } catch (const std::bad_alloc&) {
        return false;
    }
    return true;
}

void SocketComm::CacheRequest(const SentrelAgentMsg& header, const Request& request)
{
    members_->cache.Add(header.seq, header.type, request);
    NE_LOG(DEBUG, "Cache request message, seq: %u, type: %u", header.seq, header.type);
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
