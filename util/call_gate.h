#pragma once

#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

namespace NEUtils {

// Lets a callback be called until it is closed, after which no call of it runs any more. Its lock is not
// held over the call.
//
// Threads  any, also several at once, and a call within a call.
class CallGate {
public:
    // Calls the function unless the gate is closed. What it throws passes through.
    template <typename Function>
    void Call(Function&& function)
    {
        if (Enter()) {
            const Inside inside{*this};
            function();
        }
    }

    // Waits for the calls under way, but for those of this very thread.
    void Close()
    {
        std::unique_lock<std::mutex> lock(mutex_);
        closed_ = true;
        const auto own = std::count(callers_.begin(), callers_.end(), std::this_thread::get_id());
        left_.wait(lock, [&] { return callers_.size() <= static_cast<std::size_t>(own); });
    }

private:
    struct Inside {
        CallGate& gate;
        ~Inside() { gate.Leave(); }
    };

    bool Enter()
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (!closed_) {
            callers_.push_back(std::this_thread::get_id());
        }
        return !closed_;
    }

    void Leave()
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        callers_.erase(std::find(callers_.begin(), callers_.end(), std::this_thread::get_id()));
        left_.notify_all();
    }

    std::mutex mutex_;
    std::condition_variable left_;
    std::vector<std::thread::id> callers_;  // those inside a call
    bool closed_ = false;
};

}  // namespace NEUtils
