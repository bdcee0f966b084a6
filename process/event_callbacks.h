#pragma once

#include <linux/cn_proc.h>
#include <pthread.h>

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <set>
#include <vector>

namespace NEUtils {

// The callbacks of a process monitor: a set that one thread calls and any thread may change, also from
// within a callback. No lock is held over a call.
class EventCallbacks {
public:
    using Callback = void (*)(proc_event*);

    void Add(Callback callback);

    // Afterwards no call of the callback runs or will run; from inside it, no further one will.
    void Remove(Callback callback);

    // Calls every callback of the set as it was when the event came, but for those removed meanwhile.
    // One dispatching thread at a time.
    void Dispatch(proc_event& event);

private:
    std::mutex mutex_;
    std::condition_variable returned_;
    std::set<Callback> callbacks_;
    std::uint64_t version_ = 0;
    unsigned waiting_ = 0;        // removals that wait for a call to return
    Callback current_ = nullptr;  // the one being called
    pthread_t dispatcher_{};      // the thread that calls it

    // Of the dispatching thread alone:
    std::vector<Callback> copy_;
    std::uint64_t copyVersion_ = 0;
};

}  // namespace NEUtils
