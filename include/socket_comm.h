#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "basecomm.h"

namespace NEUtils {

class Connection;

// The channel to the server: a stream socket, TCP or local, that carries SentrelAgentMsg messages. It keeps a
// request until the response comes. Meanwhile it sends the request again, at most three times, 6 to 9 seconds
// apart. Received messages go to the handlers of their type, responses only if their request waits for them.
//
// Configuration (Config, either table): SOCKET_TYPE 1 local or 2 network (the default); for 1
// SERVER_SOCKET_PATH; for 2 SERVER_IP, SERVER_PORT and AGENT_IP, the own address to bind.
//
// Threads  any. "SocketRecv", one for each connection, receives, calls the handlers and repeats requests.
//          Destroy it on another thread, when no call is under way.
// Blocks   Start: up to 10 seconds for a connection; a Stop on another thread ends it. Sending: at most 10 to 11
//          seconds. If the peer does not read by then, the channel goes down. All channels of a process share
//          the order of their sends; one that has to wait this long for the others fails but stays up.
//          Stop: ends sends at once; waits for a handler under way, and up to a second for a local connect.
// Limits   524,288 bytes for a message with its header. If a longer one is announced, all that was received
//          is discarded. Requests without a response stay until DeInit; but while more than 200 are kept,
//          those go that were repeated three times.
// Errors   logged once, where they are noticed. When the peer closes, or a send fails or is cut short, the
//          channel goes down and stays so until the next Start.
class NEUTILS_API SocketComm : public NetCommBase {
public:
    SocketComm();
    ~SocketComm() override;
    SocketComm(const SocketComm&) = delete;
    SocketComm& operator=(const SocketComm&) = delete;

    bool Init() override;

    // Connects. True also if it is connected already. False while another Start is under way.
    bool Start() override;

    // Disconnects, and returns when no handler runs any more. A handler may call it: the channel is down at
    // once, and the next Start, Stop or DeInit on another thread joins the thread. The requests stay, and are
    // repeated on the next connection.
    bool Stop() override;

    bool DeInit() override;  // Stop and CleanCache
    bool StatusCheck() override;

    // Sends one message, header first, and gives a SendResult. A message that is shorter than a header is sent
    // as it is. A request whose send has failed is kept all the same, and goes out on the next connection: call
    // DropRequest before you send it again yourself.
    int SendMessage(const char* message, unsigned int length);
    int SendControlMsg(const char* message, unsigned int length) override;
    int SendLogWithTopicHeader(const std::string& topic, const std::string& log, bool withHeader) override;  // refused

    // A whole request, header first. The channel shares the bytes with the caller, who does not change them.
    using Request = std::shared_ptr<const std::string>;

    // Sends requests in one go: like SendMessage for each, with one result for all. None is sent or kept if one is
    // null, too short or too long, or if there is none. Throws std::bad_alloc; some of them may be kept then.
    int SendRequests(const std::vector<Request>& requests);

    // Adds a handler for a type. False for null, or if the table is busy for 5 seconds.
    bool RegisterMsgHandler(std::uint32_t type, MsgHandler handler, void* userData) override;

    // Removes a handler, whatever its user data. Afterwards no call of it runs, except the one that calls this.
    // Two handlers on two connections that remove each other wait for ever. False if there is none.
    bool UnregisterMsgHandler(std::uint32_t type, MsgHandler handler) override;

    // Forgets a request: it is not repeated, and its response is dropped. False if there is none.
    bool DropRequest(std::uint32_t seq);
    void CleanCache();

    // How many connections there have been. After a change, what was under way before may be lost.
    std::uint32_t GetConnectionCount() const;

    // How long ago "SocketRecv" last came round, which it does every second; -1 while there is no connection.
    long long GetBeatAgeMs() const;

    // Takes the channel down like a failure does, with this reason in the record, and waits for nothing. Does
    // nothing if there has been another connection since GetConnectionCount gave this number.
    void GiveUp(std::uint32_t connection, const char* reason);

    // The user who listens at the other end of a local socket. False: not connected, or over the network.
    bool GetPeerUser(std::uint32_t& uid) const;

private:
    bool Open(Connection& connection);
    bool CreateNetConnection(Connection& connection);
    bool CreateDomainConnection(Connection& connection);
    void HandleMessage(const SentrelAgentMsg& header, void* message);
    bool UpdateRequestCache(const SentrelAgentMsg& header);
    int RetryRequest(Connection& connection);
    std::shared_ptr<Connection> GetConnection();
    void CacheRequest(const SentrelAgentMsg& header, const Request& request);
    bool IsCacheRequestMessage(const char* message, unsigned int length);
    static bool Send(Connection& connection, const char* messages, std::size_t length);

    struct Members;
    const std::unique_ptr<Members> members_;
};

}  // namespace NEUtils
