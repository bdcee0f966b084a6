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
#include <cstring>

namespace {

constexpr char kName[] = "agent.sock";
constexpr int kWaiting = 8;
constexpr std::chrono::seconds kAnswerLimit{5};
constexpr std::size_t kMaxAnswer = std::size_t{1} << 20U;

// A folder, and the address of the socket in it, which by way of the descriptor is always short enough.
class Place {
public:
    explicit Place(const std::string& folder) : fd_(open(folder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC))
    {
        address_.sun_family = AF_UNIX;
        std::snprintf(address_.sun_path, sizeof(address_.sun_path), "/proc/self/fd/%d/%s", fd_, kName);
    }
    ~Place()
    {
        if (fd_ >= 0) {
            close(fd_);
        }
    }
    Place(const Place&) = delete;
    Place& operator=(const Place&) = delete;

    void Remove() const { unlinkat(fd_, kName, 0); }
    bool Bind(int fd) const
    {
        const mode_t mask = umask(0177);
        const bool bound = bind(fd, Address(), sizeof(address_)) == 0;
        umask(mask);
        return bound;
    }
    bool Connect(int fd) const { return connect(fd, Address(), sizeof(address_)) == 0; }

private:
    const sockaddr* Address() const { return reinterpret_cast<const sockaddr*>(&address_); }

    const int fd_;
    sockaddr_un address_ = {};
};

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
    const Place place(folder_);
    place.Remove();  // of an agent that was killed
    fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd_ >= 0 && place.Bind(fd_) && listen(fd_, kWaiting) == 0) {
        return {};
    }
    std::string fault = folder_ + "/" + kName + ": " + std::strerror(errno);
    Close();
    return fault;
}

void StatusSocket::Close()
{
    if (fd_ >= 0) {
        close(fd_);
        fd_ = -1;
        Place(folder_).Remove();
    }
}

int StatusSocket::Accept() const
{
    return accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
}

void StatusSocket::Send(int client, const std::string& text)
{
    send(client, text.data(), text.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    close(client);
}

std::string StatusSocket::Ask(const std::string& folder, std::string& text)
{
    const Place place(folder);
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const timeval limit = {std::chrono::seconds(kAnswerLimit).count(), 0};  // also of a connect that has to wait
    const bool answered = fd >= 0 && setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof(limit)) == 0 &&
                          place.Connect(fd) && ReadAll(fd, text);
    const int error = errno;
    if (fd >= 0) {
        close(fd);
    }
    if (answered) {
        return {};
    }
    if (error == ENOENT || error == ECONNREFUSED) {
        return "no agent runs from there";
    }
    const bool late = error == EAGAIN || error == ETIMEDOUT;
    return late ? "the agent does not answer" : "the agent cannot be asked: " + std::string(std::strerror(error));
}
