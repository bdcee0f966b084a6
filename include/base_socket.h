#pragma once

#include <memory>
#include <string>

#include "neutils_api.h"

namespace NEUtils {

// A stream socket. The kinds are UNIXSocket, Ipv4Socket and Ipv6Socket; SocketProxy chooses one.
//
// Threads  one at a time; nothing here has a lock. Two may use it where one only sends and the other
//          only receives.
// Owns     its descriptor, closed by the destructor and left open by every failure.
// Errors   false, or -1 where said, and a record.
class NEUTILS_API BaseSocket {
public:
    BaseSocket() = default;
    virtual ~BaseSocket();
    BaseSocket(const BaseSocket&) = delete;
    BaseSocket& operator=(const BaseSocket&) = delete;

    virtual bool Create() = 0;
    virtual bool Bind(const std::string& addr, int port) const = 0;
    virtual bool Connect(const std::string& addr, int port, int timeoutSeconds) const = 0;

    // Sends all bytes, as long as that takes. data is not tested for null.
    virtual bool Send(const unsigned char* data, long length) const;

    // The same within a time limit. After a failure part of the bytes may be on their way.
    bool SendWithin(const unsigned char* data, long length, int limitMs) const;

    // Takes what is there, without waiting: the number of bytes, 0 for none. -1: the peer has closed (then
    // also bytes read by this very call are lost), or there is nothing to read into.
    // Each other error is taken off the count, which may be negative then; one that persists keeps this
    // function going. End it by shutting the connection down, not by closing the descriptor.
    virtual long Recv(unsigned char* buffer, long length);

    virtual bool Listen() const;

    // Waits for a connection and stores it in client, over whatever descriptor that has.
    virtual bool Accept(const std::shared_ptr<BaseSocket>& client);
    virtual int GetFd() const { return fd; }

protected:
    bool CreateFamily(int family);
    // Binds, with a limit of 5 seconds on waiting to receive or accept.
    bool BindAddress(const void* address, unsigned int size) const;

    int fd = -1;
};

}  // namespace NEUtils
