#include "report_queue.h"

#include <chrono>
#include <new>
#include <system_error>
#include <utility>

#include "comm/report_message.h"
#include "comm/report_queue_members.h"
#include "logger.h"
#include "util/clock.h"
#include "util/stop_signals.h"

namespace NEUtils {

namespace {

using std::chrono::milliseconds;

constexpr std::size_t kWindowHalfOpen = 100;  // so many unanswered ones let the sender go on
constexpr milliseconds kSendPatience{500};    // of a stop with a send under way
constexpr milliseconds kDrainLook{50};
constexpr std::int64_t kDrainSilenceNs = 500 * Clock::kNsPerMs;

}  // namespace

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
    const bool isRestOver = resting && store.HasEnough();
    const bool wake = std::exchange(idle, false) || isRestOver;
    resting = resting && !isRestOver;
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
    ++own.drains;
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
    --own.drains;
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
