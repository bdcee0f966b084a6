// The collector as agents meet it: a real process on real sockets.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cstring>

#include "basecomm.h"
#include "report_messages.h"
#include "tests/support/support.h"
#include "tlv.h"
#include "util/unique_fd.h"

namespace {

class CollectorTest : public testing::Test {
protected:
    pid_t Start(const std::string& options) const
    {
        fs::remove(out_);
        return Fork([&] {
            const std::string command =
                std::string("exec ") + COLLECTOR_PROGRAM + " " + options + " >" + out_ + " 2>" + err_;
            return execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
        });
    }
    std::string Run(const std::string& options) const
    {
        const int status = Wait(Start(options));
        return std::to_string(WEXITSTATUS(status)) + " " + Read(err_);
    }
    void Listen(const std::string& options)
    {
        pid_ = Start("--listen unix:" + path_ + " " + options);
        ASSERT_TRUE(Eventually([this] { return Prints("listening"); }));
    }
    int End() const
    {
        kill(pid_, SIGTERM);
        return WEXITSTATUS(Wait(pid_));
    }
    bool Prints(const std::string& text) const { return Contains(Read(out_), text); }
    bool Says(const std::string& text) const
    {
        return Eventually([&] { return Contains(Read(err_), text); });
    }
    UniqueFd Connect() const
    {
        UniqueFd fd(socket(AF_UNIX, SOCK_STREAM, 0));
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        path_.copy(address.sun_path, sizeof(address.sun_path) - 1);
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

    const TempDir folder_;
    const std::string path_ = folder_ / "socket";
    const std::string out_ = folder_ / "out";
    const std::string err_ = folder_ / "err";
    pid_t pid_ = 0;
};

std::string Item(std::uint16_t tag, const std::string& value)
{
    const auto length = static_cast<std::uint16_t>(value.size());
    std::string item(4, '\0');
    std::memcpy(item.data(), &tag, 2);
    std::memcpy(&item[2], &length, 2);
    return item + value;
}

std::string Int(std::uint32_t value)
{
    return {reinterpret_cast<const char*>(&value), sizeof(value)};
}

const std::string kTime = Item(kTagTime, std::string(8, '\0'));
const std::string kExit = kTime + Item(kTagEvent, Int(kProcessExited)) + Item(kTagPid, Int(42)) +
                          Item(kTagExitCode, Int(3)) + Item(kTagCmdLine, std::string("a\x1b[1m\x9b\xff\n\"b\0", 12));

}  // namespace

TEST_F(CollectorTest, PrintsAndAnswersWholeMessages)
{
    Listen("");
    EXPECT_EQ(fs::status(path_).permissions(), fs::perms(0600));
    const UniqueFd agent = Connect();
    for (const char byte : Message(kMsgProcess, 7, kExit)) {
        ASSERT_TRUE(Send(agent, std::string(1, byte)));
    }
    EXPECT_EQ(Receive(agent, 16), Message(2, 7, ""));
    ASSERT_TRUE(Send(agent, Message(4, 8, "") + Message(99, 9, "?")));  // a response; a type that nobody knows
    EXPECT_EQ(Receive(agent, 16), Message(100, 9, ""));
    EXPECT_TRUE(IsAnswered(agent, Message(1, 1, kExit)));
    EXPECT_EQ(End(), 0);
    EXPECT_TRUE(Prints(" exited pid=42 exitCode=3 cmdLine=a?[1m???\"b\n")) << Read(out_);
    EXPECT_TRUE(Prints("type=99 seq=9 length=1") && Prints("\nsummary: messages=3 ")) << Read(out_);
    EXPECT_FALSE(fs::exists(path_));

    Listen("--json --count 1");
    ASSERT_TRUE(Send(Connect(), Message(kMsgProcess, 7, kExit)));
    EXPECT_EQ(WEXITSTATUS(Wait(pid_)), 0);
    EXPECT_TRUE(Prints(R"("exitCode":3)") && Prints(R"("cmdLine":"a\u001b[1m)") && Prints(R"(\n\"b")")) << Read(out_);
}

// Whoever sends wrong bytes is told apart and cut off; the others notice nothing.
TEST_F(CollectorTest, RefusesMalformedInputOfOneConnection)
{
    Listen("");
    const UniqueFd healthy = Connect();
    const auto header = [](std::uint32_t version, std::uint32_t length) {
        return Int(version) + Int(1) + Int(5) + Int(length);
    };
    const std::pair<std::string, std::string> rows[] = {
        {header(0, 0), "version 0 is not supported"},
        {header(2, 0), "version 2 is not supported"},
        {header(1, kMaxMsgBody + 1), "a body of 524273 bytes is too long"},
        {header(1, 0xFFFFFFF0), "a body of 4294967280 bytes is too long"},
        {Message(1, 5, ""), ""},
        {Message(1, 5, "xxx"), ""},
        {Message(1, 5, kTime + Item(kTagEvent, Int(1))), "pid is missing"},
        {Message(1, 5, kTime + Item(kTagPid, "xx")), "pid has 2 bytes"},
        {Message(3, 5, kTime), "count is missing"},
    };
    for (const auto& [bytes, reason] : rows) {
        std::ofstream(err_, std::ios::trunc);
        const UniqueFd agent = Connect();
        ASSERT_TRUE(Send(agent, bytes));
        EXPECT_EQ(Receive(agent, 1), "");
        EXPECT_TRUE(Says("refused") && Says(reason)) << reason << Read(err_);
        EXPECT_TRUE(IsAnswered(healthy, Message(1, 1, kExit)));
    }
    for (const std::size_t cut : {1, 15, 16, 30}) {
        std::ofstream(err_, std::ios::trunc);
        ASSERT_TRUE(Send(Connect(), Message(1, 5, kExit).substr(0, cut)));
        EXPECT_TRUE(Says("closed in the middle of a message"));
    }
    // One that never reads its answers is held back, not the collector's memory used up.
    const UniqueFd greedy = Connect();
    const std::string request = Message(99, 1, "");
    while (send(greedy.Get(), request.data(), request.size(), MSG_NOSIGNAL | MSG_DONTWAIT) > 0 ||
           Eventually([&] { return send(greedy.Get(), request.data(), request.size(), MSG_DONTWAIT) > 0; }, 1)) {
    }
    EXPECT_TRUE(IsAnswered(healthy, Message(1, 1, kExit)));
    EXPECT_EQ(End(), 0);
    EXPECT_TRUE(Prints(" refused=13 ")) << Read(out_);
}

TEST_F(CollectorTest, ServesManyAgentsOverTheNetworkToo)
{
    pid_ = Start("--listen tcp:127.0.0.1:0 --listen tcp:[::1]:0 --listen unix:" + path_);
    ASSERT_TRUE(Eventually([this] { return Prints("listening on unix"); }));
    const std::string out = Read(out_);
    const auto port = static_cast<std::uint16_t>(std::stoi(out.substr(out.find("[::1]:") + 6)));
    std::vector<UniqueFd> agents;
    for (int i = 0; i < 150; ++i) {
        agents.push_back(Connect());
        sockaddr_in6 address = {};
        address.sin6_family = AF_INET6;
        address.sin6_port = htons(port);
        address.sin6_addr = in6addr_loopback;
        agents.emplace_back(socket(AF_INET6, SOCK_STREAM, 0));
        ASSERT_EQ(connect(agents.back().Get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    }
    for (const UniqueFd& agent : agents) {
        ASSERT_TRUE(Send(agent, Message(1, 1, kExit) + Message(1, 2, kExit)));
    }
    for (const UniqueFd& agent : agents) {
        EXPECT_EQ(Receive(agent, 32), Message(2, 1, "") + Message(2, 2, ""));
    }
    EXPECT_EQ(End(), 0);
    EXPECT_TRUE(Prints("summary: messages=600 ignored=0 agents=300 refused=0"));
}

TEST_F(CollectorTest, WrongUseAndEndsHaveTheirStatus)
{
    const std::pair<std::string, std::string> rows[] = {
        {"", "2 sentrel-collector: no --listen"},
        {"--listen tcp:127.0.0.1:web", "2 sentrel-collector: --listen 'tcp:127.0.0.1:web' "},
        {"--listen tcp:127.0.0.1:65536", "2 sentrel-collector: "},
        {"--listen unix:" + std::string(108, 'x'), "2 sentrel-collector: "},
        {"--listen http:x", "2 sentrel-collector: --listen 'http:x' "},
        {"--listen unix:x --count many", "2 sentrel-collector: --count 'many' "},
        {"--listen unix:" + folder_.Path(), "1 sentrel-collector: "},
        {"--listen tcp:192.0.2.1:1", "1 sentrel-collector: "},
    };
    for (const auto& [options, fault] : rows) {
        EXPECT_EQ(Run(options).substr(0, fault.size()), fault);
    }
    Listen("--seconds 1 --count 1");
    EXPECT_TRUE(Contains(Run("--listen unix:" + path_), "1 sentrel-collector: "));  // in use
    EXPECT_EQ(WEXITSTATUS(Wait(pid_)), 3);
    const UniqueFd stale(socket(AF_UNIX, SOCK_STREAM, 0));
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    path_.copy(address.sun_path, sizeof(address.sun_path) - 1);
    ASSERT_EQ(bind(stale.Get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    Listen("");  // over the socket that nobody listens on
    EXPECT_EQ(End(), 0);
}
