#pragma once

#include <memory>
#include <string>

#include "base_socket.h"
#include "neutils_api.h"

namespace NEUtils {

// Owns a socket whose kind is chosen at run time by its address family: AF_UNIX (1), AF_INET (2) or
// AF_INET6 (10). Copies share the socket; the last one closes it.
//
// Threads  one at a time, but for Send beside Recv.
// Errors   without a socket: false, and -1 from Recv and GetFd. Otherwise those of BaseSocket.
class NEUTILS_API SocketProxy {
public:
    bool IsValid() const { return socket_ != nullptr; }

    // False for an unknown type, with a record and nothing changed. Where the system gives no descriptor
    // it is false too, but the proxy is valid then and keeps the type that it had.
    bool Create(int type);
    void Close();

    bool Bind(const std::string& addr, int port) const;
    bool Connect(const std::string& addr, int port, int timeoutSeconds) const;
    bool Send(const unsigned char* data, long length) const;
    bool SendWithin(const unsigned char* data, long length, int limitMs) const;
    long Recv(unsigned char* buffer, long length) const;
    bool Listen() const;

    // Waits for a connection, which client then holds. Leaks the descriptor that client is created with.
    bool Accept(const std::shared_ptr<SocketProxy>& client) const;
    int GetFd() const;

    // The family for an address: for type 2 it is 10 if addr holds a colon; other types stay as they are.
    static int PraseSocketType(int type, const std::string& addr);

private:
    std::shared_ptr<BaseSocket> socket_;
    int type_ = -1;
};

}  // namespace NEUtils
