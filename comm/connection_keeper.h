#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "comm/connection.h"

namespace NEUtils {

// Makes the connections of a channel, one at a time, and ends them: a thread that has ended is joined, also
// where a handler of the connection itself has stopped it.
//
// Threads  any. A handler may call everything here; what it would have to join is joined by the next call
//          from elsewhere.
class ConnectionKeeper {
public:
    using Open = std::function<bool(Connection&)>;  // connects; false where that fails

    explicit ConnectionKeeper(Connection::Callbacks callbacks);

    // Connects; true also where there is a connection already. False while another start is under way.
    bool Start(const Open& open);
    // Ends the connection, and a start that is under way.
    void Stop();

    std::shared_ptr<Connection> GetCurrent();
    std::shared_ptr<Connection> GetCurrent(std::uint32_t number);  // only if it is the one that GetCount counted
    std::uint32_t GetCount();                                      // how many connections there have been

private:
    using ConnectionPtr = std::shared_ptr<Connection>;

    bool IsReceiver() const;
    bool Publish(const ConnectionPtr& connection, bool opened, std::uint64_t stops);
    void End(const ConnectionPtr& connection);

    const Connection::Callbacks callbacks_;
    std::mutex mutex_;
    ConnectionPtr current_;
    ConnectionPtr connecting_;
    std::vector<ConnectionPtr> ended_;  // not joined yet
    std::uint64_t stops_ = 0;           // a start that finds another one when it is done gives up
    std::uint32_t count_ = 0;
    std::thread::id starter_;  // whose start is under way
    std::condition_variable startEnd_;
};

}  // namespace NEUtils
