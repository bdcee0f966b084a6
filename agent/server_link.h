#pragma once

#include <array>
#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>

#include "answer_watch.h"
#include "problems.h"
#include "retry_plan.h"
#include "socket_comm.h"

// The agent's link to its server: the socket channel, kept up by a regular check, and the report queue on it.
//
// Threads  Check: one at a time. GetState, AddProblems and GetCommandRefusal: any. The others: the main thread.
class ServerLink {
public:
    bool Start(std::size_t queueCount, std::size_t queueBytes);
    const char* GetState() const;  // off, down, silent (connected, without an answer lately), up
    void AddProblems(Problems& problems) const;
    void Check();  // connects where that is due, which may take 10 s

    // Why commands of the server are not taken, or nothing. The channel knows no other proof of who is at its other
    // end than the user who listens on a local socket: root and the agent's own may command.
    std::string GetCommandRefusal() const;

    // Gives what is queued up to 2 s to go, as long as the server answers, and ends a connect under way.
    void Stop();

private:
    void Look();

    std::atomic<bool> isOn_{false};
    std::atomic<RetryPlan::Time> answered_{std::chrono::steady_clock::now()};  // when the server was seen to answer
    std::atomic<bool> leavesReports_{false};                                   // unanswered, though the server is up
    const std::shared_ptr<NEUtils::SocketComm> channel_ = std::make_shared<NEUtils::SocketComm>();

    std::array<std::uintptr_t, 2> supervised_ = {};  // the link's threads, by the guard

    // Of Check alone:
    bool started_ = false;
    AnswerWatch answerWatch_;
    std::minstd_rand random_{std::random_device()()};
    RetryPlan plan_{[this](RetryPlan::Milliseconds most) {
        return RetryPlan::Milliseconds(std::uniform_int_distribution<long>(0, most.count())(random_));
    }};

    std::mutex mutex_;
    std::condition_variable checked_;
    std::thread::id checker_;  // who checks at the moment
    bool stopping_ = false;
};
