#include "process/event_callbacks.h"

namespace NEUtils {

void EventCallbacks::Add(Callback callback)
{
    const std::lock_guard<std::mutex> lock(mutex_);
    callbacks_.insert(callback);
    ++version_;
}

void EventCallbacks::Remove(Callback callback)
{
    std::unique_lock<std::mutex> lock(mutex_);
    callbacks_.erase(callback);
    ++version_;
    if (current_ == callback && pthread_equal(dispatcher_, pthread_self()) != 0) {
        return;
    }
    ++waiting_;
    returned_.wait(lock, [&] { return current_ != callback; });
    --waiting_;
}

void EventCallbacks::Dispatch(proc_event& event)
{
    std::unique_lock<std::mutex> lock(mutex_);
    if (copyVersion_ != version_) {
        copy_.assign(callbacks_.begin(), callbacks_.end());
        copyVersion_ = version_;
    }
    dispatcher_ = pthread_self();
    for (const Callback callback : copy_) {
        if (version_ != copyVersion_ && callbacks_.count(callback) == 0) {
            continue;
        }
        current_ = callback;
        lock.unlock();
        callback(&event);
        lock.lock();
        current_ = nullptr;
        if (waiting_ > 0) {
            returned_.notify_all();
        }
    }
}

}  // namespace NEUtils
