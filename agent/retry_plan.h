#pragma once

#include <chrono>
#include <functional>

// When a link that is down is tried again: after 1 s, and twice as long after each further failure up to 60 s, and
// up to half of that or 2 s more by chance, so that a thousand agents whose server comes back spread themselves. A
// connection that has lived for 10 s begins anew with 1 s.
//
// Threads  one.
class RetryPlan {
public:
    using Time = std::chrono::steady_clock::time_point;
    using Milliseconds = std::chrono::milliseconds;
    using Chance = std::function<Milliseconds(Milliseconds most)>;

    explicit RetryPlan(Chance chance) : chance_(std::move(chance)) {}

    // The state of the link as it is seen now. True where it is down and an attempt is due.
    bool IsDue(bool isUp, Time now);

    // How an attempt has ended.
    void SetResult(bool isUp, Time now);

private:
    void PutOff(Time now);

    const Chance chance_;
    bool wasUp_ = false;
    Time upSince_;
    Time nextTry_;
    Milliseconds delay_{1000};
};
