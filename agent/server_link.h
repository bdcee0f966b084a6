#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <memory>
#include <mutex>
#include <random>
#include <thread>

#include "socket_comm.h"

// The agent's link to its server: the socket channel, kept up by a regular check, and the report queue on it.
// After a failure it waits before it connects again, 1 s first and twice as long each time up to 60 s, and
// up to half of that or 2 s more by chance: a thousand agents whose server comes back spread themselves.
//
// Threads  Check: one at a time. GetState: any. The others: the main thread.
class ServerLink {
public:
    bool Start(std::size_t queueCount, std::size_t queueBytes);
    const char* GetState() const;  // off, up or down
    void Check();                  // connects where that is due, which may take 10 s
    void Stop();                   // gives what is queued 2 s to go, and ends a connect under way

private:
    using Time = std::chrono::steady_clock::time_point;

    void Look(Time now);
    void PutOff(Time now);

    std::atomic<bool> isOn_{false};
    const std::shared_ptr<NEUtils::SocketComm> channel_ = std::make_shared<NEUtils::SocketComm>();

    // Of Check alone:
    bool started_ = false;
    bool up_ = false;
    Time upSince_;
    Time nextTry_;
    std::chrono::milliseconds delay_{1000};
    std::minstd_rand random_{std::random_device()()};

    std::mutex mutex_;
    std::condition_variable checked_;
    std::thread::id checker_;  // who checks at the moment
    bool stopping_ = false;
};
