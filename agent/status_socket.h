#pragma once

#include <string>

// The local socket by which "sentrel-agent --status" asks the running agent: <root>/conf/agent.sock, mode 0600.
// Whoever connects gets the status and the end of the stream.
//
// Threads  one.
class StatusSocket {
public:
    explicit StatusSocket(std::string folder) : folder_(std::move(folder)) {}
    ~StatusSocket() { Close(); }
    StatusSocket(const StatusSocket&) = delete;
    StatusSocket& operator=(const StatusSocket&) = delete;

    // Replaces what is there. Gives what went wrong, or nothing.
    std::string Open();
    void Close();  // and removes it

    int GetFd() const { return fd_; }  // readable when somebody waits

    // Takes whoever waits; -1 if nobody does. Then Send answers and hangs up, without waiting: a status is
    // smaller than a socket's buffer.
    int Accept() const;
    static void Send(int client, const std::string& text);

    // The other side: asks the agent, up to 5 seconds. Gives what went wrong, or nothing.
    static std::string Ask(const std::string& folder, std::string& text);

private:
    const std::string folder_;
    int fd_ = -1;
};
