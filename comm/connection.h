#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "basecomm.h"
#include "comm/message_reader.h"
#include "socket_proxy.h"

namespace NEUtils {

// One connection to the server, from its socket to the end of the thread that receives from it. Once it is
// down it stays down.
//
// Threads  any. The descriptor is closed with the object, so no thread uses a number that belongs to another file.
// Owns     the thread "SocketRecv"; the caller of Start must call Join.
class Connection : public std::enable_shared_from_this<Connection> {
public:
    // What the connection calls on its thread.
    struct Callbacks {
        // One whole message, aligned for any type and followed by a NUL, valid during the call.
        std::function<void(const SentrelAgentMsg& header, void* message)> onMessage;
        // Repeats a request that is due; called when the socket can take it. Gives after how many milliseconds
        // it is to be called again.
        std::function<int(Connection&)> repeatRequest;
        // Where it notes when its thread last came round, and 0 at the end of the thread; null: nowhere.
        std::atomic<std::int64_t>* beatNs = nullptr;
    };

    explicit Connection(Callbacks callbacks) : callbacks_(std::move(callbacks)) {}

    bool Create(int family);  // the socket, which the caller then connects
    const SocketProxy& GetSocket() const { return proxy_; }

    // Marks the connection as up and starts its thread, which keeps the object. False if there is no thread.
    bool Start();

    bool IsUp() const { return up_; }
    bool IsFinished() const { return finished_; }  // the thread has nothing more to do

    // Sends whole messages, until a point in time of the monotonic clock. A failure takes the connection down,
    // since a part of a message may have been sent; LogFailedSend logs it, once no lock is held. Only one thread
    // may send at a time.
    bool Send(const char* messages, std::size_t length, std::int64_t endNs);

    void LogFailedSend();

    bool MarkDown() { return up_.exchange(false); }  // true for the one that does
    void Shutdown();                                 // wakes the threads that wait in this connection
    void Fail(const char* reason);                   // takes it down, with a log record the first time
    void Join();                                     // waits for the end of the thread; any number of callers

private:
    void Run();
    void RunOnce();
    void NoteBeat(std::int64_t nowNs);
    void Receive();
    void HandOver(const SentrelAgentMsg& header, const unsigned char* message);

    const Callbacks callbacks_;
    SocketProxy proxy_;
    std::atomic<int> fd_{-1};  // the proxy's, once it is there
    std::atomic<bool> up_{false};
    std::atomic<bool> finished_{false};
    std::atomic<bool> sendFailed_{false};  // and that is not logged yet
    std::thread thread_;

    // Of the thread alone:
    MessageReader reader_;
    std::vector<std::max_align_t> copy_;  // the message that is handed over
    bool discardLogged_ = false;
    std::int64_t nextRepeatNs_ = 0;

    std::mutex joinMutex_;
    std::condition_variable joinEnd_;
    bool joining_ = false;
    bool joined_ = false;
};

}  // namespace NEUtils
