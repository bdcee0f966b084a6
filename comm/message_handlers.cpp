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
    if (handler == nullptr || !lock_.LockForWrite(kWriteWaitMs)) {
        return false;
    }
    std::shared_ptr<const List>& list = handlers_[type];
    List changed = list == nullptr ? List() : *list;
    changed.push_back(std::shared_ptr<Handler>(new Handler{handler, userData, {}}));
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
            (entry->function == handler ? removed : kept).push_back(entry);
        }
        if (kept.empty()) {
            handlers_.erase(found);
        } else {
            found->second = std::make_shared<const List>(std::move(kept));
        }
    }
    lock_.UnlockForWrite();
    for (const auto& entry : removed) {
        entry->gate.Close();
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
