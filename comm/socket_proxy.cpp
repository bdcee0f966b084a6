#include "socket_proxy.h"

#include <sys/socket.h>

#include "ipv4_socket.h"
#include "ipv6_socket.h"
#include "logger.h"
#include "unix_socket.h"

namespace NEUtils {

bool SocketProxy::Create(int type)
{
    switch (type) {
    case AF_INET:
        socket_ = std::make_shared<Ipv4Socket>();
        break;
    case AF_INET6:
        socket_ = std::make_shared<Ipv6Socket>();
        break;
    case AF_UNIX:
        socket_ = std::make_shared<UNIXSocket>();
        break;
    default:
        NE_LOG(ERROR, "Unsupported socket type [%d]!", type);
        return false;
    }
    if (!socket_->Create()) {
        return false;
    }
    type_ = type;
    return true;
}

void SocketProxy::Close()
{
    socket_.reset();
    type_ = -1;
}

bool SocketProxy::Bind(const std::string& addr, int port) const
{
    return IsValid() && socket_->Bind(addr, port);
}

bool SocketProxy::Connect(const std::string& addr, int port, int timeoutSeconds) const
{
    return IsValid() && socket_->Connect(addr, port, timeoutSeconds);
}

bool SocketProxy::Send(const unsigned char* data, long length) const
{
    return IsValid() && socket_->Send(data, length);
}

bool SocketProxy::SendWithin(const unsigned char* data, long length, int limitMs) const
{
    return IsValid() && socket_->SendWithin(data, length, limitMs);
}

long SocketProxy::Recv(unsigned char* buffer, long length) const
{
    return IsValid() ? socket_->Recv(buffer, length) : -1;
}

bool SocketProxy::Listen() const
{
    return IsValid() && socket_->Listen();
}

// Kept because it has always been so for its callers: the descriptor that the client's Create opens is overwritten
// and never closed.
bool SocketProxy::Accept(const std::shared_ptr<SocketProxy>& client) const
{
    return IsValid() && client != nullptr && client->Create(type_) && socket_->Accept(client->socket_);
}

int SocketProxy::GetFd() const
{
    return IsValid() ? socket_->GetFd() : -1;
}

int SocketProxy::PraseSocketType(int type, const std::string& addr)
{
    return type == AF_INET && addr.find(':') != std::string::npos ? AF_INET6 : type;
}

}  // namespace NEUtils
