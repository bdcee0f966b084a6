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
    struct Call {  // ends also when the callback throws
        Call(EventCallbacks& callbacks, std::unique_lock<std::mutex>& held, Callback callback)
            : owner(callbacks), lock(held)
        {
            owner.current_ = callback;
            lock.unlock();
        }
        ~Call()
        {
            lock.lock();
            owner.current_ = nullptr;
            if (owner.waiting_ > 0) {
                owner.returned_.notify_all();
            }
        }
        Call(const Call&) = delete;
        Call& operator=(const Call&) = delete;
        EventCallbacks& owner;
        std::unique_lock<std::mutex>& lock;
    };
    for (const Callback callback : copy_) {
        if (version_ != copyVersion_ && callbacks_.count(callback) == 0) {
            continue;
        }
        const Call call(*this, lock, callback);
        callback(&event);
    }
}

}  // namespace NEUtils
