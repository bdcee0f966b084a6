#pragma once

#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

#include "guard/heartbeat_checker.h"
#include "guard/plain_thread_instance.h"
#include "hips_thread_instance.h"

namespace NEUtils {

class HipsInstanceManager;
class HipsResourceManager;

// What stands behind the functions of hips_guard.h: the threads by their handles, the checker, and whether the
// guard is initialised.
//
// Threads  any.
// Locks    one mutex over all of it; nothing is joined, called back or logged under it.
// Errors   false, 0 or null, with a record. Nothing throws.
class HipsGuard {
public:
    static HipsGuard& Get();

    int Init(long memLimitKiB, int fdLimit, double cpuPercent);
    bool Uninit();
    std::uintptr_t Create(int (*routine)(void*), void* arg, int timeSliceUs, const char* name);
    std::uintptr_t Watch(const char* name, PlainThreadInstance::BeatAge beatAgeMs, void* arg);
    bool Unwatch(std::uintptr_t handle);
    bool Close(std::uintptr_t handle);
    bool KeepAlive(std::uintptr_t handle);
    bool FastStopAll();

    // The instance of a handle; null, and an ERROR record, if there is none.
    std::shared_ptr<HipsThreadInstance> Find(std::uintptr_t handle);
    // The resource guard; null, and an ERROR record, before the guard is initialised.
    std::shared_ptr<HipsResourceManager> Resources();

private:
    enum Phase { kOff, kStarting, kOn, kEnding };
    template <typename Instance>
    using ByHandle = std::map<std::uintptr_t, std::shared_ptr<Instance>>;
    using ThreadPtr = std::shared_ptr<HipsThreadInstance>;

    bool SetUp(long memLimitKiB, int fdLimit, double cpuPercent);
    bool StartChecker();
    bool BeginCreating(std::shared_ptr<HipsResourceManager>& resources);
    void EndCreating();
    std::uintptr_t CreateHipsThread(int (*routine)(void*), void* arg, int timeSliceUs, const char* name,
                                    HipsResourceManager* resources);
    template <typename Instance>
    bool Supervise(ByHandle<Instance>& list, const std::shared_ptr<Instance>& instance, HipsResourceManager* resources);
    template <typename Instance>
    bool Release(ByHandle<Instance>& list, const std::shared_ptr<Instance>& instance);
    template <typename Instance>
    void StopEach(ByHandle<Instance>& list);
    void StopClosed();
    bool Advance(Phase from, Phase to);  // false, and nothing changed, in another phase

    std::mutex mutex_;              // guards all below, but for the checker
    std::condition_variable wake_;  // the phase has changed, or a thread has been made
    Phase phase_ = kOff;
    unsigned int creating_ = 0;  // threads that are being made
    ByHandle<HipsThreadInstance> handles_;
    ByHandle<PlainThreadInstance> watched_;
    std::vector<ThreadPtr> closed_;  // their handles were closed while they still ran
    std::shared_ptr<HipsResourceManager> resources_;
    HipsInstanceManager* manager_ = nullptr;
    HeartbeatChecker checker_;  // started and stopped by the thread that changes the phase
};

}  // namespace NEUtils
