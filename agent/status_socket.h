#pragma once

#include <sys/types.h>

#include <string>

#include "util/unique_fd.h"

// The local socket by which "sentrel-agent --status" asks the running agent: R/conf/agent.sock, mode 0600.
// Whoever connects gets the status and the end of the stream.
//
// Threads  one.
class StatusSocket {
public:
    explicit StatusSocket(std::string directory) : path_(std::move(directory)) {}
    ~StatusSocket() { Close(); }
    StatusSocket(const StatusSocket&) = delete;
    StatusSocket& operator=(const StatusSocket&) = delete;

    // Replaces what is there. Gives what went wrong, or nothing.
    std::string Open();
    void Close();  // and removes it, unless it has been replaced

    int GetFd() const { return fd_.Get(); }  // readable when somebody waits

    // Takes whoever waits; invalid if nobody does. Then Send answers and hangs up. It does not wait: what the client
    // has no room for is cut.
    NEUtils::UniqueFd Accept() const;
    static void Send(const NEUtils::UniqueFd& client, const std::string& text);

    // The other side: asks the agent, up to 5 seconds. Gives what went wrong, or nothing.
    static std::string Ask(const std::string& directory, std::string& text);

private:
    const std::string path_;
    NEUtils::UniqueFd directory_;  // as it was at Open, whatever is done to its path meanwhile
    NEUtils::UniqueFd fd_;
    ino_t inode_ = 0;  // of the socket's name
};
