#pragma once

#include <atomic>

namespace NEUtils {

// Lets a callback be called until the gate is closed; afterwards no call of it runs. The gate has no lock: a call costs
// two atomic steps, and a child that is forked meanwhile cannot find a lock held.
//
// Threads  any, also several at once, and a call within a call.
class CallGate {
public:
    CallGate() = default;
    CallGate(const CallGate&) = delete;
    CallGate& operator=(const CallGate&) = delete;

    // Calls the function unless the gate is closed. What it throws passes through.
    template <typename Function>
    void Call(Function&& function)
    {
        const Inside inside(*this);
        if (!closed_) {
            function();
        }
    }

    // Waits for the calls of other threads, and gives the number of calls that this thread is in.
    unsigned int Close()
    {
        closed_ = true;
        const unsigned int own = OwnCalls();
        for (unsigned int calls = calls_; calls > own; calls = calls_) {
            calls_.wait(calls);
        }
        return own;
    }

    // For a forked child, where this thread is the only one.
    void ForgetOtherThreads() { calls_ = OwnCalls(); }

private:
    // A call under way, in the list of those of its thread.
    struct Inside {
        explicit Inside(CallGate& entered) : gate(entered), outer(innermost_)
        {
            innermost_ = this;
            ++gate.calls_;
        }
        ~Inside()
        {
            innermost_ = outer;
            --gate.calls_;
            gate.calls_.notify_all();
        }
        Inside(const Inside&) = delete;
        Inside& operator=(const Inside&) = delete;

        CallGate& gate;
        const Inside* outer;
    };

    [[nodiscard]] unsigned int OwnCalls() const
    {
        unsigned int calls = 0;
        for (const Inside* call = innermost_; call != nullptr; call = call->outer) {
            calls += &call->gate == this ? 1 : 0;
        }
        return calls;
    }

    static constinit inline thread_local const Inside* innermost_ = nullptr;

    std::atomic<unsigned int> calls_{0};
    std::atomic<bool> closed_{false};
};

}  // namespace NEUtils
