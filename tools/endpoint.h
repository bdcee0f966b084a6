#pragma once

#include <sys/socket.h>
#include <sys/types.h>

#include <string>

// Where agents connect: the address of a UNIX or a TCP socket.
struct Endpoint {
    sockaddr_storage address = {};
    socklen_t length = 0;
};

// Reads unix:PATH, tcp:ADDR:PORT or tcp:[ADDR]:PORT. Gives what is wrong with it, or nothing.
std::string ParseEndpoint(const std::string& text, Endpoint& endpoint);

// In the form that ParseEndpoint reads.
std::string EndpointName(const Endpoint& endpoint);

// Who is at the other end: pid=PID uid=UID of a UNIX socket, ADDR:PORT of a TCP one.
std::string PeerName(int fd, const sockaddr* address, socklen_t length);

// A listening socket and, for a UNIX one, its file.
class ListenSocket {
public:
    ListenSocket() = default;
    ~ListenSocket();
    ListenSocket(const ListenSocket&) = delete;
    ListenSocket& operator=(const ListenSocket&) = delete;

    // Once. Gives why it could not be opened, or nothing.
    std::string Open(const Endpoint& endpoint);

    enum FileState { kInPlace, kRemoved, kReplaced };
    FileState CheckFile() const;  // where its file is to be; kInPlace for TCP

    int GetFd() const { return fd_; }
    std::string GetName() const { return EndpointName(endpoint_); }  // with the port that the kernel chose

private:
    bool BindFile();
    bool BindAddress();

    Endpoint endpoint_;
    int fd_ = -1;
    dev_t device_ = 0;
    ino_t inode_ = 0;  // 0: it has made no file
};
