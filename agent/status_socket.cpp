#include "status_socket.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>

#include "util/errno_text.h"

using NEUtils::UniqueFd;

namespace {

constexpr char kName[] = "agent.sock";
constexpr int kWaiting = 8;
constexpr std::chrono::seconds kAnswerLimit{5};
constexpr std::size_t kMaxAnswer = std::size_t{1} << 20U;

UniqueFd OpenDirectory(const std::string& path)
{
    return UniqueFd(open(path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
}

// The address of the socket in a directory. By way of the descriptor it is always short enough.
sockaddr_un AddressIn(const UniqueFd& directory)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::snprintf(address.sun_path, sizeof(address.sun_path), "/proc/self/fd/%d/%s", directory.Get(), kName);
    return address;
}

bool Bind(const UniqueFd& fd, const UniqueFd& directory)
{
    const sockaddr_un address = AddressIn(directory);
    const mode_t mask = umask(0177);
    const bool bound = bind(fd.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
    umask(mask);
    return bound;
}

bool Connect(const UniqueFd& fd, const UniqueFd& directory)
{
    const timeval limit = {std::chrono::seconds(kAnswerLimit).count(), 0};  // also of a connect that has to wait
    const sockaddr_un address = AddressIn(directory);
    return setsockopt(fd.Get(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof(limit)) == 0 &&
           connect(fd.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
}

ino_t InodeIn(const UniqueFd& directory)
{
    struct stat status = {};
    return fstatat(directory.Get(), kName, &status, AT_SYMLINK_NOFOLLOW) == 0 ? status.st_ino : 0;
}

// Reads to the end of the stream, while the time lasts.
bool ReadAll(int fd, std::string& text)
{
    const auto end = std::chrono::steady_clock::now() + kAnswerLimit;
    char piece[4096];
    while (text.size() < kMaxAnswer) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now()).count();
        pollfd waiting = {fd, POLLIN, 0};
        if (left <= 0 || poll(&waiting, 1, static_cast<int>(left)) == 0) {
            errno = ETIMEDOUT;
            return false;
        }
        const ssize_t count = recv(fd, piece, sizeof(piece), MSG_DONTWAIT);
        if (count == 0) {
            return true;
        }
        if (count > 0) {
            text.append(piece, static_cast<std::size_t>(count));
        } else if (errno != EINTR && errno != EAGAIN) {
            return false;
        }
    }
    errno = EMSGSIZE;
    return false;
}

}  // namespace

std::string StatusSocket::Open()
{
    directory_ = OpenDirectory(path_);
    unlinkat(directory_.Get(), kName, 0);  // of an agent that was killed
    fd_.Reset(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (fd_.IsValid() && Bind(fd_, directory_) && listen(fd_.Get(), kWaiting) == 0) {
        inode_ = InodeIn(directory_);
        return {};
    }
    std::string fault = path_ + "/" + kName + ": " + NEUtils::ErrnoText(errno).Get();
    fd_.Reset();
    return fault;
}

void StatusSocket::Close()
{
    if (fd_.IsValid() && InodeIn(directory_) == inode_) {
        unlinkat(directory_.Get(), kName, 0);
    }
    fd_.Reset();
}

UniqueFd StatusSocket::Accept() const
{
    return UniqueFd(accept4(fd_.Get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
}

void StatusSocket::Send(const UniqueFd& client, const std::string& text)
{
    send(client.Get(), text.data(), text.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
}

std::string StatusSocket::Ask(const std::string& directory, std::string& text)
{
    const UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (fd.IsValid() && Connect(fd, OpenDirectory(directory)) && ReadAll(fd.Get(), text)) {
        return {};
    }
    const int error = errno;
    if (error == ENOENT || error == ECONNREFUSED) {
        return "no agent runs from there";
    }
    const bool late = error == EAGAIN || error == ETIMEDOUT;
    return late ? "the agent does not answer"
                : std::string("the agent cannot be asked: ") + NEUtils::ErrnoText(error).Get();
}
