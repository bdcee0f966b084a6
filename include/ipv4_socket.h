#pragma once

#include <netinet/in.h>

#include "tcp_socket.h"

namespace NEUtils {

// TCP over IPv4. On a bound socket Accept waits for at most 5 seconds.
class NEUTILS_API Ipv4Socket : public TCPSocket {
public:
    bool Create() override;
    bool Bind(const std::string& addr, int port) const override;
    bool Connect(const std::string& addr, int port, int timeoutSeconds) const override;

    // addr is an address in digits. Names fail: the resolver gets too little memory for them.
    bool GetNetSockAddrInfo(const std::string& addr, int port, sockaddr_in& address) const;
};

}  // namespace NEUtils
