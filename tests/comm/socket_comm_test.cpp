#include "socket_comm.h"

#include "comm/request_cache.h"
#include "tests/comm/peer.h"
#include "util/clock.h"

namespace {

constexpr char kDown[] = "ERROR Channel to the server is down.[reason=the server has closed it, or it is broken]";

// What a handler was given: messages, in their order.
struct Received {
    static void Handle(std::uint32_t type, void* message, void* received)
    {
        const auto* const header = static_cast<const SentrelAgentMsg*>(message);
        EXPECT_EQ(header->type, type);
        const auto* const body = reinterpret_cast<const char*>(header + 1);
        EXPECT_EQ(body[header->length], '\0');
        static_cast<Received*>(received)->Add({body, header->length});
    }
    static void HandleNext(std::uint32_t, void*, void* received) { static_cast<Received*>(received)->Add("next"); }
    void Add(const std::string& body)
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        bodies_.push_back(body);
    }
    bool Is(const Strings& bodies)
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        return bodies_ == bodies;
    }
    std::mutex mutex_;
    Strings bodies_;
};

// Sends a message that no socket takes at once; a handler too.
std::atomic<int> g_begun{0};
std::atomic<int> g_result{0};
void SendLarge(std::uint32_t, void*, void* comm)
{
    static const std::string large = Message(4, 1, std::string(kMaxMsgBody, 'x'));
    ++g_begun;
    g_result = static_cast<SocketComm*>(comm)->SendMessage(large.data(), static_cast<unsigned>(large.size()));
}

// Requests are due, and the channel looks at them.
void PassRequestTime()
{
    Clock::wallOffsetMs += 6000;
    Clock::monotonicOffsetNs += 3 * Clock::kNsPerSecond;
}

// Makes a TCP server the configured one that leaves connections without an answer: its backlog is full.
void ConfigureFullServer(UniqueFd (&sockets)[5])
{
    sockaddr_in here = {AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
    socklen_t size = sizeof(here);
    auto* const address = reinterpret_cast<sockaddr*>(&here);
    for (UniqueFd& fd : sockets) {
        fd.Reset(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0));
        if (&fd == sockets) {
            ASSERT_TRUE(bind(fd.Get(), address, size) == 0 && listen(fd.Get(), 0) == 0);
            ASSERT_EQ(getsockname(fd.Get(), address, &size), 0);
        } else {
            connect(fd.Get(), address, size);
        }
    }
    const std::string port = std::to_string(ntohs(here.sin_port));
    Config::ParseConfig("SERVER_IP=127.0.0.1\nAGENT_IP=127.0.0.1\nSOCKET_TYPE=2\nSERVER_PORT=" + port, false, {});
}

class SocketCommTest : public testing::Test {
protected:
    void Connect()
    {
        ASSERT_TRUE(comm_.Init() && comm_.Start());
        ASSERT_TRUE(peer_.Accept());
    }
    int Send(const std::string& message)
    {
        return comm_.SendMessage(message.data(), static_cast<unsigned>(message.size()));
    }
    bool Arrives(const Strings& bodies)
    {
        return Eventually([&] { return received_.Is(bodies); });
    }

    const Records records_;
    const TempDir directory_;
    Peer peer_{directory_ / "server"};
    Received received_;
    SocketComm comm_;
};

}  // namespace

TEST_F(SocketCommTest, DispatchesOnlyWantedResponses)
{
    EXPECT_EQ(Send(Message(1, 1)), kSendFailed);  // not connected
    Connect();
    EXPECT_TRUE(comm_.Start());
    for (const std::uint32_t type : {2, 4, 5}) {
        ASSERT_TRUE(comm_.RegisterMsgHandler(type, &Received::Handle, &received_));
    }
    ASSERT_TRUE(comm_.RegisterMsgHandler(5, &Received::HandleNext, &received_));
    const std::string request = Message(1, 7, "question");
    ASSERT_EQ(Send(request) + Send(Message(3, 8)) + Send(Message(4, 9)) + Send("short"), kSendDone);
    EXPECT_EQ(peer_.Receive(16 * 3 + 8 + 5), request + Message(3, 8) + Message(4, 9) + "short");
    EXPECT_EQ(comm_.SendMessage(nullptr, 5), kSendRefused);
    EXPECT_EQ(Send(std::string(kMaxMsgSize + 1, 'x')), kSendRefused);
    EXPECT_TRUE(peer_.Send(Message(9, 7, "a request answers none") + Message(2, 6, "nobody asked") +
                           Message(2, 9, "not cached") + Message(2, 7, "answer") + Message(2, 7, "again") +
                           Message(4, 8, "newer", 2) + Message(4, 8, "uncached by the newer one") +
                           Message(5, 1, "a request of the server")));
    EXPECT_TRUE(Arrives({"answer", "a request of the server", "next"}));
    EXPECT_TRUE(records_.Has("DEBUG Server version: [2], client version: [1]"));
    EXPECT_EQ(records_.Count("DEBUG Request not in cache, drop it.[seq=8, type=4]"), 1);
    EXPECT_TRUE(comm_.UnregisterMsgHandler(5, &Received::Handle));
    EXPECT_FALSE(comm_.UnregisterMsgHandler(5, &Received::Handle) || comm_.RegisterMsgHandler(5, nullptr, nullptr));
}

TEST_F(SocketCommTest, CutsTheStreamIntoMessages)
{
    Connect();
    ASSERT_TRUE(comm_.RegisterMsgHandler(3, &Received::Handle, &received_));
    Strings expected = {"", "x", std::string(kMaxMsgBody, 'y'), "last"};
    std::string stream;
    for (const std::string& body : expected) {
        stream += Message(3, 1, body);
    }
    const std::jthread sender([&] { EXPECT_TRUE(peer_.Send(stream)); });
    EXPECT_TRUE(Arrives(expected));
    // One byte more: all that is buffered goes, the connection stays.
    for (int i = 0; i < 2; ++i) {
        ASSERT_TRUE(peer_.Send(Message(3, 6, std::string(kMaxMsgBody + 1, 'z')).substr(0, 16) + Message(3, 7, "gone")));
        std::this_thread::sleep_for(std::chrono::milliseconds(100));  // has been read
        ASSERT_TRUE(peer_.Send(Message(3, 8, "healthy")));
        expected.emplace_back("healthy");
        EXPECT_TRUE(Arrives(expected));
    }
    EXPECT_EQ(records_.CountWith("message is too long"), 1);
    ASSERT_TRUE(peer_.Send(stream.substr(16, 16)));
    peer_.Close();  // in the middle
    EXPECT_TRUE(Eventually([&] { return records_.Has(kDown); }));
    EXPECT_FALSE(comm_.StatusCheck());
    ASSERT_TRUE(comm_.Start() && peer_.Accept() && peer_.Send(Message(3, 9, "fresh")));
    expected.emplace_back("fresh");
    EXPECT_TRUE(Arrives(expected));
}

TEST_F(SocketCommTest, RepeatsARequestThreeTimesAcrossConnections)
{
    Connect();
    ASSERT_EQ(Send(Message(1, 5, "body")), kSendDone);
    EXPECT_EQ(peer_.ReceiveMessage(), Message(1, 5, "body"));
    PassRequestTime();
    EXPECT_EQ(peer_.ReceiveMessage(), Message(1, 5, "body"));
    EXPECT_TRUE(comm_.Stop() && comm_.Start() && peer_.Accept());
    EXPECT_EQ(comm_.GetConnectionCount(), 2U);
    for (int i = 0; i < 2; ++i) {
        PassRequestTime();
        EXPECT_EQ(peer_.ReceiveMessage(), Message(1, 5, "body"));
    }
    PassRequestTime();
    EXPECT_EQ(peer_.ReceiveMessage(1500), "");
    EXPECT_TRUE(comm_.DropRequest(5) && !comm_.DropRequest(5));  // it was cached nevertheless
    const auto whole = std::make_shared<const std::string>(Message(1, 6));
    EXPECT_EQ(comm_.SendRequests({whole, std::make_shared<const std::string>("short")}), kSendRefused);
    EXPECT_EQ(comm_.SendRequests({whole, nullptr}), kSendRefused);
    EXPECT_EQ(comm_.SendRequests({}), kSendRefused);
    EXPECT_FALSE(comm_.DropRequest(6));              // nothing is kept
    for (const std::uint32_t connection : {1, 2}) {  // an earlier one and this one
        EXPECT_TRUE(comm_.StatusCheck());
        comm_.GiveUp(connection, "of a test");
    }
    EXPECT_TRUE(!comm_.StatusCheck() && !peer_.Send("x"));
    EXPECT_TRUE(records_.Has("ERROR Channel to the server is down.[reason=of a test]"));
    EXPECT_EQ(comm_.SendRequests({whole}), kSendFailed);
}

TEST(RequestCacheTest, DropsTheOldestExhaustedAboveTwoHundred)
{
    RequestCache cache;
    for (std::uint32_t seq = 0; seq < 205; ++seq) {
        cache.Add(seq, 1, std::make_shared<const std::string>());
    }
    RequestCache::Due due;
    for (int round = 0; round < 3; ++round) {
        Clock::wallOffsetMs -= 5000;  // the difference counts, not its sign
        EXPECT_FALSE(cache.TakeDue(due));
        Clock::wallOffsetMs -= 2000;  // less a second that may have begun meanwhile
        for (std::uint32_t seq = 0; seq < 205; ++seq) {
            EXPECT_TRUE(cache.TakeDue(due) && due.seq == seq);
        }
    }
    cache.Add(3, 1, nullptr);  // a number twice, and one that may still be repeated
    EXPECT_FALSE(cache.TakeDue(due) || cache.Remove(0) || cache.Remove(2) || cache.Remove(5));
    EXPECT_TRUE(cache.Remove(3) && cache.Remove(6) && cache.Remove(204));
    Clock::wallOffsetMs -= 7000;
    EXPECT_FALSE(cache.TakeDue(due));  // what is answered is not repeated
}

// Each with a peer that does not read, or a byte now and then; the send's time passes on its clock alone.
TEST_F(SocketCommTest, SendEndsInItsTimeWhateverElseIsDue)
{
    const std::string down = "ERROR Channel to the server is down.[reason=a message could not be sent, or not in time]";
    ASSERT_TRUE(comm_.RegisterMsgHandler(1, &SendLarge, &comm_));
    for (const std::string held : {"by nothing", "by a request that is due", "by a slow reader", "in a handler"}) {
        SCOPED_TRACE(held);
        Connect();
        g_result = 0;
        const auto failures = records_.Count(down);
        ASSERT_TRUE(held != "by a request that is due" || Send(Message(3, 7)) == kSendDone);
        std::jthread sender(
            [&] { held == "in a handler" ? void(peer_.Send(Message(1, 1))) : SendLarge(0, nullptr, &comm_); });
        std::atomic<bool> end{held != "by a slow reader"};
        std::jthread reader([&] {
            for (; !end; std::this_thread::sleep_for(std::chrono::milliseconds(2))) {
                peer_.Receive(100);
            }
        });
        PassRequestTime();
        std::this_thread::sleep_for(std::chrono::milliseconds(1200));
        EXPECT_EQ(g_result, 0);
        Clock::monotonicOffsetNs += 10 * Clock::kNsPerSecond;
        EXPECT_TRUE(Eventually([&] { return g_result == kSendFailed; }, 5));
        EXPECT_EQ(records_.Count(down), failures + 1);
        end = true;
    }
}

// Messages of several senders, each larger than what the socket takes at once.
TEST_F(SocketCommTest, MessagesStayWhole)
{
    Connect();
    const std::jthread senders([&] {
        InThreads(3, [&](int number) {
            for (int i = 0; i < 6; ++i) {
                EXPECT_EQ(Send(Message(4, 1, std::string(400000, static_cast<char>('a' + number)))), kSendDone);
            }
        });
    });
    for (int i = 0; i < 18; ++i) {
        const std::string body = peer_.ReceiveMessage().substr(sizeof(SentrelAgentMsg));
        ASSERT_EQ(body, std::string(400000, body.empty() ? '?' : body.front()));
    }
}

// At none of these points does a stop wait for the other side.
TEST_F(SocketCommTest, StopEndsWhatIsUnderWay)
{
    ASSERT_TRUE(comm_.RegisterMsgHandler(1, &SendLarge, &comm_));
    SocketComm other;
    for (const std::string point : {"send", "handler", "half a message", "turn", "local connect", "connect"}) {
        SCOPED_TRACE(point);
        Peer full(directory_ / "full", 0);
        UniqueFd sockets[5];
        g_begun = 0;
        std::vector<std::jthread> threads;
        if (point == "turn") {  // of another channel
            ASSERT_TRUE(other.Start() && full.Accept());
            threads.emplace_back([&] { SendLarge(0, nullptr, &other); });
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
        if (point.ends_with("connect")) {
            point == "connect" ? ConfigureFullServer(sockets) : void(other.Start());  // which fills the backlog
            threads.emplace_back([&] { EXPECT_FALSE(comm_.Start()); });
        } else {
            Config::ParseConfig("SERVER_SOCKET_PATH=" + directory_ / "server", false, {});
            Connect();
            ASSERT_TRUE(point != "handler" || (peer_.Send(Message(1, 1)) && Eventually([] { return g_begun == 1; })));
            ASSERT_TRUE(point != "half a message" || peer_.Send(Message(4, 1, std::string(99, 'x')).substr(0, 99)));
        }
        for (int i = 0; i < (point == "send" || point == "turn" ? 2 : 0); ++i) {
            threads.emplace_back([&] { SendLarge(0, nullptr, &comm_); });
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        const auto start = std::chrono::steady_clock::now();
        EXPECT_TRUE(comm_.Stop());
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(4));  // of the 10 it could take
        other.Stop();
        threads.clear();
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
    }
}

TEST_F(SocketCommTest, HandlersMayStopStartAndUnregister)
{
    struct State {
        SocketComm& comm;
        std::atomic<int> calls{0};
    } state{comm_};
    static MsgHandler handler;
    handler = [](std::uint32_t type, void*, void* data) {
        auto& [comm, calls] = *static_cast<State*>(data);
        EXPECT_TRUE(type == 1 ? comm.UnregisterMsgHandler(1, handler) && comm.Stop() : comm.Stop() && comm.Start());
        ++calls;
    };
    Connect();
    ASSERT_TRUE(comm_.RegisterMsgHandler(1, handler, &state) && comm_.RegisterMsgHandler(3, handler, &state));
    ASSERT_EQ(Send(Message(5, 7)), kSendDone);
    ASSERT_TRUE(peer_.Send(Message(1, 1) + Message(1, 2)));  // the second is not seen any more
    EXPECT_TRUE(Eventually([&] { return state.calls == 1; }) && !comm_.StatusCheck());
    ASSERT_TRUE(comm_.Start() && peer_.Accept() && peer_.Send(Message(3, 1)));
    EXPECT_TRUE(Eventually([&] { return state.calls == 2; }) && comm_.StatusCheck());
    for (int calls = 3; calls < 20; ++calls) {  // threads and descriptors go as new ones come
        ASSERT_TRUE(peer_.Accept() && peer_.Send(Message(3, 2)));
        EXPECT_TRUE(Eventually([&] { return state.calls == calls; }));
    }
    EXPECT_LT(std::distance(fs::directory_iterator("/proc/self/task"), {}), 8);
    EXPECT_TRUE(comm_.DeInit() && !comm_.DropRequest(7));  // which was never answered
}

TEST_F(SocketCommTest, UnregisteringWaitsForTheCall)
{
    static std::atomic<bool> inside{false};
    const MsgHandler slow = [](std::uint32_t, void*, void*) {
        inside = true;
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        inside = false;
        throw std::runtime_error("of a handler");
    };
    Connect();
    ASSERT_TRUE(comm_.RegisterMsgHandler(1, slow, nullptr) && peer_.Send(Message(1, 1)));
    EXPECT_TRUE(Eventually([] { return inside.load(); }));
    EXPECT_TRUE(comm_.UnregisterMsgHandler(1, slow) && !inside);
    ASSERT_TRUE(comm_.RegisterMsgHandler(3, &Received::Handle, &received_) && peer_.Send(Message(3, 1, "next")));
    EXPECT_TRUE(Arrives({"next"}));
    EXPECT_TRUE(records_.Has("ERROR Message handler has failed.[type=1 error=of a handler]"));
}

TEST_F(SocketCommTest, EachFaultOfTheConfigurationHasItsRecord)
{
    const std::string longPath(108, 'p');
    const std::pair<std::string, std::string> faults[] = {
        {"SOCKET_TYPE=3", "Socket type value is error."},
        {"SOCKET_TYPE=x", "Socket type value is error."},
        {"SOCKET_TYPE=1\nSERVER_SOCKET_PATH=" + longPath, "Connect domain socket failed.[server=" + longPath + "]"},
        {"SOCKET_TYPE=2", "Can't get the config.[name=SERVER_IP]"},
        {"SERVER_IP=127.0.0.1", "Can't get the config.[name=SERVER_PORT]"},
        {"SERVER_PORT=web", "Can't get the config.[name=AGENT_IP]"},
        {"AGENT_IP=127.0.0.1", "Invalid config, not a port number.[name=SERVER_PORT, value=web]"},
        {"SERVER_PORT=1\nAGENT_IP=192.0.2.1", "Bind socket faild.[agentIp=192.0.2.1]"},
        {"AGENT_IP=127.0.0.1", "Connect socket faild.[serverIp=127.0.0.1, serverPort=1]"},
    };
    for (const auto& [lines, record] : faults) {
        Config::ParseConfig(lines, false, {});
        EXPECT_FALSE(comm_.Start());
        EXPECT_TRUE(records_.Has("ERROR " + record)) << record;
    }
}
