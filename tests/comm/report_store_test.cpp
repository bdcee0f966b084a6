#include "comm/report_store.h"

#include <deque>
#include <random>

#include "comm/server_watch.h"
#include "tests/comm/peer.h"

namespace {

constexpr std::int64_t kSecond = Clock::kNsPerSecond;

std::shared_ptr<std::string> Report(std::size_t size = sizeof(SentrelAgentMsg))
{
    return std::make_shared<std::string>(size, '\0');
}

void Fill(ReportStore& store, std::size_t count, std::size_t size)
{
    for (std::size_t i = 0; i < count; ++i) {
        ASSERT_TRUE(store.Add(Report(size)));
    }
}

// Does at random what a queue does, and knows the answer to every question that the account answers.
class Model {
public:
    Model() { store_.SetLimits(300, 20000); }

    void Step()
    {
        now_ += static_cast<std::int64_t>(random_() % 40) * kSecond / 10;
        const auto choice = random_() % 16;
        if (choice == 0) {
            Check(!store_.TakeBackAll().empty() || sent_.empty());
            sent_.clear();
        } else if (choice == 1) {
            store_.CountDrop(random_() % 2 == 0 ? &ReportAccount::droppedStopped : &ReportAccount::droppedNoMemory);
            ++pushed_;
        } else if (choice == 2) {
            AddNotice();
        } else if (choice == 3) {
            Forget(store_.TakeBackOverdue(now_));
        } else if (choice < 6) {
            Send(random_() % 4 == 0);
        } else if (choice < 9) {
            Answer();
        } else {
            added_ += store_.Add(Report(16 + random_() % (random_() % 50 == 0 ? 21000 : 200))) ? 1U : 0U;
            ++pushed_;
        }
        CheckAccount();
    }

    void End()
    {
        for (int i = 0; i < 10000 && !store_.IsDone(); ++i) {
            Forget(store_.TakeBackOverdue(now_ += 10 * kSecond));
            AddNotice();
            Send(false);
            while (!sent_.empty()) {
                Answer();
            }
        }
        const ReportAccount account = store_.GetAccount();
        EXPECT_EQ(account.acknowledged, added_);
        EXPECT_TRUE(account.dropsReported == pushed_ - added_ && noticed_ == pushed_ - added_);  // of all notices
        EXPECT_GT(account.repeats * account.droppedFull * account.droppedTooLarge, 0U);
        EXPECT_TRUE(store_.IsDone() && store_.GetBytes() == 0);
    }

private:
    static void Check(bool holds) { ASSERT_TRUE(holds); }
    void CheckAccount()
    {
        const ReportAccount account = store_.GetAccount();
        ASSERT_EQ(std::tuple(account.pushed, account.GetDropped()), std::tuple(pushed_, pushed_ - added_));
        ASSERT_EQ(account.waiting + account.unanswered + account.acknowledged, added_);
        ASSERT_TRUE(account.unanswered <= 200 && store_.GetCount() <= 300 && account.dropsReported <= noticed_);
        ASSERT_TRUE(account.unanswered == sent_.size() || account.unanswered + 1 == sent_.size());  // a notice
    }
    void AddNotice()
    {
        if (store_.GetDropsToReport() > 0) {
            noticed_ += store_.GetDropsToReport();
            store_.AddNotice(Report());
        }
    }
    void Send(bool fails)
    {
        const auto batch = store_.TakeNext(now_);
        const std::size_t before = sent_.size();
        for (const auto& report : batch) {
            Check(HeaderOf(*report->message).seq == report->seq && numbers_.insert(report->seq).second);
            sent_.push_back(report->seq);
        }
        if (fails) {  // perhaps with an answer in the middle
            Check(batch.empty() || random_() % 2 == 0 || store_.Answer(batch.front()->seq));
            store_.PutBack(batch);
            sent_.resize(before);
        }
    }
    void Answer()
    {
        Check(!store_.Answer(0));
        if (!sent_.empty()) {
            const auto place = sent_.begin() + static_cast<std::ptrdiff_t>(random_() % sent_.size());
            Check(store_.Answer(*place) && !store_.Answer(*place));
            sent_.erase(place);
        }
    }
    void Forget(const ReportStore::Numbers& numbers)
    {
        for (const std::uint32_t seq : numbers) {
            Check(std::erase(sent_, seq) == 1);
        }
    }

    ReportStore store_;
    std::minstd_rand random_{7};
    std::int64_t now_ = kSecond;
    std::deque<std::uint32_t> sent_;  // the numbers that wait for an answer
    std::set<std::uint32_t> numbers_;
    std::uint64_t pushed_ = 0;
    std::uint64_t added_ = 0;
    std::uint64_t noticed_ = 0;
};

}  // namespace

TEST(ReportStoreTest, AccountBalancesAtEachMoment)
{
    Model model;
    for (int i = 0; i < 50000 && !testing::Test::HasFailure(); ++i) {
        model.Step();
    }
    model.End();
}

TEST(ReportStoreTest, RepeatsDoubleTheirTime)
{
    ReportStore store;
    store.SetLimits(10, 1000);
    ASSERT_TRUE(store.Add(Report(20)));
    std::int64_t now = 5 * kSecond;
    auto report = store.TakeNext(now).at(0);
    for (const std::int64_t seconds : {36, 72, 144, 288, 576, 576}) {
        EXPECT_TRUE(store.TakeBackOverdue(now + seconds * kSecond - 1).empty());
        const auto old = report->message;
        const auto seq = report->seq;
        now += seconds * kSecond;
        EXPECT_EQ(store.TakeBackOverdue(now), ReportStore::Numbers{seq});
        EXPECT_EQ(store.TakeNext(now).at(0), report);
        EXPECT_NE(old, report->message);  // the channel may still read it
        EXPECT_NE(report->seq, seq);
    }
    EXPECT_EQ(store.GetAccount().repeats, 6U);
    // Given up for its silence, the server gets nothing before the time, new reports neither; its answer ends that.
    store.Hold();
    ASSERT_TRUE(store.Add(Report(20)));
    EXPECT_EQ(store.TakeBackAll().size(), 1U);
    EXPECT_TRUE(store.TakeNext(now + 576 * kSecond - 1).empty());
    EXPECT_TRUE(store.CanSend(now + 576 * kSecond));
    EXPECT_TRUE(store.EndHold());
    EXPECT_EQ(store.TakeNext(now).size(), 2U);
}

TEST(ReportStoreTest, JoinsUpToTheLimitsAndKeepsTheOrder)
{
    ReportStore store;
    store.SetLimits(1000, 1 << 20);
    for (const std::size_t size : {70000, 40000, 25000, 1000}) {
        Fill(store, 1, size);
    }
    Fill(store, 300, 16);
    EXPECT_EQ(store.TakeNext(1).size(), 1U);  // longer than a batch, alone
    const auto second = store.TakeNext(1);
    ASSERT_EQ(second.size(), 2U);
    const auto message = second[0]->message;
    store.PutBack(second);
    store.Hold();  // what was not sent is neither held back nor a repeat
    EXPECT_EQ(store.TakeNext(1), second);
    EXPECT_NE(second[0]->message, message);  // the channel may still have it
    EXPECT_EQ(store.GetAccount().repeats, 0U);
    EXPECT_TRUE(store.EndHold());
    EXPECT_EQ(store.TakeNext(1).size(), 197U);  // 200 unanswered
    EXPECT_TRUE(store.TakeNext(1).empty());
    EXPECT_EQ(store.TakeBackAll().size(), 200U);
    EXPECT_EQ(store.TakeNext(1).size(), 1U);
    EXPECT_EQ(store.TakeNext(1), second);
}

// A sender that waited for more although there is no room left would lose what comes meanwhile.
TEST(ReportStoreTest, HasEnoughBeforeThereIsNoRoom)
{
    const struct {
        std::size_t maxCount, maxBytes, reports, size;
        bool enough;
    } rows[] = {{1000, 1 << 20, 0, 0, false},   {1000, 1 << 20, 99, 16, false}, {1000, 1 << 20, 100, 16, true},
                {10, 1000, 5, 20, false},       {10, 1000, 6, 20, true},        {1, 1000, 1, 1000, true},
                {10, 1000, 1, 500, false},      {10, 1000, 1, 501, true},       {1000, 1 << 20, 1, 65535, false},
                {1000, 1 << 20, 1, 65536, true}};
    for (const auto& row : rows) {
        ReportStore store;
        store.SetLimits(row.maxCount, row.maxBytes);
        Fill(store, row.reports, row.size);
        EXPECT_EQ(store.HasEnough(), row.enough) << row.reports << " of " << row.size;
        store.TakeNext(1);  // what is sent only takes room
        EXPECT_EQ(store.HasEnough(), row.enough && row.reports < 100) << row.reports << " of " << row.size;
    }
}

TEST(ServerWatchTest, AsksAndGivesUpInTime)
{
    ServerWatch watch(0);
    // Due, due while nothing is unanswered, answering, silent: a letter for each that holds.
    const auto is = [&watch](std::int64_t seconds, const std::string& expected) {
        const std::int64_t now = seconds * kSecond;
        EXPECT_EQ(std::string(watch.IsHeartbeatDue(now, false) ? "d" : "") +
                      (watch.IsHeartbeatDue(now, true) ? "i" : "") + (watch.IsAnswering(now) ? "a" : "") +
                      (watch.IsSilent(now) ? "s" : ""),
                  expected)
            << seconds;
    };
    watch.OnConnected(100 * kSecond);
    is(100, "i");
    watch.OnAnswer(101 * kSecond);
    is(110, "a");
    is(111, "dia");
    watch.OnHeartbeat(7);
    is(130, "a");  // one is under way, and repeated by the channel
    is(131, "s");
    EXPECT_TRUE(!watch.TakeHeartbeat(6) && watch.TakeHeartbeat(7) && !watch.TakeHeartbeat(7));
    watch.OnAnswer(132 * kSecond);
    is(132, "a");
    watch.OnHeartbeat(8);
    watch.OnConnected(140 * kSecond);  // whatever was before
    is(140, "i");
    is(169, "di");
    is(170, "dis");
}
