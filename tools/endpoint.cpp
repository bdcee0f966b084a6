#include "endpoint.h"

#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdint>
#include <cstring>

namespace {

constexpr int kBacklog = 512;
constexpr int kKeepIdleSeconds = 60;
constexpr int kKeepPeriodSeconds = 10;
constexpr int kKeepTries = 6;

const sockaddr* Address(const Endpoint& endpoint)
{
    return reinterpret_cast<const sockaddr*>(&endpoint.address);
}

const char* Path(const Endpoint& endpoint)
{
    return reinterpret_cast<const sockaddr_un*>(&endpoint.address)->sun_path;
}

std::string ParsePath(const std::string& path, Endpoint& endpoint)
{
    sockaddr_un address = {};
    if (path.empty()) {
        return "has no path";
    }
    if (path.size() >= sizeof(address.sun_path)) {
        return "has a path of more than " + std::to_string(sizeof(address.sun_path) - 1) + " bytes";
    }
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, path.size());
    std::memcpy(&endpoint.address, &address, sizeof(address));
    endpoint.length = sizeof(address);
    return {};
}

bool IsPort(const std::string& text)
{
    std::uint16_t port = 0;
    const auto [stop, error] = std::from_chars(text.data(), text.data() + text.size(), port);
    return error == std::errc() && stop == text.data() + text.size();
}

std::string ParseAddress(const std::string& text, Endpoint& endpoint)
{
    const std::size_t colon = text.rfind(':');
    const std::string port = colon == std::string::npos ? std::string() : text.substr(colon + 1);
    if (!IsPort(port)) {
        return "does not end in a port from 0 to 65535";
    }
    std::string host = text.substr(0, colon);
    if (host.starts_with('[') && host.ends_with(']')) {
        host = host.substr(1, host.size() - 2);
    }
    addrinfo hints = {};
    hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (host.empty() || getaddrinfo(host.c_str(), port.c_str(), &hints, &found) != 0) {
        return "has no numeric address";
    }
    std::memcpy(&endpoint.address, found->ai_addr, found->ai_addrlen);
    endpoint.length = found->ai_addrlen;
    freeaddrinfo(found);
    return {};
}

std::string AddressName(const sockaddr* address, socklen_t length)
{
    char host[NI_MAXHOST] = {};
    char port[NI_MAXSERV] = {};
    if (getnameinfo(address, length, host, sizeof(host), port, sizeof(port), NI_NUMERICHOST | NI_NUMERICSERV) != 0) {
        return "unknown";
    }
    const bool isIpv6 = address->sa_family == AF_INET6;
    return std::string(isIpv6 ? "[" : "").append(host).append(isIpv6 ? "]:" : ":").append(port);
}

// Removes a socket file that nobody listens on any more.
std::string ClearPath(const Endpoint& endpoint)
{
    struct stat status = {};
    if (lstat(Path(endpoint), &status) != 0) {
        return errno == ENOENT ? std::string() : std::strerror(errno);
    }
    if (!S_ISSOCK(status.st_mode)) {
        return "the file exists and is not a socket";
    }
    const int probe = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    const int error = connect(probe, Address(endpoint), endpoint.length) == 0 ? 0 : errno;
    close(probe);
    if (error == 0 || error == EAGAIN) {
        return "somebody listens there already";
    }
    if (error != ECONNREFUSED) {
        return std::strerror(error);
    }
    return unlink(Path(endpoint)) == 0 ? std::string() : std::strerror(errno);
}

}  // namespace

std::string ParseEndpoint(const std::string& text, Endpoint& endpoint)
{
    if (text.starts_with("unix:")) {
        return ParsePath(text.substr(5), endpoint);
    }
    if (text.starts_with("tcp:")) {
        return ParseAddress(text.substr(4), endpoint);
    }
    return "begins with neither unix: nor tcp:";
}

std::string EndpointName(const Endpoint& endpoint)
{
    return endpoint.address.ss_family == AF_UNIX ? std::string("unix:") + Path(endpoint)
                                                 : "tcp:" + AddressName(Address(endpoint), endpoint.length);
}

std::string PeerName(int fd, const sockaddr* address, socklen_t length)
{
    if (address->sa_family != AF_UNIX) {
        return AddressName(address, length);
    }
    ucred peer = {};
    socklen_t size = sizeof(peer);
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) {
        return "unknown";
    }
    return "pid=" + std::to_string(peer.pid) + " uid=" + std::to_string(peer.uid);
}

// While the socket is open no other file can have its inode.
ListenSocket::FileState ListenSocket::CheckFile() const
{
    struct stat status = {};
    if (endpoint_.address.ss_family != AF_UNIX) {
        return kInPlace;
    }
    if (lstat(Path(endpoint_), &status) != 0) {
        return errno == ENOENT || errno == ENOTDIR ? kRemoved : kInPlace;
    }
    return status.st_ino == inode_ && status.st_dev == device_ ? kInPlace : kReplaced;
}

ListenSocket::~ListenSocket()
{
    if (inode_ != 0 && CheckFile() == kInPlace) {
        unlink(Path(endpoint_));
    }
    if (fd_ >= 0) {
        close(fd_);
    }
}

std::string ListenSocket::Open(const Endpoint& endpoint)
{
    endpoint_ = endpoint;
    const int family = endpoint.address.ss_family;
    const bool hasFile = family == AF_UNIX;
    if (hasFile) {
        std::string fault = ClearPath(endpoint);
        if (!fault.empty()) {
            return fault;
        }
    }
    fd_ = socket(family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd_ < 0 || !(hasFile ? BindFile() : BindAddress()) || listen(fd_, kBacklog) != 0) {
        return std::strerror(errno);
    }
    // Only now has port 0 become a real one.
    if (!hasFile && getsockname(fd_, reinterpret_cast<sockaddr*>(&endpoint_.address), &endpoint_.length) != 0) {
        return std::strerror(errno);
    }
    return {};
}

// Nobody else may connect, not even between bind and a chmod.
bool ListenSocket::BindFile()
{
    const mode_t mask = umask(0177);
    const bool bound = bind(fd_, Address(endpoint_), endpoint_.length) == 0;
    umask(mask);
    struct stat status = {};
    if (!bound || lstat(Path(endpoint_), &status) != 0) {
        return false;
    }
    device_ = status.st_dev;
    inode_ = status.st_ino;
    return true;
}

// Accepted sockets inherit these options.
bool ListenSocket::BindAddress()
{
    const int on = 1;
    setsockopt(fd_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    setsockopt(fd_, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof(on));
    // An agent whose host is gone without a word is noticed after two minutes.
    setsockopt(fd_, IPPROTO_TCP, TCP_KEEPIDLE, &kKeepIdleSeconds, sizeof(kKeepIdleSeconds));
    setsockopt(fd_, IPPROTO_TCP, TCP_KEEPINTVL, &kKeepPeriodSeconds, sizeof(kKeepPeriodSeconds));
    setsockopt(fd_, IPPROTO_TCP, TCP_KEEPCNT, &kKeepTries, sizeof(kKeepTries));
    setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
    if (endpoint_.address.ss_family == AF_INET6) {  // leaves the port of 0.0.0.0 to whoever wants it
        setsockopt(fd_, IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof(on));
    }
    return bind(fd_, Address(endpoint_), endpoint_.length) == 0;
}
