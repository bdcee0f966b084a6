#include "tcp_socket.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/select.h>

#include <algorithm>
#include <cerrno>
#include <climits>

#include "logger.h"
#include "util/errno_text.h"

namespace NEUtils {

namespace {

// Makes a descriptor non-blocking for a scope, if that is wanted.
class NonBlocking {
public:
    NonBlocking(int fd, bool wanted) : fd_(fd), flags_(wanted ? fcntl(fd, F_GETFL) : -1)
    {
        if (flags_ != -1) {
            fcntl(fd_, F_SETFL, flags_ | O_NONBLOCK);
        }
    }
    ~NonBlocking()
    {
        if (flags_ != -1) {
            fcntl(fd_, F_SETFL, flags_);
        }
    }
    NonBlocking(const NonBlocking&) = delete;
    NonBlocking& operator=(const NonBlocking&) = delete;

private:
    const int fd_;
    const int flags_;
};

}  // namespace

bool TCPSocket::SocketConnect(const sockaddr* address, int addressSize, int timeoutSeconds) const
{
    const NonBlocking scope(fd, timeoutSeconds > 0);
    const int result = connect(fd, address, static_cast<socklen_t>(addressSize));
    if (result == 0) {
        return true;
    }
    const int failure = errno;
    if (failure != EINPROGRESS) {
        NE_LOG(ERROR, "Connect failed, ret is [%d], errno is [%d].", result, failure);
        return false;
    }
    if (timeoutSeconds <= 0) {
        return false;
    }
    if (SocketSelect(fd, timeoutSeconds) < 1) {  // kept because operators know the text: also for an interrupted wait
        NE_LOG(ERROR, "Connect timeout.");
        return false;
    }
    int error = 0;
    socklen_t size = sizeof(error);
    if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &size) != 0) {
        error = errno;
    }
    if (error == 0) {
        return true;
    }
    NE_LOG(ERROR, "Error in connection, error information is [%s].", ErrnoText(error).Get());
    return false;
}

int TCPSocket::SocketSelect(int descriptor, int timeoutSeconds) const
{
    if (descriptor < 0 || timeoutSeconds < 0) {
        return -1;
    }
    if (descriptor >= FD_SETSIZE) {  // too large for a set
        pollfd wanted = {descriptor, POLLIN | POLLOUT, 0};
        const int result = poll(&wanted, 1, std::min(timeoutSeconds, INT_MAX / 1000) * 1000);
        if (result <= 0) {
            return result;
        }
        if ((wanted.revents & POLLNVAL) != 0) {
            return -1;
        }
        return ((wanted.revents & (POLLIN | POLLHUP | POLLERR)) != 0 ? 1 : 0) +
               ((wanted.revents & (POLLOUT | POLLERR)) != 0 ? 1 : 0);
    }
    fd_set readable;
    FD_ZERO(&readable);
    FD_SET(descriptor, &readable);
    fd_set writable = readable;
    timeval limit = {timeoutSeconds, 0};
    return select(descriptor + 1, &readable, &writable, nullptr, &limit);
}

}  // namespace NEUtils
