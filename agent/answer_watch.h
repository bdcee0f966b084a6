#pragma once

#include <chrono>
#include <cstdint>

// Judges whether a server that is up leaves reports unanswered: some are there, and none was answered for 60 s.
// Heartbeats do not count, since a server answers them also while it can store nothing.
//
// Threads  one at a time.
class AnswerWatch {
public:
    using Time = std::chrono::steady_clock::time_point;
    static constexpr std::chrono::seconds kLimit{60};

    // What is seen now: the reports that wait or are unanswered, and those that were ever answered.
    bool Look(bool isUp, std::uint64_t unanswered, std::uint64_t answered, Time now)
    {
        if (!isUp || unanswered == 0 || answered != answered_) {
            isWaiting_ = false;
        }
        if (!isWaiting_) {
            since_ = now;
        }
        isWaiting_ = isUp && unanswered > 0;
        answered_ = answered;
        return isWaiting_ && now - since_ >= kLimit;
    }

private:
    bool isWaiting_ = false;
    Time since_;
    std::uint64_t answered_ = 0;
};
