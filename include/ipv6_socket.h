#pragma once

#include <netinet/in.h>

#include "tcp_socket.h"

namespace NEUtils {

// TCP over IPv6, only from and to addresses of this host's own interfaces: the scope of an address is the
// interface that has it, and an address without a scope is refused. On a bound socket Accept waits for at most
// 5 seconds.
class NEUTILS_API Ipv6Socket : public TCPSocket {
public:
    bool Create() override;
    bool Bind(const std::string& addr, int port) const override;
    bool Connect(const std::string& addr, int port, int timeoutSeconds) const override;

    bool GetNetSockAddrInfo6(const std::string& addr, int port, sockaddr_in6& address) const;
    unsigned int GetScopeForIp(const std::string& addr) const;  // 0: no interface has this address
};

}  // namespace NEUtils
