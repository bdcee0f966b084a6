// The other end of a channel: a server on a socket, which a test drives by hand.
#pragma once

#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cstring>

#include "basecomm.h"
#include "config.h"
#include "report_messages.h"
#include "tests/support/support.h"
#include "util/unique_fd.h"

inline std::string Message(std::uint32_t type, std::uint32_t seq, const std::string& body = {},
                           std::uint32_t version = kMsgVersion)
{
    const SentrelAgentMsg header = {version, type, seq, static_cast<std::uint32_t>(body.size())};
    return std::string(reinterpret_cast<const char*>(&header), sizeof(header)) + body;
}

inline SentrelAgentMsg HeaderOf(const std::string& message)
{
    SentrelAgentMsg header = {};
    std::memcpy(&header, message.data(), std::min(sizeof(header), message.size()));
    return header;
}

// Listens on a UNIX socket with this path, and makes it the configured server.
class Peer {
public:
    explicit Peer(const std::string& path, int backlog = 8) : path_(path)
    {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof(address.sun_path) - 1);
        EXPECT_EQ(bind(listener_.Get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
        EXPECT_EQ(listen(listener_.Get(), backlog), 0);
        Config::ParseConfig("SOCKET_TYPE=1\nSERVER_SOCKET_PATH=" + path, false, {});
    }
    explicit Peer(UniqueFd listener) : listener_(std::move(listener)) {}
    ~Peer() { unlink(path_.c_str()); }

    bool Accept()
    {
        pollfd wanted = {listener_.Get(), POLLIN, 0};
        client_.Reset(poll(&wanted, 1, 20000) == 1 ? accept(listener_.Get(), nullptr, nullptr) : -1);
        return client_.IsValid();
    }
    void Close() { client_.Reset(); }
    bool Send(const std::string& bytes) const
    {
        return send(client_.Get(), bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
    }
    // Exactly that many bytes; fewer at the end of the stream, or when none come in the time.
    std::string Receive(std::size_t size, int waitMs = 20000) const
    {
        std::string bytes(size, '\0');
        std::size_t got = 0;
        pollfd wanted = {client_.Get(), POLLIN, 0};
        while (got < size && poll(&wanted, 1, waitMs) == 1) {
            const ssize_t count = recv(client_.Get(), &bytes[got], size - got, 0);
            if (count <= 0) {
                break;
            }
            got += static_cast<std::size_t>(count);
        }
        bytes.resize(got);
        return bytes;
    }
    // One message; empty if none comes.
    std::string ReceiveAny(int waitMs = 20000) const
    {
        const std::string header = Receive(sizeof(SentrelAgentMsg), waitMs);
        return header.empty() ? header : header + Receive(HeaderOf(header).length);
    }
    // The same but for heartbeats, which are answered.
    std::string ReceiveMessage(int waitMs = 20000) const
    {
        std::string message;
        do {
            message = ReceiveAny(waitMs);
        } while (HeaderOf(message).type == kMsgHeartbeat && Answer(message));
        return message;
    }
    bool Answer(const std::string& request, std::uint32_t version = kMsgVersion) const
    {
        return Send(Message(HeaderOf(request).type + 1, HeaderOf(request).seq, {}, version));
    }

private:
    const std::string path_;
    const UniqueFd listener_{socket(AF_UNIX, SOCK_STREAM, 0)};
    UniqueFd client_;
};
