#include "server_link.h"

#include <unistd.h>

#include <chrono>
#include <utility>

#include "basecomm.h"
#include "hips_guard.h"
#include "report_queue.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr milliseconds kStopPeriod{50};
constexpr unsigned int kDrainMs = 2000;
constexpr std::chrono::seconds kSilenceLimit{30};

}  // namespace

bool ServerLink::Start(std::size_t queueCount, std::size_t queueBytes)
{
    isOn_ = NEUtils::RegisterComponent(NEUtils::kSocketClient, channel_) && NEUtils::BaseCommInit() &&
            NEUtils::ReportQueue::GetInstance().Start(channel_, queueCount, queueBytes);
    if (isOn_) {
        const auto receiver = [](void* channel) { return static_cast<NEUtils::SocketComm*>(channel)->GetBeatAgeMs(); };
        const auto sender = [](void*) { return NEUtils::ReportQueue::GetInstance().GetBeatAgeMs(); };
        supervised_ = {WatchPlainThread("SocketRecv", receiver, channel_.get()),
                       WatchPlainThread("ReportSender", sender, nullptr)};
    }
    return isOn_;
}

const char* ServerLink::GetState() const
{
    if (!isOn_) {
        return "off";
    }
    if (!channel_->StatusCheck()) {
        return "down";
    }
    return NEUtils::ReportQueue::GetInstance().IsServerAnswering() ? "up" : "silent";
}

void ServerLink::AddProblems(Problems& problems) const
{
    const std::string state = GetState();
    problems.AddIf(state == "down", "server", "no connection to the server");
    problems.AddIf(state == "silent" && steady_clock::now() - answered_.load() > kSilenceLimit, "server",
                   "the server does not answer");
    problems.AddIf(state == "up" && leavesReports_, "reports", "the server answers no reports");
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
    Look();
}

void ServerLink::Look()
{
    auto& queue = NEUtils::ReportQueue::GetInstance();
    const bool isUp = queue.IsServerAnswering();
    if (isUp) {
        answered_ = steady_clock::now();
    }
    const NEUtils::ReportAccount account = queue.GetAccount();
    leavesReports_ =
        answerWatch_.Look(isUp, account.waiting + account.unanswered, account.acknowledged, steady_clock::now());
    if (!plan_.IsDue(channel_->StatusCheck(), steady_clock::now())) {
        return;
    }
    std::exchange(started_, true) ? NEUtils::BaseCommStatusCheck() : NEUtils::BaseCommStart();
    plan_.SetResult(channel_->StatusCheck(), steady_clock::now());
}

std::string ServerLink::GetCommandRefusal() const
{
    std::uint32_t uid = 0;
    if (!channel_->GetPeerUser(uid)) {
        return "commands are taken over a local socket only";
    }
    return uid == 0 || uid == geteuid() ? ""
                                        : "the server runs as user " + std::to_string(uid) +
                                              ", commands are taken of root and the agent's own user only";
}

void ServerLink::Stop()
{
    if (!isOn_) {
        return;
    }
    auto& queue = NEUtils::ReportQueue::GetInstance();
    queue.Drain(kDrainMs);  // it gives up earlier on a server that does not answer
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
    for (const std::uintptr_t thread : supervised_) {
        UnwatchPlainThread(thread);
    }
}
