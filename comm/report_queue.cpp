#include "report_queue.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <exception>
#include <mutex>
#include <new>
#include <string>
#include <system_error>
#include <thread>
#include <utility>

#include "comm/report_channel.h"
#include "comm/report_message.h"
#include "comm/report_store.h"
#include "comm/server_watch.h"
#include "logger.h"
#include "report_messages.h"
#include "util/clock.h"
#include "util/rate_limiter.h"
#include "util/stop_signals.h"
#include "util/thread_name.h"

namespace NEUtils {

namespace {

using std::chrono::milliseconds;

constexpr std::int64_t kDropRecordPeriodMs = 60000;
constexpr milliseconds kLookPeriod{1000};     // at the channel and the clock
constexpr milliseconds kIdlePeriod{3000};     // the same, with nothing to send or to be answered
constexpr milliseconds kRest{10};             // of a sender that was idle, so that reports join the first one
constexpr std::size_t kRestEnd = 100;         // so many reports need not wait
constexpr std::size_t kWindowHalfOpen = 100;  // so many unanswered ones let the sender go on
constexpr milliseconds kSendPatience{500};    // of a stop with a send under way
constexpr milliseconds kDrainLook{50};
constexpr std::int64_t kDrainSilenceNs = 500 * Clock::kNsPerMs;

}  // namespace

struct ReportQueue::Members {
    using Lock = std::unique_lock<std::mutex>;

    bool Add(std::shared_ptr<std::string> message);
    bool Refuse(std::uint64_t ReportAccount::*reason);
    void LogDrop(Lock& lock);
    void Answer(std::uint32_t seq);

    void Run();
    void RunOnce(Lock& lock);
    void Wait(Lock& lock);
    void FollowChannel(std::int64_t now);
    void AddNotice();
    bool SendReports(Lock& lock, std::int64_t now);
    bool SendHeartbeat(Lock& lock);
    template <typename Function>
    bool SendUnlocked(Lock& lock, Function send);

    std::mutex mutex;
    std::condition_variable changed;   // for the sender
    std::condition_variable answered;  // for Drain
    std::condition_variable sent;      // for Stop
    ReportStore store;
    ServerWatch watch{0};
    RateLimiter dropRecords{kDropRecordPeriodMs};
    std::atomic<std::int64_t> beatNs{0};  // when the sender last came round; 0 while there is none
    std::uint32_t connections = 0;        // the channel's count when last looked at
    bool running = false;
    bool idle = false;  // the sender waits for reports
    bool resting = false;
    bool draining = false;
    bool sending = false;

    std::unique_ptr<ReportChannel> channel;
    std::thread sender;
};

ReportQueue::ReportQueue() : members_(std::make_unique<Members>()) {}

ReportQueue::~ReportQueue()
{
    Stop();
}

ReportQueue& ReportQueue::GetInstance()
{
    static auto& queue = *new ReportQueue;
    return queue;
}

bool ReportQueue::Start(std::shared_ptr<SocketComm> channel, std::size_t maxCount, std::size_t maxBytes)
{
    Members& own = *members_;
    const StopSignalsBlocked inherited;
    const Members::Lock lock(own.mutex);
    if (own.running || channel == nullptr) {
        return false;
    }
    const auto onAnswer = [](std::uint32_t seq, void* members) { static_cast<Members*>(members)->Answer(seq); };
    own.channel = std::make_unique<ReportChannel>(std::move(channel), onAnswer, &own);
    own.connections = own.channel->Get().GetConnectionCount() - 1;  // any other number
    own.store.SetLimits(maxCount, maxBytes);
    try {
        own.sender = std::thread([&own] { own.Run(); });
    } catch (const std::system_error&) {
        return false;
    }
    own.running = true;
    return true;
}

void ReportQueue::Stop()
{
    Members& own = *members_;
    bool isSending = false;
    std::uint32_t connection = 0;
    {
        Members::Lock lock(own.mutex);
        own.running = false;
        own.changed.notify_all();
        own.answered.notify_all();
        if (own.sender.get_id() == std::this_thread::get_id()) {
            return;  // a crash on the sender, which ends the process
        }
        isSending = !own.sent.wait_for(lock, kSendPatience, [&own] { return !own.sending; });
        connection = own.connections;
    }
    if (isSending) {
        own.channel->Get().GiveUp(connection, "the report queue is stopped while a send is under way");
    }
    if (own.sender.joinable()) {
        own.sender.join();
    }
    std::unique_ptr<ReportChannel> channel;
    {
        const Members::Lock lock(own.mutex);
        channel.swap(own.channel);
        if (channel != nullptr) {
            channel->DropRequests(own.store.TakeBackAll());
        }
    }
}

bool ReportQueue::Push(std::uint32_t type, const void* body, std::size_t length)
{
    Members& own = *members_;
    if (!IsRequestMessage(type) || (body == nullptr && length > 0)) {
        NE_LOG(ERROR, "Invalid report.[type=%u length=%zu]", type, length);
        return own.Refuse(&ReportAccount::droppedInvalid);
    }
    if (length > kMaxMsgBody) {
        NE_LOG(ERROR, "Invalid report.[type=%u length=%zu]", type, length);
        return own.Refuse(&ReportAccount::droppedTooLarge);
    }
    auto message = MakeMessage(type, body, length);
    return message == nullptr ? own.Refuse(&ReportAccount::droppedNoMemory) : own.Add(std::move(message));
}

bool ReportQueue::Members::Refuse(std::uint64_t ReportAccount::*reason)
{
    {
        const Lock lock(mutex);
        store.CountDrop(reason);
    }
    changed.notify_one();  // the server is to know
    return false;
}

bool ReportQueue::Members::Add(std::shared_ptr<std::string> message)
{
    Lock lock(mutex);
    if (!running) {
        lock.unlock();
        return Refuse(&ReportAccount::droppedStopped);
    }
    bool added = false;
    try {
        added = store.Add(std::move(message));
    } catch (const std::bad_alloc&) {
        store.CountDrop(&ReportAccount::droppedNoMemory);
    }
    if (!added) {
        LogDrop(lock);
        return false;
    }
    const bool wake = std::exchange(idle, false) || (resting && store.GetCount() >= kRestEnd);
    lock.unlock();
    if (wake) {
        changed.notify_one();
    }
    return true;
}

void ReportQueue::Members::LogDrop(Lock& lock)
{
    const ReportAccount account = store.GetAccount();
    const std::size_t bytes = store.GetBytes();
    lock.unlock();
    changed.notify_one();  // the server is to know, also of a report that is too large for an empty queue
    if (dropRecords.Allow(Clock::MonotonicNs() / Clock::kNsPerMs)) {
        NE_LOG(WARN, "Report queue is full, reports are dropped.[count=%llu bytes=%zu dropped=%llu]",
               static_cast<unsigned long long>(account.waiting + account.unanswered), bytes,
               static_cast<unsigned long long>(account.GetDropped()));
    }
}

void ReportQueue::Members::Run()
{
    SetThreadName("ReportSender");
    Lock lock(mutex);
    while (running) {
        beatNs = Clock::MonotonicNs();
        try {
            RunOnce(lock);
        } catch (const std::exception&) {  // no memory: later, perhaps
            if (!lock.owns_lock()) {
                lock.lock();
            }
            changed.wait_for(lock, kLookPeriod);
        }
    }
    beatNs = 0;
}

// Sends what is to be sent, or waits until something has changed.
void ReportQueue::Members::RunOnce(Lock& lock)
{
    const std::int64_t now = Clock::MonotonicNs();
    const bool isUp = channel->Get().StatusCheck();
    FollowChannel(now);  // after the look: what an earlier connection has lost goes first on a new one
    if (isUp) {
        if (watch.IsSilent(now)) {
            store.Hold();
            lock.unlock();
            channel->Get().GiveUp(connections, "the server has answered nothing for 30 seconds");
            lock.lock();
            return;
        }
        AddNotice();
        if (SendReports(lock, now) || (watch.IsHeartbeatDue(now, store.GetUnanswered() == 0) && SendHeartbeat(lock))) {
            return;
        }
    }
    Wait(lock);
}

void ReportQueue::Members::Wait(Lock& lock)
{
    if (!running) {
        return;
    }
    idle = !store.IsWaiting();
    const bool wasIdle = idle;
    changed.wait_for(lock, idle && store.GetUnanswered() == 0 ? kIdlePeriod : kLookPeriod);
    idle = false;
    if (wasIdle && store.IsWaiting()) {
        resting = true;
        changed.wait_for(lock, kRest, [this] { return !running || draining || store.GetCount() >= kRestEnd; });
        resting = false;
    }
}

// Takes back what was lost with its connection, or is repeated no more.
void ReportQueue::Members::FollowChannel(std::int64_t now)
{
    const std::uint32_t count = channel->Get().GetConnectionCount();
    if (std::exchange(connections, count) == count) {
        channel->DropRequests(store.TakeBackOverdue(now));
        return;
    }
    channel->DropRequests(store.TakeBackAll());
    if (const auto heartbeat = watch.GetHeartbeat()) {
        channel->DropRequests({*heartbeat});
    }
    watch.OnConnected(now);
}

void ReportQueue::Members::AddNotice()
{
    const std::uint64_t count = store.GetDropsToReport();
    if (count == 0) {
        return;
    }
    if (auto message = MakeDropNotice(count, store.GetAccount().GetDropped())) {
        store.AddNotice(std::move(message));
    }
}

// False if nothing was sent.
bool ReportQueue::Members::SendReports(Lock& lock, std::int64_t now)
{
    const ReportStore::Batch batch = store.TakeNext(now);
    if (batch.empty()) {
        return false;
    }
    const bool done = SendUnlocked(lock, [&] { return channel->Send(batch); });
    if (!done) {
        store.PutBack(batch);
        for (const auto& report : batch) {
            channel->DropRequests({report->seq});
        }
    }
    return done;
}

bool ReportQueue::Members::SendHeartbeat(Lock& lock)
{
    const std::uint32_t seq = NextMsgSeq();
    watch.OnHeartbeat(seq);
    const bool done = SendUnlocked(lock, [&] { return channel->SendHeartbeat(seq); });
    if (!done && watch.TakeHeartbeat(seq)) {  // so that another one goes out
        channel->DropRequests({seq});
    }
    return done;
}

template <typename Function>
bool ReportQueue::Members::SendUnlocked(Lock& lock, Function send)
{
    sending = true;
    lock.unlock();
    const bool done = send();
    lock.lock();
    sending = false;
    sent.notify_all();
    return done;
}

void ReportQueue::Members::Answer(std::uint32_t seq)
{
    const Lock lock(mutex);
    const bool wasFull = store.GetUnanswered() >= kWindowHalfOpen;
    if (!watch.TakeHeartbeat(seq) && !store.Answer(seq)) {
        return;
    }
    watch.OnAnswer(Clock::MonotonicNs());
    const bool wasHeld = store.EndHold();
    if (wasHeld || (wasFull && store.GetUnanswered() < kWindowHalfOpen)) {
        changed.notify_one();
    }
    answered.notify_all();
}

bool ReportQueue::Drain(unsigned int timeoutMs)
{
    Members& own = *members_;
    const std::int64_t start = Clock::MonotonicNs();
    const std::int64_t end = start + std::int64_t{timeoutMs} * Clock::kNsPerMs;
    std::int64_t progress = start;
    Members::Lock lock(own.mutex);
    own.draining = true;
    own.changed.notify_one();
    std::uint64_t acknowledged = own.store.GetAccount().acknowledged;
    while (!own.store.IsDone() && own.running && own.channel->Get().StatusCheck()) {
        own.answered.wait_for(lock, kDrainLook);
        const std::int64_t now = Clock::MonotonicNs();
        if (std::exchange(acknowledged, own.store.GetAccount().acknowledged) != acknowledged) {
            progress = now;
        }
        if (now >= end || now - progress > kDrainSilenceNs) {
            break;
        }
    }
    own.draining = false;
    return own.store.IsDone();
}

bool ReportQueue::IsRunning()
{
    const Members::Lock lock(members_->mutex);
    return members_->running;
}

bool ReportQueue::IsServerAnswering()
{
    Members& own = *members_;
    const Members::Lock lock(own.mutex);
    return own.running && own.channel->Get().StatusCheck() &&
           own.channel->Get().GetConnectionCount() == own.connections && own.watch.IsAnswering(Clock::MonotonicNs());
}

long long ReportQueue::GetBeatAgeMs() const
{
    const std::int64_t beatNs = members_->beatNs;
    return beatNs == 0 ? -1 : (Clock::MonotonicNs() - beatNs) / Clock::kNsPerMs;
}

ReportAccount ReportQueue::GetAccount()
{
    const Members::Lock lock(members_->mutex);
    return members_->store.GetAccount();
}

std::size_t ReportQueue::GetCount()
{
    const Members::Lock lock(members_->mutex);
    return members_->store.GetCount();
}

std::uint64_t ReportQueue::GetDroppedCount()
{
    return GetAccount().GetDropped();
}

}  // namespace NEUtils
