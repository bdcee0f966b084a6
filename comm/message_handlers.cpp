#include "comm/message_handlers.h"

#include <algorithm>
#include <condition_variable>
#include <exception>
#include <iterator>
#include <mutex>
#include <thread>

#include "logger.h"

namespace NEUtils {

namespace {

constexpr unsigned int kWriteWaitMs = 5000;

}  // namespace

class MessageHandlers::Handler {
public:
    Handler(MsgHandler function, void* userData) : function_(function), userData_(userData) {}

    bool Is(MsgHandler function) const { return function_ == function; }

    void Call(std::uint32_t type, void* message)
    {
        if (!Enter()) {
            return;
        }
        try {
            function_(type, message, userData_);
        } catch (const std::exception& error) {
            NE_LOG(ERROR, "Message handler has failed.[type=%u error=%s]", type, error.what());
        } catch (...) {
            NE_LOG(ERROR, "Message handler has failed.[type=%u]", type);
        }
        Leave();
    }

    void Close()
    {
        std::unique_lock<std::mutex> lock(mutex_);
        closed_ = true;
        const auto own = std::count(callers_.begin(), callers_.end(), std::this_thread::get_id());
        left_.wait(lock, [&] { return callers_.size() <= static_cast<std::size_t>(own); });
    }

private:
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

    const MsgHandler function_;
    void* const userData_;
    std::mutex mutex_;
    std::condition_variable left_;
    std::vector<std::thread::id> callers_;  // those inside a call
    bool closed_ = false;
};

MessageHandlers::MessageHandlers() = default;
MessageHandlers::~MessageHandlers() = default;

bool MessageHandlers::Add(std::uint32_t type, MsgHandler handler, void* userData)
{
    if (handler == nullptr || !lock_.LockForWrite(kWriteWaitMs)) {
        return false;
    }
    std::shared_ptr<const List>& list = handlers_[type];
    List changed = list == nullptr ? List() : *list;
    changed.push_back(std::make_shared<Handler>(handler, userData));
    list = std::make_shared<const List>(std::move(changed));
    lock_.UnlockForWrite();
    return true;
}

bool MessageHandlers::Remove(std::uint32_t type, MsgHandler handler)
{
    if (!lock_.LockForWrite(kWriteWaitMs)) {
        return false;
    }
    List kept;
    List removed;
    const auto found = handlers_.find(type);
    if (found != handlers_.end()) {
        for (const auto& entry : *found->second) {
            (entry->Is(handler) ? removed : kept).push_back(entry);
        }
        if (kept.empty()) {
            handlers_.erase(found);
        } else {
            found->second = std::make_shared<const List>(std::move(kept));
        }
    }
    lock_.UnlockForWrite();
    for (const auto& entry : removed) {
        entry->Close();
    }
    return !removed.empty();
}

std::shared_ptr<const MessageHandlers::List> MessageHandlers::Find(std::uint32_t type)
{
    lock_.LockForRead();
    const auto found = handlers_.find(type);
    auto list = found == handlers_.end() ? nullptr : found->second;
    lock_.UnlockForRead();
    return list;
}

void MessageHandlers::Call(const List& handlers, std::uint32_t type, void* message)
{
    for (const auto& handler : handlers) {
        handler->Call(type, message);
    }
}

}  // namespace NEUtils
