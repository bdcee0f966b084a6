#include "report_queue.h"

#include "tests/comm/peer.h"
#include "tlv.h"
#include "util/clock.h"

namespace {

class ReportQueueTest : public testing::Test {
protected:
    ~ReportQueueTest() override
    {
        channel_->Stop();
        queue_.Stop();
    }
    void Connect()
    {
        ASSERT_TRUE(channel_->Start());
        ASSERT_TRUE(peer_.Accept());
    }
    bool Push(const std::string& body) { return queue_.Push(1, body.data(), body.size()); }
    bool Push(int number) { return Push(std::to_string(number)); }
    // The bodies of messages, each answered, in the order of their coming.
    Strings Take(std::size_t count, bool answer = true)
    {
        Strings bodies;
        while (bodies.size() < count) {
            last_ = peer_.ReceiveMessage();
            bodies.push_back(last_.substr(std::min(sizeof(SentrelAgentMsg), last_.size())));
            if (last_.empty() || (answer && !peer_.Answer(last_))) {
                break;
            }
        }
        return bodies;
    }
    // Count and total of the notice that comes next.
    using Notice = std::pair<std::uint64_t, std::uint64_t>;
    Notice TakeNotice(bool answer)
    {
        std::string body = Take(1, answer)[0];
        EXPECT_EQ(HeaderOf(last_).type, kMsgDroppedReports);
        TLVAnalyzer items(reinterpret_cast<unsigned char*>(body.data()), static_cast<int>(body.size()));
        EXPECT_TRUE(items.Analyze(kSwapReport) && items.GetCount() == 3 && items[kTagTime].GetLength() == 8);
        Notice numbers;
        std::memcpy(&numbers.first, items[kTagCount].GetData(), 8);
        std::memcpy(&numbers.second, items[kTagTotal].GetData(), 8);
        return numbers;
    }
    void Reconnect()
    {
        peer_.Close();
        EXPECT_TRUE(Eventually([this] { return !channel_->StatusCheck(); }));
        Connect();
    }
    static Strings Numbers(int first, int end, const std::string& more = {})
    {
        Strings all;
        for (int number = first; number < end; ++number) {
            all.push_back(std::to_string(number) + more);
        }
        return all;
    }
    bool IsBalanced()
    {
        const ReportAccount account = queue_.GetAccount();
        return account.pushed == account.waiting + account.unanswered + account.acknowledged + account.GetDropped();
    }

    const Records records_;
    const TempDir directory_;
    Peer peer_{directory_ / "server"};
    const std::shared_ptr<SocketComm> channel_ = std::make_shared<SocketComm>();
    ReportQueue queue_;
    std::string last_;
};

}  // namespace

TEST_F(ReportQueueTest, DropsAreCountedAndReported)
{
    EXPECT_FALSE(Push(0));  // not running
    ASSERT_TRUE(queue_.Start(channel_, 3, 100) && !queue_.Start(channel_, 10, 1000));
    EXPECT_TRUE(Push(0) && Push(1));
    EXPECT_FALSE(Push(std::string(51, 'x')));  // one byte too many
    EXPECT_TRUE(Push(2));
    EXPECT_FALSE(Push(3));
    EXPECT_EQ(records_.Count("WARN Report queue is full, reports are dropped.[count=2 bytes=34 dropped=2]"), 1);
    EXPECT_EQ(records_.Lines().size(), 1U);
    Connect();
    EXPECT_EQ(Take(3), Numbers(0, 3));
    EXPECT_EQ(TakeNotice(false), Notice(3, 3));
    EXPECT_TRUE(Eventually([this] { return queue_.GetAccount().acknowledged == 3; }));
    // Its answer is lost with the connection: the total shows that it is the same once more.
    EXPECT_FALSE(Push(std::string(100, 'x')));  // does not fit into an empty queue either
    Reconnect();
    EXPECT_EQ(TakeNotice(true), Notice(3, 3));
    EXPECT_EQ(TakeNotice(false), Notice(1, 4));
    EXPECT_FALSE(queue_.Drain(100));  // the server does not know yet
    EXPECT_TRUE(peer_.Answer(last_) && queue_.Drain(20000));
    EXPECT_FALSE(queue_.Push(2, "", 0) || queue_.Push(1, nullptr, 1) || queue_.Push(1, "", kMaxMsgBody + 1));
    EXPECT_TRUE(records_.Has("ERROR Invalid report.[type=2 length=0]"));
    std::uint64_t total = 0;
    while (total < 7 && !HasFailure()) {  // in one notice or several
        total = TakeNotice(true).second;
    }
    EXPECT_TRUE(Eventually([this] { return queue_.GetAccount().dropsReported == 7; }));
    const ReportAccount account = queue_.GetAccount();
    EXPECT_EQ(std::tuple(account.pushed, account.acknowledged, account.waiting + account.unanswered),
              std::tuple(10UL, 3UL, 0UL));
    EXPECT_EQ(std::tuple(account.droppedStopped, account.droppedFull, account.droppedTooLarge, account.droppedInvalid),
              std::tuple(1UL, 2UL, 2UL, 2UL));
}

// The server answers, but never this report: only the queue's own time passes, as seconds on its clock.
TEST_F(ReportQueueTest, UnansweredGoOutAsNewRequests)
{
    ASSERT_TRUE(queue_.Start(channel_, 10, 1000));
    Connect();
    EXPECT_TRUE(Push(0));
    EXPECT_EQ(Take(1, false), Numbers(0, 1));
    const std::string first = last_;
    const auto isNew = [&] { return HeaderOf(last_).seq != HeaderOf(first).seq; };
    for (int other = 1; other < 4; ++other) {
        Clock::monotonicOffsetNs += 9 * Clock::kNsPerSecond;
        EXPECT_TRUE(Push(other));
        while (Take(1, false)[0] != std::to_string(other)) {
            EXPECT_FALSE(isNew());  // repeated by the channel
        }
        EXPECT_TRUE(peer_.Answer(last_) && Eventually([&] { return queue_.GetCount() == 1; }));
    }
    Clock::monotonicOffsetNs += 9 * Clock::kNsPerSecond;
    while (Take(1, false) == Numbers(0, 1) && !isNew()) {
    }
    EXPECT_TRUE(peer_.Answer(first));     // too late: nobody waits for this number
    EXPECT_TRUE(peer_.Answer(last_, 2));  // too new: dropped
    EXPECT_TRUE(Eventually([this] { return records_.Has("DEBUG Server version: [2], client version: [1]"); }));
    EXPECT_EQ(queue_.GetCount(), 1U);
    EXPECT_EQ(queue_.GetAccount().repeats, 1U);
    Reconnect();
    EXPECT_EQ(Take(1), Numbers(0, 1));
    EXPECT_TRUE(queue_.Drain(20000) && Push(5));
    EXPECT_EQ(Take(1, false), Numbers(5, 6));
    queue_.Stop();
    EXPECT_EQ(queue_.GetAccount().waiting, 1U);
    ASSERT_TRUE(queue_.Start(channel_, 10, 1000));
    EXPECT_TRUE(Push(6));
    EXPECT_EQ(Take(2), Numbers(5, 7));
}

TEST_F(ReportQueueTest, SilentServerIsGivenUpAndThenAskedFirst)
{
    const std::string down =
        "ERROR Channel to the server is down.[reason=the server has answered nothing for 30 seconds]";
    ASSERT_TRUE(queue_.Start(channel_, 10, 1000));
    Connect();
    std::string heartbeat = peer_.ReceiveAny();  // at once, since there is nothing else
    EXPECT_EQ(std::tuple(HeaderOf(heartbeat).type, heartbeat.size()),
              std::tuple(kMsgHeartbeat, sizeof(SentrelAgentMsg)));
    EXPECT_FALSE(queue_.IsServerAnswering());
    EXPECT_TRUE(peer_.Answer(heartbeat) && Eventually([&] { return queue_.IsServerAnswering(); }));
    Clock::monotonicOffsetNs += 10 * Clock::kNsPerSecond;
    heartbeat = peer_.ReceiveAny();
    EXPECT_EQ(HeaderOf(heartbeat).type, kMsgHeartbeat);
    EXPECT_TRUE(Push(0));
    EXPECT_EQ(Take(1, false), Numbers(0, 1));
    EXPECT_EQ(records_.Count(down), 0);
    Clock::monotonicOffsetNs += 20 * Clock::kNsPerSecond;
    EXPECT_TRUE(Eventually([&] { return records_.Count(down) == 1; }));
    EXPECT_FALSE(queue_.IsServerAnswering() || channel_->StatusCheck());
    EXPECT_TRUE(Push(1));
    Connect();
    heartbeat = peer_.ReceiveAny();
    EXPECT_EQ(HeaderOf(heartbeat).type, kMsgHeartbeat);
    EXPECT_EQ(peer_.ReceiveAny(1500), "");
    EXPECT_TRUE(peer_.Answer(heartbeat));
    EXPECT_EQ(Take(2), Numbers(0, 2));
}

// The server has read a part of a send of several reports, and answered its first one.
TEST_F(ReportQueueTest, ASendThatIsCutShortGoesOutAgainWhole)
{
    ASSERT_TRUE(queue_.Start(channel_, 100, 10 << 20));
    const std::string more(30000, 'x');
    const Strings bodies = Numbers(0, 20, more);  // more than the socket takes
    std::uint64_t acknowledged = 0;
    for (const std::string end : {"closed", "stopped", "given up"}) {
        SCOPED_TRACE(end);
        Connect();
        for (const std::string& body : bodies) {
            EXPECT_TRUE(Push(body));
        }
        EXPECT_EQ(Take(1), Strings{bodies[0]});
        EXPECT_EQ(peer_.Receive(20000).size(), 20000U);
        const auto start = std::chrono::steady_clock::now();
        for (int i = 0; i < 3; ++i) {           // until what was read leaves no room to go on
            EXPECT_FALSE(queue_.Drain(60000));  // no longer than answers come
        }
        EXPECT_EQ(queue_.GetAccount().acknowledged, acknowledged + 1);
        EXPECT_GT(queue_.GetAccount().waiting, 0U);
        if (end == "stopped") {
            queue_.Stop();
            EXPECT_EQ(queue_.GetAccount().waiting, 19U);
            ASSERT_TRUE(queue_.Start(channel_, 100, 10 << 20));
        } else if (end == "given up") {
            channel_->GiveUp(channel_->GetConnectionCount(), "of a test");
        }
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(7));  // of the 10 that a send may take
        Reconnect();
        EXPECT_TRUE(Take(19) == Strings(bodies.begin() + 1, bodies.end()) && queue_.Drain(20000));
        EXPECT_EQ(queue_.GetAccount().acknowledged, acknowledged += 20);
        if (end != "given up") {
            channel_->Stop();
        }
    }
    EXPECT_GT(queue_.GetAccount().repeats, 0U);
    Clock::wallOffsetMs += 6000;  // the channel does not repeat what the queue has sent anew
    Clock::monotonicOffsetNs += 3 * Clock::kNsPerSecond;
    EXPECT_EQ(peer_.ReceiveMessage(1500), "");
}

// Servers leave in the middle of a message, channel and queue stop and start, while several threads report.
TEST_F(ReportQueueTest, NothingIsLostOrOutOfOrderWhateverHappensMeanwhile)
{
    constexpr int kCount = 1500;
    ASSERT_TRUE(queue_.Start(channel_, 5000, 10 << 20));
    std::atomic<bool> end{false};
    std::map<char, int> last;
    std::jthread server([&] {
        for (int left = 2; !end && peer_.Accept(); --left) {
            std::string message;
            for (int i = 0; (left < 0 || i < 300) && !(message = peer_.ReceiveMessage()).empty(); ++i) {
                if (HeaderOf(message).type == 1 && message.size() > sizeof(SentrelAgentMsg) + 1) {
                    int& number = last[message[sizeof(SentrelAgentMsg)]];
                    const int next = std::stoi(message.substr(sizeof(SentrelAgentMsg) + 1));
                    EXPECT_LE(next, number + 1);  // or it comes once more
                    number = std::max(number, next);
                }
                peer_.Answer(message);
            }
            peer_.Receive(20, 0);
            peer_.Close();
        }
    });
    const auto repeat = [&end](const std::function<void(int)>& body) {
        return std::jthread([body, &end] {
            for (int i = 1; !end; std::this_thread::sleep_for(std::chrono::milliseconds(2))) {
                body(i++);
            }
        });
    };
    std::vector<std::jthread> threads;
    threads.push_back(repeat([&](int) { EXPECT_TRUE(IsBalanced() && (channel_->Start() || true)); }));
    threads.push_back(repeat([&](int i) {
        const MsgHandler handler = [](std::uint32_t, void*, void*) {};
        EXPECT_TRUE(channel_->RegisterMsgHandler(2, handler, nullptr) && channel_->UnregisterMsgHandler(2, handler));
        if (i % 150 == 0) {
            i < 400 ? void(channel_->Stop()) : queue_.Stop();
            EXPECT_TRUE(i < 400 || queue_.Start(channel_, 5000, 10 << 20));
        }
    }));
    InThreads(3, [&](int thread) {
        for (int number = 1; number <= kCount; ++number) {
            const std::string body = static_cast<char>('a' + thread) + std::to_string(number);
            EXPECT_TRUE(Eventually([&] { return Push(body); }));
        }
    });
    EXPECT_TRUE(Eventually([&] { return queue_.Drain(1000); }));
    end = true;
    threads.clear();
    EXPECT_TRUE(IsBalanced());
    EXPECT_EQ(queue_.GetAccount().acknowledged, 3U * kCount);
    EXPECT_TRUE(channel_->Stop() && channel_->Start() && channel_->Stop());  // a server may wait for one
    server.join();
    EXPECT_EQ(last, (std::map<char, int>{{'a', kCount}, {'b', kCount}, {'c', kCount}}));
}
