#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <vector>

#include "basecomm.h"
#include "mr1w_lock.h"

namespace NEUtils {

// The handlers of received messages, by type. No lock is held while one runs.
//
// Threads  any.
class MessageHandlers {
public:
    MessageHandlers();
    ~MessageHandlers();

    // False for null, or if readers hold the table for 5 seconds.
    bool Add(std::uint32_t type, MsgHandler handler, void* userData);

    // Removes every entry of a type with this function. Afterwards no call of it runs, except the one that
    // calls this.
    bool Remove(std::uint32_t type, MsgHandler handler);

    struct Handler;
    using List = std::vector<std::shared_ptr<Handler>>;

    std::shared_ptr<const List> Find(std::uint32_t type);  // null if there is none

    // Calls handlers in the order in which they were added.
    static void Call(const List& handlers, std::uint32_t type, void* message);

private:
    template <typename Function>
    bool Change(std::uint32_t type, Function function);

    MR1WLock lock_;
    std::map<std::uint32_t, std::shared_ptr<const List>> handlers_;  // lists are replaced, never changed
};

}  // namespace NEUtils
