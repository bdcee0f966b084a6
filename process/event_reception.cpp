#include "process/event_reception.h"

#include <linux/connector.h>

#include <cerrno>
#include <utility>

#include "process/event_filter.h"
#include "process_monitor.h"

namespace NEUtils {

namespace {

constexpr std::chrono::milliseconds kHeldExitPeriod{500};
constexpr std::chrono::milliseconds kDrainTime{500};

}  // namespace

EventReception::EventReception(int fd, std::uint32_t kinds, bool processesOnly, Handler handler)
    : fd_(fd), kinds_(kinds), processesOnly_(processesOnly), handler_(std::move(handler))
{
}

int EventReception::Receive()
{
    const int count = batch_.Receive(fd_);
    const int error = errno;
    CountDrops(count < 0 && error == ENOBUFS);
    errno = error;
    return count;
}

void EventReception::HandOn(int count)
{
    for (int i = 0; i < count; ++i) {
        proc_event event;
        if (!batch_.Decode(static_cast<std::size_t>(i), event)) {
            continue;
        }
        if (Steady::now() > giveUpAt_) {
            ++losses_.events;
        } else if (!processesOnly_) {
            handler_(event);
        } else if (!IsOfFurtherThread(event)) {
            HandOnOfProcess(event);
        } else if (event.what == kExitEvent) {
            leaderExits_.TakeThreadExit(event);
        }
    }
    FollowHeldProcesses();
}

// The status of a process whose first thread has left comes with the exit of its last one. If the filter cannot be
// attached, the one before stays, and /proc is asked alone.
void EventReception::FollowHeldProcesses()
{
    if (leaderExits_.HasChanged()) {
        AttachEventFilter(fd_, kinds_, processesOnly_, leaderExits_.GetFollowed());
    }
}

void EventReception::HandOnOfProcess(proc_event& event)
{
    proc_event former;
    if (event.what == kForkEvent && leaderExits_.TakeReplaced(event.event_data.fork.child_tgid, former)) {
        handler_(former);
    }
    if (event.what == kExecEvent) {
        leaderExits_.Forget(event.event_data.exec.process_tgid);
    }
    if (event.what != kExitEvent || leaderExits_.HasEnded(event)) {
        handler_(event);
    }
}

void EventReception::HandOnHeldExits()
{
    const auto now = Steady::now();
    if (leaderExits_.IsEmpty() || now - lookedAtExits_ < kHeldExitPeriod) {
        return;
    }
    for (proc_event& exit : leaderExits_.TakeEnded()) {
        handler_(exit);
    }
    lookedAtExits_ = Steady::now();
    FollowHeldProcesses();
}

void EventReception::Drain()
{
    // From here on no event is added, so this comes to an end however many there are.
    const int group = CN_IDX_PROC;
    setsockopt(fd_, SOL_NETLINK, NETLINK_DROP_MEMBERSHIP, &group, sizeof(group));
    giveUpAt_ = Steady::now() + kDrainTime;
    while (Steady::now() < giveUpAt_ + kDrainTime) {
        const int count = batch_.Receive(fd_);
        if (count < 0 && errno == ENOBUFS) {
            continue;  // it speaks of events lost before; the next call gives those that are there
        }
        if (count <= 0) {
            break;
        }
        HandOn(count);
    }
    lookedAtExits_ = {};
    HandOnHeldExits();
    CountDrops(false);
}

void EventReception::CountDrops(bool overflow)
{
    std::uint32_t drops = 0;
    if (drops_.Take(fd_, drops)) {
        losses_.events += drops;
    } else if (overflow) {
        ++losses_.overflows;
    }
}

EventReception::Losses EventReception::TakeLosses()
{
    return std::exchange(losses_, {});
}

}  // namespace NEUtils
