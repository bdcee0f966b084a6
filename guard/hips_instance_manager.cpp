#include "hips_instance_manager.h"

#include <csignal>
#include <new>
#include <string>

#include "guard/check_log.h"
#include "logger.h"

namespace NEUtils {

namespace {

constexpr unsigned int kToleratedMisses = 2;

std::string RuntimeName(const HipsBaseInstance& instance)
{
    try {
        return instance.GetRuntimeName();
    } catch (const std::bad_alloc&) {
        return {};  // a record without the name is better than none
    }
}

}  // namespace

struct HipsInstanceManager::Miss {
    std::shared_ptr<HipsBaseInstance> instance;
    unsigned int count;
};

HipsInstanceManager* HipsInstanceManager::CreateInstance(unsigned long mainThread, bool terminateOnFailure,
                                                         unsigned int period)
{
    try {
        // Never destroyed: guarded threads may run until the process is gone.
        static HipsInstanceManager* manager = [&] {
            auto* created = new HipsInstanceManager;
            created->Configure(mainThread, terminateOnFailure, period);
            return created;
        }();
        return manager;
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

void HipsInstanceManager::Configure(unsigned long mainThread, bool terminateOnFailure, unsigned int period)
{
    const std::lock_guard<std::mutex> lock(mutex_);
    mainThread_ = mainThread;
    terminate_ = terminateOnFailure;
    period_ = period;
    terminating_ = false;
}

bool HipsInstanceManager::AddInstance(const std::shared_ptr<HipsBaseInstance>& instance, HipsResourceManager* resources)
{
    if (instance == nullptr) {
        NE_LOG(ERROR, "Invalid instance.");
        return false;
    }
    // First into the set, where memory can run out: a thread that runs is always supervised.
    try {
        const std::lock_guard<std::mutex> lock(mutex_);
        instances_.insert(instance);
    } catch (const std::bad_alloc&) {
        NE_LOG(ERROR, "Alloc instance memory failed.");
        return false;
    }
    if (!instance->Start(resources)) {
        NE_LOG(ERROR, "Start instance failed.");
        const std::lock_guard<std::mutex> lock(mutex_);
        instances_.erase(instance);
        return false;
    }
    NE_LOG(INFO, "Add instance.[instanceName=%s runtimeName=%s id=%ld]", instance->GetName().c_str(),
           RuntimeName(*instance).c_str(), instance->GetId());
    return true;
}

bool HipsInstanceManager::DeleteInstance(const std::shared_ptr<HipsBaseInstance>& instance)
{
    bool known;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        known = instances_.erase(instance) != 0;
    }
    if (!known) {
        NE_LOG(ERROR, "Delete thread instance failed.");
        return false;
    }
    NE_LOG(INFO, "Delete instance.[instanceName=%s runtimeName=%s id=%ld]", instance->GetName().c_str(),
           RuntimeName(*instance).c_str(), instance->GetId());
    return true;
}

void HipsInstanceManager::KeepAlive(const std::shared_ptr<HipsBaseInstance>& instance)
{
    instance->KeepAlive();
}

std::vector<std::shared_ptr<HipsBaseInstance>> HipsInstanceManager::GetInstances() const
{
    const std::lock_guard<std::mutex> lock(mutex_);
    return {instances_.begin(), instances_.end()};
}

bool HipsInstanceManager::CheckInstanceList()
{
    std::vector<Miss> misses;
    const bool hopeless = CountBeats(misses);
    for (const Miss& miss : misses) {
        CHECK_LOG(ERROR,
                  "Check instance heart beat failed.[runtimeName=%s instanceId=%ld failedCount=%zu timeSlice=%lld us]",
                  RuntimeName(*miss.instance).c_str(), miss.instance->GetId(), static_cast<std::size_t>(miss.count),
                  static_cast<long long>(miss.instance->GetSliceTimeUs()));
    }
    const bool done = !hopeless || TerminateMainThread();
    CheckLog::Get().WaitUntilWritten();
    return done;
}

bool HipsInstanceManager::CountBeats(std::vector<Miss>& misses)
{
    bool hopeless = false;
    const std::lock_guard<std::mutex> lock(mutex_);
    for (const auto& instance : instances_) {
        const unsigned int missed = instance->IsRunning() ? instance->DoHeartBeat() : 0;
        if (missed == 0) {
            continue;
        }
        hopeless = hopeless || missed > kToleratedMisses;
        try {
            misses.push_back({instance, missed});
        } catch (const std::bad_alloc&) {  // its record is lost, its count is not
        }
    }
    return hopeless && terminate_;
}

bool HipsInstanceManager::TerminateMainThread()
{
    CHECK_LOG(ERROR, "Terminate signal will be sent to main thread.");
    // The records come before the signal, whose default action leaves no time for them. A log that hangs, which
    // may be why the thread hangs, does not keep the signal back.
    CheckLog::Get().WaitUntilWritten();
    terminating_ = true;
    unsigned long mainThread;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        mainThread = mainThread_;
    }
    // NOLINTNEXTLINE(bugprone-bad-signal-to-kill-thread): the end of the whole process is what is wanted
    return pthread_kill(static_cast<pthread_t>(mainThread), SIGTERM) == 0;
}

}  // namespace NEUtils
