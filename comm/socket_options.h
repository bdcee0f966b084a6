#pragma once

#include <cstdint>

namespace NEUtils {

// Limits of the kernel for a stream socket, and what it knows about both ends. A kernel that refuses a limit leaves
// the socket without it.
//
// Threads  any.

void LimitSending(int fd, int seconds);  // before it is connected: the connect of a local socket too
// How long a TCP peer's kernel may leave unacknowledged what was sent.
void LimitAcknowledging(int fd, unsigned int milliseconds);

// A client may get as its own port the very port of this host that it connects to, if nobody listens there.
bool IsConnectedToItself(int fd);

// The user who listens at the other end. False, and nothing is set, if the socket is not a connected local one.
bool GetPeerUserOf(int fd, std::uint32_t& uid);

}  // namespace NEUtils
