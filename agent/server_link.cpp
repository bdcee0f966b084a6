#include "server_link.h"

#include <algorithm>
#include <utility>

#include "basecomm.h"
#include "report_queue.h"

namespace {

using std::chrono::milliseconds;

constexpr milliseconds kFirstDelay{1000};
constexpr milliseconds kLongestDelay{60000};
constexpr milliseconds kLeastSpread{2000};
constexpr milliseconds kSettled{10000};  // a connection that lived that long was a good one
constexpr milliseconds kStopPeriod{50};
constexpr unsigned int kDrainMs = 2000;

}  // namespace

bool ServerLink::Start(std::size_t queueCount, std::size_t queueBytes)
{
    isOn_ = NEUtils::RegisterComponent(NEUtils::kSocketClient, channel_) && NEUtils::BaseCommInit() &&
            NEUtils::ReportQueue::GetInstance().Start(channel_, queueCount, queueBytes);
    return isOn_;
}

const char* ServerLink::GetState() const
{
    return !isOn_ ? "off" : channel_->StatusCheck() ? "up" : "down";
}

void ServerLink::Check()
{
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (stopping_) {
            return;
        }
        checker_ = std::this_thread::get_id();
    }
    const struct End {  // also where the look throws
        ServerLink& link;
        ~End()
        {
            const std::lock_guard<std::mutex> lock(link.mutex_);
            link.checker_ = {};
            link.checked_.notify_all();
        }
    } end{*this};
    Look(std::chrono::steady_clock::now());
}

void ServerLink::Look(Time now)
{
    if (channel_->StatusCheck()) {
        if (now - upSince_ > kSettled) {
            delay_ = kFirstDelay;
        }
        return;
    }
    if (up_) {
        up_ = false;
        PutOff(now);
    }
    if (now < nextTry_) {
        return;
    }
    std::exchange(started_, true) ? NEUtils::BaseCommStatusCheck() : NEUtils::BaseCommStart();
    up_ = channel_->StatusCheck();
    upSince_ = std::chrono::steady_clock::now();
    if (!up_) {
        PutOff(upSince_);
    }
}

void ServerLink::PutOff(Time now)
{
    const milliseconds spread = std::max(delay_ / 2, kLeastSpread);
    nextTry_ = now + delay_ + milliseconds(std::uniform_int_distribution<long>(0, spread.count())(random_));
    delay_ = std::min(delay_ * 2, kLongestDelay);
}

void ServerLink::Stop()
{
    auto& queue = NEUtils::ReportQueue::GetInstance();
    queue.Drain(kDrainMs);
    std::unique_lock<std::mutex> lock(mutex_);
    stopping_ = true;
    const auto isChecked = [this] {  // by another thread: a crash in the check stops from there
        return checker_ != std::thread::id() && checker_ != std::this_thread::get_id();
    };
    do {  // also what a check under way has still to connect
        lock.unlock();
        NEUtils::BaseCommStop();
        lock.lock();
    } while (isChecked() && (checked_.wait_for(lock, kStopPeriod), true));
    lock.unlock();
    queue.Stop();
    NEUtils::BaseCommDeInit();
}
