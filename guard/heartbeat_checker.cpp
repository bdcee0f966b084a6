#include "guard/heartbeat_checker.h"

#include <unistd.h>

#include <csignal>
#include <exception>
#include <utility>

#include "guard/check_log.h"
#include "hips_instance_manager.h"
#include "hips_resource_manager.h"
#include "util/clock.h"
#include "util/stop_signals.h"
#include "util/thread_name.h"

namespace NEUtils {

namespace {

using Steady = std::chrono::steady_clock;

constexpr std::chrono::seconds kCheckPeriod{60};
constexpr std::chrono::seconds kTimeToEnd{10};

Steady::time_point After(std::chrono::nanoseconds time)
{
    return Steady::now() + time / Clock::sleepDivisor.load();
}

}  // namespace

bool HeartbeatChecker::Start(HipsInstanceManager& manager, std::shared_ptr<HipsResourceManager> resources, int& error)
{
    manager_ = &manager;
    resources_ = std::move(resources);
    stopping_ = false;
    if (!CheckLog::Get().Start(error)) {
        return false;
    }
    {
        const StopSignalsBlocked blocked;
        error = pthread_create(&thread_, nullptr, &HeartbeatChecker::Run, this);
    }
    if (error != 0) {
        CheckLog::Get().Stop();
    }
    return error == 0;
}

void HeartbeatChecker::Stop()
{
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        stopping_ = true;
    }
    wake_.notify_all();
    pthread_join(thread_, nullptr);
    CheckLog::Get().Stop();
    resources_.reset();
}

void* HeartbeatChecker::Run(void* checker)
{
    SetThreadName("CheckManager");
    static_cast<HeartbeatChecker*>(checker)->CheckInRounds();
    return nullptr;
}

void HeartbeatChecker::CheckInRounds()
{
    // From round to round, whatever else wakes this thread. No round is made up for: two in a row would find
    // a miss where a thread had no time to come round.
    while (WaitUntil(After(kCheckPeriod))) {
        CheckOnce();
        if (manager_->IsTerminating() && WaitUntil(After(kTimeToEnd))) {
            EndProcess();
        }
    }
}

void HeartbeatChecker::CheckOnce()
{
    GUARD_CHECK_LOG(DEBUG, "......CheckInstance start......");
    if (!manager_->CheckInstanceList()) {
        GUARD_CHECK_LOG(ERROR, "CheckInstance failed.");
    }
    bool updated = false;
    try {
        updated = resources_->Update();
    } catch (const std::exception&) {  // memory has run out
    }
    if (!updated) {
        GUARD_CHECK_LOG(ERROR, "Update hips resource usage failed.");
    }
    GUARD_CHECK_LOG(DEBUG, "......CheckInstance end......");
}

bool HeartbeatChecker::WaitUntil(Time time)
{
    std::unique_lock<std::mutex> lock(mutex_);
    return !wake_.wait_until(lock, time, [this] { return stopping_; });
}

void HeartbeatChecker::EndProcess()
{
    GUARD_CHECK_LOG(ERROR, "The main thread has not ended the process, so the guard does.");
    CheckLog::Get().WaitUntilWritten();
    struct sigaction standard = {};
    standard.sa_handler = SIG_DFL;
    sigaction(SIGTERM, &standard, nullptr);
    sigset_t terminate;
    sigemptyset(&terminate);
    sigaddset(&terminate, SIGTERM);
    pthread_sigmask(SIG_UNBLOCK, &terminate, nullptr);
    raise(SIGTERM);
    _exit(128 + SIGTERM);  // the first process of a container: the kernel keeps a default action from it
}

}  // namespace NEUtils
