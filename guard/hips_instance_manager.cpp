#include "hips_instance_manager.h"

#include <csignal>

#include "logger.h"

namespace NEUtils {

namespace {

constexpr unsigned int kToleratedMisses = 2;

}  // namespace

HipsInstanceManager* HipsInstanceManager::CreateInstance(unsigned long mainThread, bool terminateOnFailure,
                                                         unsigned int period)
{
    // Never destroyed: guarded threads may run until the process is gone.
    static HipsInstanceManager* manager = [&] {
        auto* created = new HipsInstanceManager;
        created->Configure(mainThread, terminateOnFailure, period);
        return created;
    }();
    return manager;
}

void HipsInstanceManager::Configure(unsigned long mainThread, bool terminateOnFailure, unsigned int period)
{
    const std::lock_guard<std::mutex> lock(mutex_);
    mainThread_ = mainThread;
    terminate_ = terminateOnFailure;
    period_ = period;
}

bool HipsInstanceManager::AddInstance(const std::shared_ptr<HipsThreadInstance>& instance,
                                      HipsResourceManager* resources)
{
    if (instance == nullptr) {
        NE_LOG(ERROR, "Invalid instance.");
        return false;
    }
    if (!instance->Start(resources)) {
        NE_LOG(ERROR, "Start instance failed.");
        return false;
    }
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        instances_.insert(instance);
    }
    NE_LOG(INFO, "Add instance.[instanceName=%s runtimeName=%s id=%ld]", instance->GetName().c_str(),
           instance->GetRuntimeName().c_str(), instance->GetId());
    return true;
}

bool HipsInstanceManager::DeleteInstance(const std::shared_ptr<HipsThreadInstance>& instance)
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
           instance->GetRuntimeName().c_str(), instance->GetId());
    return true;
}

void HipsInstanceManager::KeepAlive(const std::shared_ptr<HipsThreadInstance>& instance)
{
    instance->KeepAlive();
}

std::vector<std::shared_ptr<HipsThreadInstance>> HipsInstanceManager::GetInstances() const
{
    const std::lock_guard<std::mutex> lock(mutex_);
    return {instances_.begin(), instances_.end()};
}

bool HipsInstanceManager::CheckInstanceList()
{
    struct Miss {
        std::shared_ptr<HipsThreadInstance> instance;
        unsigned int count;
    };
    std::vector<Miss> misses;
    unsigned long mainThread;
    bool terminate;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        mainThread = mainThread_;
        terminate = terminate_;
        for (const auto& instance : instances_) {
            if (!instance->IsRunning()) {
                continue;
            }
            const unsigned int missed = instance->DoHeartBeat();
            if (missed != 0) {
                misses.push_back({instance, missed});
            }
        }
    }
    bool hopeless = false;
    for (const Miss& miss : misses) {
        NE_LOG(ERROR,
               "Check instance heart beat failed.[runtimeName=%s instanceId=%ld failedCount=%zu timeSlice=%lld us]",
               miss.instance->GetRuntimeName().c_str(), miss.instance->GetId(), static_cast<std::size_t>(miss.count),
               static_cast<long long>(miss.instance->GetSliceTimeUs()));
        hopeless = hopeless || miss.count > kToleratedMisses;
    }
    if (hopeless && terminate) {
        NE_LOG(ERROR, "Terminate signal will be sent to main thread.");
        // SIGTERM keeps its default action: a handled signal would run the stop function, which joins
        // the thread that hangs.
        // NOLINTNEXTLINE(bugprone-bad-signal-to-kill-thread): the end of the whole process is what is wanted
        return pthread_kill(static_cast<pthread_t>(mainThread), SIGTERM) == 0;
    }
    return true;
}

}  // namespace NEUtils
