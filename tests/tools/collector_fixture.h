// A collector as a real process on real sockets, and agents and control clients for it.
#pragma once

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <cstring>

#include "basecomm.h"
#include "report_messages.h"
#include "tests/support/support.h"
#include "util/unique_fd.h"

inline std::string Item(std::uint16_t tag, const std::string& value)
{
    const auto length = static_cast<std::uint16_t>(value.size());
    std::string item(4, '\0');
    std::memcpy(item.data(), &tag, 2);
    std::memcpy(&item[2], &length, 2);
    return item + value;
}

inline std::string Int(std::uint32_t value)
{
    return {reinterpret_cast<const char*>(&value), sizeof(value)};
}

inline std::string Text(const std::string& text)
{
    return text + '\0';
}

inline std::string Times(int count, const std::string& text)
{
    return count == 0 ? "" : text + Times(count - 1, text);
}

inline const std::string kTime = Item(kTagTime, std::string(8, '\0'));
inline const std::string kExit = kTime + Item(kTagEvent, Int(kProcessExited)) + Item(kTagPid, Int(42)) +
                                 Item(kTagContainer, "f00d") + Item(kTagExitCode, Int(3)) +
                                 Item(kTagCmdLine, std::string("a\x1b[1m\x9b\xff\n\"b\0", 12));

struct CollectorTest : testing::Test {
    pid_t Start(const std::string& options, const std::string& out) const
    {
        if (fs::is_regular_file(out)) {
            fs::remove(out);
        }
        return Fork([&] {
            const std::string command =
                before_ + "exec " + COLLECTOR_PROGRAM + " " + options + " >" + out + " 2>" + err_;
            return execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
        });
    }
    std::string Run(const std::string& options) const
    {
        const int status = Wait(Start(options, directory_ / "unused"));
        return std::to_string(WEXITSTATUS(status)) + " " + Read(err_);
    }
    void Listen(const std::string& options)
    {
        pid_ = Start("--listen unix:" + path_ + " " + options, out_);
        ASSERT_TRUE(Eventually([this] { return Prints("listening"); }));
    }
    int End() const
    {
        kill(pid_, SIGTERM);
        return WEXITSTATUS(Wait(pid_));
    }
    // Its exit status, if it ends in the time that a stop may take, and some more on a busy machine; -1 otherwise.
    int Ended() const
    {
        int status = 0;
        const bool ended = Eventually([&] { return waitpid(pid_, &status, WNOHANG) == pid_; }, 4);
        return ended ? WEXITSTATUS(status) : -1;
    }
    bool Prints(const std::string& text) const { return Contains(Read(out_), text); }
    bool Says(const std::string& text, int seconds = 20) const
    {
        return Eventually([&] { return Contains(Read(err_), text); }, seconds);
    }
    UniqueFd Connect() const { return Connect(path_); }
    static UniqueFd Connect(const std::string& path)
    {
        UniqueFd fd(socket(AF_UNIX, SOCK_STREAM, 0));
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof(address.sun_path) - 1);
        EXPECT_EQ(connect(fd.Get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
        const timeval limit = {20, 0};
        setsockopt(fd.Get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
        return fd;
    }
    static std::string Message(std::uint32_t type, std::uint32_t seq, const std::string& body)
    {
        const SentrelAgentMsg header = {kMsgVersion, type, seq, static_cast<std::uint32_t>(body.size())};
        return std::string(reinterpret_cast<const char*>(&header), sizeof(header)) + body;
    }
    static bool Send(const UniqueFd& fd, const std::string& bytes)
    {
        return send(fd.Get(), bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
    }
    static std::string Receive(const UniqueFd& fd, std::size_t size)
    {
        std::string bytes(size, '\0');
        const ssize_t count = recv(fd.Get(), bytes.data(), size, MSG_WAITALL);
        return bytes.substr(0, count > 0 ? static_cast<std::size_t>(count) : 0);
    }
    static bool IsAnswered(const UniqueFd& fd, const std::string& request)
    {
        return Send(fd, request) && Receive(fd, 16) == Message(2, static_cast<unsigned char>(request[8]), "");
    }

    // The numbers of the requests of a type that are answered before the heartbeat is that this sends.
    static std::vector<std::uint32_t> ReceiveAnswers(const UniqueFd& fd, std::uint32_t type)
    {
        std::vector<std::uint32_t> numbers;
        EXPECT_TRUE(Send(fd, Message(kMsgHeartbeat, 4242, "")));
        for (std::string bytes; (bytes = Receive(fd, 16)).size() == 16;) {
            SentrelAgentMsg header;
            std::memcpy(&header, bytes.data(), sizeof(header));
            if (header.type == ResponseType(kMsgHeartbeat)) {
                EXPECT_EQ(header.seq, 4242U);
                return numbers;
            }
            EXPECT_EQ(header.type, ResponseType(type));
            numbers.push_back(header.seq);
        }
        ADD_FAILURE() << "the heartbeat is not answered";
        return numbers;
    }

    UniqueFd ConnectAgent() const  // which the collector has noticed
    {
        UniqueFd agent = Connect();
        EXPECT_TRUE(IsAnswered(agent, Message(1, 1, kExit)));
        return agent;
    }
    // What a control client is told, up to an end or, without one, until the collector hangs up.
    static std::string Told(const UniqueFd& client, const std::string& end = {})
    {
        std::string text;
        for (char byte = 0; (end.empty() || !text.ends_with(end)) && recv(client.Get(), &byte, 1, 0) == 1;) {
            text.push_back(byte);
        }
        return text;
    }
    std::string Ask(const std::string& lines) const
    {
        const UniqueFd client = Connect(control_);
        EXPECT_TRUE(Send(client, lines));
        shutdown(client.Get(), SHUT_WR);
        return Told(client);
    }

    const TempDir directory_;
    const std::string path_ = directory_ / "socket";
    const std::string control_ = directory_ / "control";
    const std::string out_ = directory_ / "out";
    const std::string err_ = directory_ / "err";
    std::string before_;  // what the shell does before it becomes the collector
    pid_t pid_ = 0;
};
