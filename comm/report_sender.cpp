#include <chrono>
#include <exception>
#include <utility>

#include "comm/report_message.h"
#include "comm/report_queue_members.h"
#include "util/clock.h"
#include "util/thread_name.h"

namespace NEUtils {

namespace {

using std::chrono::milliseconds;

constexpr milliseconds kLookPeriod{1000};  // at the channel and the clock
constexpr milliseconds kIdlePeriod{3000};  // the same, with nothing to send or to be answered
constexpr milliseconds kRest{10};          // so that reports join the first one

}  // namespace

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
    const bool isEmpty = !store.IsWaiting();
    idle = isEmpty;
    changed.wait_for(lock, isEmpty && store.GetUnanswered() == 0 ? kIdlePeriod : kLookPeriod);
    idle = false;
    if (isEmpty && store.IsWaiting()) {
        Rest(lock);
    }
}

void ReportQueue::Members::Rest(Lock& lock)
{
    resting = true;
    changed.wait_for(lock, kRest, [this] { return !running || drains > 0 || store.HasEnough(); });
    resting = false;
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
    if (done && batch.size() > 1) {
        Rest(lock);  // more are on their way, it seems: none of them needs to wake the thread
    } else if (!done) {
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

}  // namespace NEUtils
