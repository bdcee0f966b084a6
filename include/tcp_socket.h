#pragma once

#include <sys/socket.h>

#include "base_socket.h"

namespace NEUtils {

// Connecting within a time limit, which both kinds of TCP sockets share.
class NEUTILS_API TCPSocket : public BaseSocket {
public:
    // With a limit of 0 or less it waits as long as the kernel does.
    bool SocketConnect(const sockaddr* address, int addressSize, int timeoutSeconds) const;

    // Waits until the descriptor can be read or written. Gives what select gives, also for a descriptor whose
    // number is too large for select.
    int SocketSelect(int descriptor, int timeoutSeconds) const;
};

}  // namespace NEUtils
