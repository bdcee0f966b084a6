#pragma once

#include <atomic>
#include <cstdint>
#include <functional>

#include "util/unique_fd.h"

// A guarded thread that runs rounds until it is stopped. A round waits on the stop descriptor beside what it works
// for, 20 seconds at most: each one is a heartbeat.
//
// Threads  Start and Stop: the owner's. The rounds run on the thread, one at a time.
// Blocks   Stop: until the round under way has returned.
class LoopThread {
public:
    using Round = std::function<void(int stopFd)>;

    static constexpr int kMostWaitMs = 20000;

    LoopThread() = default;
    ~LoopThread() { Stop(); }
    LoopThread(const LoopThread&) = delete;
    LoopThread& operator=(const LoopThread&) = delete;

    // False, with a record, where the thread or its descriptor cannot be made. The name has 15 characters at most.
    bool Start(const char* name, Round round);
    void Stop();

private:
    static int Run(void* self);

    Round round_;
    NEUtils::UniqueFd stopFd_;
    std::atomic<bool> stopping_{false};
    std::uintptr_t thread_ = 0;
};

// Waits until the descriptor can be read. False after that time.
bool WaitFor(int fd, int ms);
