#include "report_queue.h"

#include <cstring>

#include "report_messages.h"
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
    bool Push(int number)
    {
        const std::string body = std::to_string(number);
        return queue_.Push(1, body.data(), body.size());
    }
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
    static Strings Numbers(int first, int end)
    {
        Strings all;
        for (int number = first; number < end; ++number) {
            all.push_back(std::to_string(number));
        }
        return all;
    }

    const Records records_;
    const TempDir folder_;
    Peer peer_{folder_ / "server"};
    const std::shared_ptr<SocketComm> channel_ = std::make_shared<SocketComm>();
    ReportQueue queue_;
    std::string last_;
};

}  // namespace

TEST_F(ReportQueueTest, SendsInOrderWithTwoHundredUnanswered)
{
    EXPECT_FALSE(Push(0));  // not running
    ASSERT_TRUE(queue_.Start(channel_, 1000, 1 << 20));
    EXPECT_FALSE(queue_.Start(channel_, 1000, 1 << 20));
    EXPECT_FALSE(queue_.Push(2, "", 0) || queue_.Push(1, nullptr, 1) || queue_.Push(1, "", kMaxMsgBody + 1));
    EXPECT_TRUE(records_.Has("ERROR Invalid report.[type=2 length=0]"));
    for (int number = 0; number < 300; ++number) {
        EXPECT_TRUE(Push(number));
    }
    EXPECT_FALSE(queue_.Drain(100));
    Connect();
    EXPECT_EQ(Take(200, false), Numbers(0, 200));
    EXPECT_EQ(peer_.ReceiveMessage(300), "");
    EXPECT_EQ(queue_.GetCount(), 300U);
    ASSERT_TRUE(peer_.Answer(last_));  // the 200th
    EXPECT_EQ(Take(1, false), Numbers(200, 201));
    EXPECT_EQ(queue_.GetCount(), 299U);
    // What the broken connection may have lost comes again, first and in its order.
    peer_.Close();
    EXPECT_TRUE(Eventually([this] { return !channel_->StatusCheck(); }));
    EXPECT_TRUE(Push(300));
    Connect();
    Strings expected = Numbers(0, 301);
    expected.erase(expected.begin() + 199);
    EXPECT_EQ(Take(300), expected);
    EXPECT_TRUE(queue_.Drain(20000));
    EXPECT_EQ(queue_.GetDroppedCount(), 0U);
}

TEST_F(ReportQueueTest, DropsAreCountedAndReported)
{
    ASSERT_TRUE(queue_.Start(channel_, 3, 100));
    EXPECT_TRUE(Push(0) && Push(1));
    EXPECT_FALSE(queue_.Push(1, std::string(51, 'x').data(), 51));  // one byte too many
    EXPECT_TRUE(Push(2));
    EXPECT_FALSE(Push(3));
    EXPECT_EQ(records_.Count("WARN Report queue is full, reports are dropped.[count=2 bytes=34 dropped=1]"), 1);
    EXPECT_EQ(records_.Lines().size(), 1U);
    Connect();
    EXPECT_EQ(Take(3), Numbers(0, 3));
    std::string notice = Take(1)[0];
    EXPECT_EQ(HeaderOf(last_).type, kMsgDroppedReports);
    TLVAnalyzer items(reinterpret_cast<unsigned char*>(notice.data()), static_cast<int>(notice.size()));
    ASSERT_TRUE(items.Analyze(kSwapReport));
    EXPECT_EQ(items.GetCount(), 2U);
    const TLVValue count = items[kTagCount];
    const std::uint64_t two = 2;
    ASSERT_EQ(count.GetLength(), sizeof(two));
    EXPECT_EQ(std::memcmp(count.GetData(), &two, sizeof(two)), 0);
    EXPECT_TRUE(queue_.Drain(20000));
    EXPECT_TRUE(Push(4));
    EXPECT_EQ(Take(1), Numbers(4, 5));
    EXPECT_TRUE(queue_.Drain(20000));
    EXPECT_FALSE(queue_.Push(1, std::string(100, 'x').data(), 100));  // fits not even into an empty queue
    Take(1);
    EXPECT_EQ(HeaderOf(last_).type, kMsgDroppedReports);
}

TEST_F(ReportQueueTest, UnansweredGoOutAsNewRequests)
{
    ASSERT_TRUE(queue_.Start(channel_, 10, 1000));
    Connect();
    EXPECT_TRUE(Push(0));
    EXPECT_EQ(Take(1, false), Numbers(0, 1));
    const std::string first = last_;
    EXPECT_TRUE(Push(1));
    Take(1);
    Clock::monotonicOffsetNs += 37 * Clock::kNsPerSecond;
    EXPECT_EQ(Take(1, false), Numbers(0, 1));
    EXPECT_NE(HeaderOf(last_).seq, HeaderOf(first).seq);
    EXPECT_TRUE(peer_.Answer(first));     // too late: nobody waits for this number
    EXPECT_TRUE(peer_.Answer(last_, 2));  // too new: dropped, and sent again
    EXPECT_TRUE(Eventually([this] { return records_.Has("DEBUG Server version: [2], client version: [1]"); }));
    Clock::monotonicOffsetNs += 37 * Clock::kNsPerSecond;
    EXPECT_EQ(Take(1), Numbers(0, 1));
    EXPECT_TRUE(queue_.Drain(20000) && Push(2));
    EXPECT_EQ(Take(1, false), Numbers(2, 3));
    queue_.Stop();
    EXPECT_FALSE(Push(2));
    ASSERT_TRUE(queue_.Start(channel_, 10, 1000));
    EXPECT_TRUE(Push(3));
    EXPECT_EQ(Take(2), Numbers(2, 4));
}
