#pragma once

#include <pthread.h>

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>

namespace NEUtils {

class HipsInstanceManager;
class HipsResourceManager;

// The thread "CheckManager": checks heartbeats and the process's own use every 60 s, and ends the process
// where the main thread does not do so itself.
//
// Threads  Start and Stop: one at a time.
// Blocks   Stop: until the round under way is over, which waits for a hanging log at most a few seconds.
class HeartbeatChecker {
public:
    // False: no thread, and the error number.
    bool Start(HipsInstanceManager& manager, std::shared_ptr<HipsResourceManager> resources, int& error);
    void Stop();

private:
    using Time = std::chrono::steady_clock::time_point;

    static void* Run(void* checker);
    void CheckInRounds();
    void CheckOnce();
    bool WaitUntil(Time time);  // false: stopped
    [[noreturn]] static void EndProcess();

    std::mutex mutex_;  // guards stopping_
    std::condition_variable wake_;
    bool stopping_ = false;
    HipsInstanceManager* manager_ = nullptr;
    std::shared_ptr<HipsResourceManager> resources_;
    pthread_t thread_{};
};

}  // namespace NEUtils
