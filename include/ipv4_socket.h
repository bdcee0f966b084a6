#pragma once

#include <netinet/in.h>

#include "tcp_socket.h"

namespace NEUtils {

// TCP over IPv4. A bound socket gives up an Accept after 5 seconds.
class NEUTILS_API Ipv4Socket : public TCPSocket {
public:
    bool Create() override;
    bool Bind(const std::string& addr, int port) const override;
    bool Connect(const std::string& addr, int port, int timeoutSeconds) const override;

    // addr is an address; of names only the few that the resolver knows in 16 bytes.
    bool GetNetSockAddrInfo(const std::string& addr, int port, sockaddr_in& address) const;
};

}  // namespace NEUtils
