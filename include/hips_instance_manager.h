#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <set>
#include <vector>

#include "hips_thread_instance.h"
#include "neutils_api.h"

namespace NEUtils {

// The supervised threads of the process and the check of their heartbeats.
//
// Threads  any. No lock is held over a start, a stop or a record.
class NEUTILS_API HipsInstanceManager {
public:
    // The one manager; null when memory has run out. The first call sets the main thread, whether a thread that
    // hangs ends it, and a third setting, which is only stored. Later calls give the same object, unchanged.
    static HipsInstanceManager* CreateInstance(unsigned long mainThread, bool terminateOnFailure, unsigned int period);

    HipsInstanceManager(const HipsInstanceManager&) = delete;
    HipsInstanceManager& operator=(const HipsInstanceManager&) = delete;

    // Sets the three again, for a guard that is initialised again.
    void Configure(unsigned long mainThread, bool terminateOnFailure, unsigned int period);

    // Starts an instance and supervises it.
    bool AddInstance(const std::shared_ptr<HipsBaseInstance>& instance, HipsResourceManager* resources);
    // Ends the supervision. The instance goes on until somebody stops it.
    bool DeleteInstance(const std::shared_ptr<HipsBaseInstance>& instance);
    void KeepAlive(const std::shared_ptr<HipsBaseInstance>& instance);
    std::vector<std::shared_ptr<HipsBaseInstance>> GetInstances() const;  // those supervised; throws std::bad_alloc

    // One round of the checker: counts each running instance's missed heartbeat and logs those that did not
    // come round since the last round. After more than two misses the main thread gets SIGTERM. A log that
    // hangs and memory that has run out cost a record at most, never the count or the signal.
    bool CheckInstanceList();

    // The signal has been sent since Configure.
    bool IsTerminating() const { return terminating_; }

private:
    HipsInstanceManager() = default;

    struct Miss;
    bool CountBeats(std::vector<Miss>& misses);  // true: one has missed too many
    bool TerminateMainThread();

    mutable std::mutex mutex_;
    unsigned long mainThread_ = 0;
    bool terminate_ = false;
    unsigned int period_ = 0;
    std::set<std::shared_ptr<HipsBaseInstance>> instances_;  // by address
    std::atomic<bool> terminating_{false};
};

}  // namespace NEUtils
