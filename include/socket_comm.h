#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "basecomm.h"

namespace NEUtils {

class Connection;

// The channel to the server: a stream socket, TCP or local, that carries SentrelAgentMsg messages. Requests
// are kept until their response comes and are sent again meanwhile, at most three times, 6 to 9 seconds
// apart. Received messages go to the handlers of their type; a response only if its request waits for it.
//
// Configuration (Config, either table): SOCKET_TYPE 1 local or 2 network (the default); for 1
// SERVER_SOCKET_PATH; for 2 SERVER_IP, SERVER_PORT and AGENT_IP, the own address to bind.
//
// Threads  any. "SocketRecv", one for each connection, receives, calls the handlers and repeats requests.
//          Destroy it from another thread, with no call under way.
// Blocks   Start: up to 10 seconds for a connection; Stop from elsewhere makes it give up. Sending: at most 10
//          to 11 seconds; when the peer does not read by then, or too slowly, the channel is down. All
//          channels of a process share the order of their sends: one that had no turn in this time fails alone.
//          Stop ends sends, and waits for a handler under way and for at most a second of a local connect.
// Limits   524,288 bytes for a message with its header; the buffer is discarded where a longer one is
//          announced. Requests without an answer stay cached until DeInit, but of those that are not
//          repeated any more only as long as no more than 200 are cached in all.
// Errors   told once, where they are noticed. A peer that closes, a send that fails or is cut short: the
//          channel is down, and stays so until it is started again.
class NEUTILS_API SocketComm : public NetCommBase {
public:
    SocketComm();
    ~SocketComm() override;
    SocketComm(const SocketComm&) = delete;
    SocketComm& operator=(const SocketComm&) = delete;

    bool Init() override;

    // Connects; true also where it is connected already. False while another Start is under way.
    bool Start() override;

    // Disconnects, and returns once the handlers have; called from one, the channel is down at once and its
    // thread is joined by the next Start, Stop or DeInit from elsewhere. The cached requests stay, and are
    // repeated on the next connection.
    bool Stop() override;

    bool DeInit() override;  // Stop, and the cached requests go
    bool StatusCheck() override;

    // Sends one message, header first; see SendResult. Shorter than a header it is sent as it is. A request
    // whose sending failed is cached nevertheless and goes out on the next connection: take it out with
    // DropRequest before sending it anew.
    int SendMessage(const char* message, unsigned int length);
    int SendControlMsg(const char* message, unsigned int length) override;
    int SendLogWithTopicHeader(const std::string& topic, const std::string& log, bool withHeader) override;  // refused

    // A whole request, header first, whose bytes the channel shares with its caller, who leaves them unchanged.
    using Request = std::shared_ptr<const std::string>;

    // Sends requests in one go: like SendMessage for each, with one result for all.
    int SendRequests(const std::vector<Request>& requests);

    // Adds a handler of a type. False for null, or if the table is busy for 5 seconds.
    bool RegisterMsgHandler(std::uint32_t type, MsgHandler handler, void* userData) override;

    // Removes a handler, with whatever user data; afterwards no call of it runs, but for the one that this is
    // called from. Two handlers on two connections that remove each other wait for ever. False if there is none.
    bool UnregisterMsgHandler(std::uint32_t type, MsgHandler handler) override;

    // Forgets a cached request: it is not repeated, and its response is dropped. False if there is none.
    bool DropRequest(std::uint32_t seq);
    void CleanCache();

    // How many connections there have been: a change tells that what was under way may be lost.
    std::uint32_t GetConnectionCount() const;

    // Takes the channel down like a failure does, with this reason in the record, and waits for nothing. Does
    // nothing if there has been another connection since GetConnectionCount gave this number.
    void GiveUp(std::uint32_t connection, const char* reason);

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
