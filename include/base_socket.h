#pragma once

#include <memory>
#include <string>

#include "neutils_api.h"

namespace NEUtils {

// A stream socket. The kinds are UNIXSocket, Ipv4Socket and Ipv6Socket; SocketProxy chooses one.
//
// Threads  one at a time, since nothing here has a lock; but one may send while another receives.
// Owns     its descriptor. The destructor closes it; a failure leaves it open.
// Errors   false, or -1 where said, and a log record.
class NEUTILS_API BaseSocket {
public:
    BaseSocket() = default;
    virtual ~BaseSocket();
    BaseSocket(const BaseSocket&) = delete;
    BaseSocket& operator=(const BaseSocket&) = delete;

    virtual bool Create() = 0;
    virtual bool Bind(const std::string& addr, int port) const = 0;
    virtual bool Connect(const std::string& addr, int port, int timeoutSeconds) const = 0;

    // Sends all bytes, however long that takes. data must not be null.
    virtual bool Send(const unsigned char* data, long length) const;

    // The same within a time limit. After a failure some of the bytes may have been sent.
    bool SendWithin(const unsigned char* data, long length, int limitMs) const;

    // Reads what has arrived, without waiting. Gives the number of bytes, 0 for none, or -1: the peer has closed
    // the connection (bytes that this call has read are lost then), or there is no buffer.
    // Every other error lowers the count by one, even below zero. While an error lasts, this function does not
    // return. To end it, shut the connection down; do not close the descriptor.
    virtual long Recv(unsigned char* buffer, long length);

    virtual bool Listen() const;

    // Waits for a connection and stores its descriptor in client. One that client had before is not closed.
    virtual bool Accept(const std::shared_ptr<BaseSocket>& client);
    virtual int GetFd() const { return fd; }

protected:
    bool CreateFamily(int family);
    // Binds, and limits waiting to receive or accept to 5 seconds.
    bool BindAddress(const void* address, unsigned int size) const;

    int fd = -1;
};

}  // namespace NEUtils
