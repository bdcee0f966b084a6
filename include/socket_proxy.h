#pragma once

#include <memory>
#include <string>

#include "base_socket.h"
#include "neutils_api.h"

namespace NEUtils {

// Owns a socket of a kind that is chosen at run time by the address family: AF_UNIX (1), AF_INET (2) or
// AF_INET6 (10). Copies share the socket, and the last copy closes it.
//
// Threads  one at a time; but one may send while another receives.
// Errors   without a socket: false, and -1 from Recv and GetFd. Otherwise those of BaseSocket.
class NEUTILS_API SocketProxy {
public:
    bool IsValid() const { return socket_ != nullptr; }

    // False for an unknown type, with a log record, and nothing is changed. False also when the system gives no
    // descriptor: then the proxy is valid all the same, and keeps the type that it had.
    bool Create(int type);
    void Close();

    bool Bind(const std::string& addr, int port) const;
    bool Connect(const std::string& addr, int port, int timeoutSeconds) const;
    bool Send(const unsigned char* data, long length) const;
    bool SendWithin(const unsigned char* data, long length, int limitMs) const;
    long Recv(unsigned char* buffer, long length) const;
    bool Listen() const;

    // Waits for a connection, which client then owns. The descriptor that client gets first is never closed.
    bool Accept(const std::shared_ptr<SocketProxy>& client) const;
    int GetFd() const;

    // The family for an address: 10 for type 2 if addr holds a colon. Every other type stays as it is.
    static int PraseSocketType(int type, const std::string& addr);

private:
    std::shared_ptr<BaseSocket> socket_;
    int type_ = -1;
};

}  // namespace NEUtils
