// The feature network_watch end to end: a real agent, connections in the kernel, a real collector.
#include <arpa/inet.h>
#include <sys/socket.h>

#include "tests/agent/agent_fixture.h"
#include "util/unique_fd.h"

TEST_F(RootAgentTest, ReportsConnectionsOfOthersAndNotItsOwn)
{
    const std::string library = root_ / "lib/features/libnetwork_watch.so";
    fs::copy(FEATURE_DIR "libnetwork_watch.so", library);
    fs::permissions(library, fs::perms(0755));
    SetPolicy("process_watch", "enable=off\n");
    const pid_t collector = StartCollector("--json --listen tcp:127.0.0.1:0");
    Write(config_, "SOCKET_TYPE=2\nSERVER_IP=127.0.0.1\nAGENT_IP=127.0.0.1\nSERVER_PORT=" + CollectorPort() + "\n");
    SetPolicy("network_watch", "enable=on\nexclude=::1\n");
    StartAgent();
    ASSERT_TRUE(Eventually([this] { return Logged("The network tracer started."); }));

    sockaddr_in at = {};
    at.sin_family = AF_INET;
    socklen_t size = sizeof(at);
    const UniqueFd server(socket(AF_INET, SOCK_STREAM, 0));
    ASSERT_TRUE(listen(server.Get(), 1) == 0 &&
                getsockname(server.Get(), reinterpret_cast<sockaddr*>(&at), &size) == 0);
    at.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const pid_t client = Fork([&] {
        const int fd = socket(AF_INET, SOCK_STREAM, 0);
        const bool connected = BecomePlainUser() && connect(fd, reinterpret_cast<sockaddr*>(&at), sizeof(at)) == 0;
        return connected && usleep(500000) == 0 ? 0 : 1;  // its path is looked up
    });
    const std::string port = std::to_string(ntohs(at.sin_port));
    const std::string program = fs::read_symlink("/proc/self/exe");
    EXPECT_TRUE(GotLine("\"type\":\"connection\"", "\"pid\":" + std::to_string(client)));
    EXPECT_TRUE(GotLine("\"action\":\"opened\",\"localAddress\":\"127.0.0.1\"",
                        "\"remotePort\":" + port + ",\"remoteAddress\":\"127.0.0.1\",\"program\":\"" + program + "\""));
    EXPECT_TRUE(GotLine("\"action\":\"accepted\",\"localAddress\":\"127.0.0.1\",\"localPort\":" + port, "remotePort"));
    EXPECT_EQ(Wait(client), 0);
    EXPECT_TRUE(LoggedLine("Connection opened.[action=opened pid=" + std::to_string(client) + " user=nobody ",
                           " program=" + program + "]"));
    EXPECT_TRUE(Says("network_watch     started  watches 1, waits for 0, lacks 0,"));
    Kill(collector);
    EXPECT_EQ(StopAgent(), SIGTERM);
    EXPECT_FALSE(Logged(" pid=" + std::to_string(agent_) + " "));
}
