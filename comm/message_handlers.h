#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <vector>

#include "basecomm.h"
#include "mr1w_lock.h"

namespace NEUtils {

// The handlers of received messages, by type. No lock is held over a call of one.
//
// Threads  any.
class MessageHandlers {
public:
    MessageHandlers();
    ~MessageHandlers();

    // False for null, and where readers do not let a writer in for 5 seconds.
    bool Add(std::uint32_t type, MsgHandler handler, void* userData);

    // Removes every entry of a type with this function; afterwards no call of it runs or will run, but for
    // the one that this is called from.
    bool Remove(std::uint32_t type, MsgHandler handler);

    struct Handler;
    using List = std::vector<std::shared_ptr<Handler>>;

    std::shared_ptr<const List> Find(std::uint32_t type);  // null if there is none

    // Calls handlers in the order of their registration.
    static void Call(const List& handlers, std::uint32_t type, void* message);

private:
    template <typename Function>
    bool Change(std::uint32_t type, Function function);

    MR1WLock lock_;
    std::map<std::uint32_t, std::shared_ptr<const List>> handlers_;  // lists are replaced, never changed
};

}  // namespace NEUtils
