#include "comm/message_handlers.h"

#include <exception>

#include "logger.h"
#include "util/call_gate.h"

namespace NEUtils {

namespace {

constexpr unsigned int kWriteWaitMs = 5000;

}  // namespace

struct MessageHandlers::Handler {
    void Call(std::uint32_t type, void* message)
    {
        try {
            gate.Call([&] { function(type, message, userData); });
        } catch (const std::exception& error) {
            NE_LOG(ERROR, "Message handler has failed.[type=%u error=%s]", type, error.what());
        } catch (...) {
            NE_LOG(ERROR, "Message handler has failed.[type=%u]", type);
        }
    }

    const MsgHandler function;
    void* const userData;
    CallGate gate;
};

MessageHandlers::MessageHandlers() = default;
MessageHandlers::~MessageHandlers() = default;

bool MessageHandlers::Add(std::uint32_t type, MsgHandler handler, void* userData)
{
    if (handler == nullptr) {
        return false;
    }
    const std::shared_ptr<Handler> added(new Handler{handler, userData, {}});
    return Change(type, [&](const List& old) {
        List changed = old;
        changed.push_back(added);
        return changed;
    });
}

bool MessageHandlers::Remove(std::uint32_t type, MsgHandler handler)
{
    List removed;
    const bool changed = Change(type, [&](const List& old) {
        List kept;
        for (const auto& entry : old) {
            (entry->function == handler ? removed : kept).push_back(entry);
        }
        return kept;
    });
    for (const auto& entry : removed) {
        entry->gate.Close();
    }
    return changed && !removed.empty();
}

// Replaces the list of a type by the one that a function makes of it. If that throws, nothing changes.
template <typename Function>
bool MessageHandlers::Change(std::uint32_t type, Function function)
{
    if (!lock_.LockForWrite(kWriteWaitMs)) {
        return false;
    }
    const std::unique_ptr<MR1WLock, void (*)(MR1WLock*)> held(&lock_, [](MR1WLock* lock) { lock->UnlockForWrite(); });
    const auto found = handlers_.find(type);
    auto changed = std::make_shared<const List>(function(found == handlers_.end() ? List() : *found->second));
    if (changed->empty()) {
        handlers_.erase(type);
    } else {
        handlers_[type].swap(changed);
    }
    return true;
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
