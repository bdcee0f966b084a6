#include "comm/socket_options.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <cstring>

namespace NEUtils {

void LimitSending(int fd, int seconds)
{
    const timeval limit = {seconds, 0};
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof(limit));
}

void LimitAcknowledging(int fd, unsigned int milliseconds)
{
    setsockopt(fd, IPPROTO_TCP, TCP_USER_TIMEOUT, &milliseconds, sizeof(milliseconds));
}

bool IsConnectedToItself(int fd)
{
    sockaddr_in6 own = {};
    sockaddr_in6 peer = {};
    socklen_t ownSize = sizeof(own);
    socklen_t peerSize = sizeof(peer);
    return getsockname(fd, reinterpret_cast<sockaddr*>(&own), &ownSize) == 0 &&
           getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &peerSize) == 0 && ownSize == peerSize &&
           std::memcmp(&own, &peer, ownSize) == 0;
}

bool GetPeerUserOf(int fd, std::uint32_t& uid)
{
    int domain = 0;
    ucred peer = {};
    socklen_t domainSize = sizeof(domain);
    socklen_t peerSize = sizeof(peer);
    if (getsockopt(fd, SOL_SOCKET, SO_DOMAIN, &domain, &domainSize) != 0 || domain != AF_UNIX ||
        getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &peerSize) != 0) {
        return false;
    }
    uid = peer.uid;
    return true;
}

}  // namespace NEUtils
