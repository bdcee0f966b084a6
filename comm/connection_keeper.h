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

// Makes the connections of a channel, one at a time, and ends them. Every thread of a connection is joined.
//
// Threads  any. A handler of a message may call everything here. It cannot join its own thread: the next Start or
//          Stop on another thread does.
class ConnectionKeeper {
public:
    using Open = std::function<bool(Connection&)>;  // connects; false if that fails

    explicit ConnectionKeeper(Connection::Callbacks callbacks);

    // Connects. True also if there is a connection already. False while another start is under way.
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
    std::uint64_t stops_ = 0;           // a start gives up if this has changed when it is done
    std::uint32_t count_ = 0;
    std::thread::id starter_;  // the thread whose start is under way
    std::condition_variable startEnd_;
};

}  // namespace NEUtils
