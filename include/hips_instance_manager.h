#pragma once

#include <cstddef>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "hips_thread_instance.h"
#include "neutils_api.h"

namespace NEUtils {

// The guarded threads of the process and the check of their heartbeats.
//
// Threads  any. No lock is held over a start, a stop or a record.
class NEUTILS_API HipsInstanceManager {
public:
    // The one manager. The first call sets the main thread, which a thread that hangs ends, whether it
    // does so, and the third setting, which is only stored; later calls give the same object.
    static HipsInstanceManager* CreateInstance(unsigned long mainThread, bool terminateOnFailure, unsigned int period);

    HipsInstanceManager(const HipsInstanceManager&) = delete;
    HipsInstanceManager& operator=(const HipsInstanceManager&) = delete;

    // As CreateInstance, for a guard that is initialised again.
    void Configure(unsigned long mainThread, bool terminateOnFailure, unsigned int period);

    // Starts an instance and supervises it.
    bool AddInstance(const std::shared_ptr<HipsThreadInstance>& instance, HipsResourceManager* resources);
    // No longer supervises it. The instance goes on until somebody stops it.
    bool DeleteInstance(const std::shared_ptr<HipsThreadInstance>& instance);
    void KeepAlive(const std::shared_ptr<HipsThreadInstance>& instance);
    std::vector<std::shared_ptr<HipsThreadInstance>> GetInstances() const;  // that are supervised

    // One round of the checker: counts each running instance's missed heartbeat and reports those that
    // did not come round since the last one. After more than two misses the main thread gets SIGTERM.
    bool CheckInstanceList();

private:
    HipsInstanceManager() = default;

    mutable std::mutex mutex_;
    unsigned long mainThread_ = 0;
    bool terminate_ = false;
    unsigned int period_ = 0;
    std::set<std::shared_ptr<HipsThreadInstance>> instances_;  // by address
};

}  // namespace NEUtils
