#pragma once

#include <sys/socket.h>

#include "base_socket.h"

namespace NEUtils {

// What the TCP kinds share: connecting within a time limit.
class NEUTILS_API TCPSocket : public BaseSocket {
public:
    // Without a limit (0 or below) it waits as long as the kernel does.
    bool SocketConnect(const sockaddr* address, int addressSize, int timeoutSeconds) const;

    // Waits until the descriptor can be read or written: select's result, also for a descriptor that is
    // too large for select.
    int SocketSelect(int descriptor, int timeoutSeconds) const;
};

}  // namespace NEUtils
