#include "comm/connection_keeper.h"

#include <algorithm>
#include <chrono>
#include <exception>
#include <iterator>
#include <utility>

#include "logger.h"

namespace NEUtils {

namespace {

constexpr std::chrono::milliseconds kCancelPeriod{50};

thread_local const ConnectionKeeper* t_receiver = nullptr;  // whose receive thread this is

}  // namespace

ConnectionKeeper::ConnectionKeeper(Connection::Callbacks callbacks)
    : callbacks_{[this, onMessage = std::move(callbacks.onMessage)](const SentrelAgentMsg& header, void* message) {
                     t_receiver = this;
                     onMessage(header, message);
                 },
                 std::move(callbacks.repeatRequest), callbacks.beatNs}
{
}

bool ConnectionKeeper::IsReceiver() const
{
    return t_receiver == this;
}

bool ConnectionKeeper::Start(const Open& open)
{
    const auto connection = std::make_shared<Connection>(callbacks_);
    ConnectionPtr old;
    std::uint64_t stops = 0;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (current_ != nullptr && current_->IsUp()) {
            return true;
        }
        if (connecting_ != nullptr) {
            return false;
        }
        connecting_ = connection;
        starter_ = std::this_thread::get_id();
        stops = stops_;
        old.swap(current_);
    }
    End(old);
    bool opened = false;
    try {
        opened = open(*connection);
    } catch (const std::exception& error) {  // no memory
        NE_LOG(ERROR, "Channel to the server cannot be opened.[error=%s]", error.what());
    }
    const bool started = Publish(connection, opened, stops);
    startEnd_.notify_all();
    if (started) {
        NE_LOG(INFO, "Channel to the server is up.");
    } else if (opened) {
        NE_LOG(ERROR, "Channel to the server is not started: stopped meanwhile, or no thread to be had.");
    }
    return started;
}

bool ConnectionKeeper::Publish(const ConnectionPtr& connection, bool opened, std::uint64_t stops)
{
    const std::lock_guard<std::mutex> lock(mutex_);
    connecting_.reset();
    // The thread starts under the lock, so that a stop finds either no connection or one that can be joined.
    if (!opened || stops_ != stops || !connection->Start()) {
        return false;
    }
    current_ = connection;
    ++count_;
    return true;
}

void ConnectionKeeper::Stop()
{
    ConnectionPtr current;
    {
        std::unique_lock<std::mutex> lock(mutex_);
        ++stops_;
        current.swap(current_);
        // A start under way ends first. It may be just before its connect, so it is woken again and again.
        while (connecting_ != nullptr && !IsReceiver() && starter_ != std::this_thread::get_id()) {
            const ConnectionPtr connecting = connecting_;
            connecting->Shutdown();
            startEnd_.wait_for(lock, kCancelPeriod);
        }
    }
    End(current);
}

// Ends a connection, if there is one, and joins all that have ended. A receive thread joins only threads that
// have finished: another one could be itself, or wait for it.
void ConnectionKeeper::End(const ConnectionPtr& connection)
{
    if (connection != nullptr) {
        if (connection->MarkDown()) {
            NE_LOG(INFO, "Channel to the server is stopped.");
        }
        connection->Shutdown();
    }
    std::vector<ConnectionPtr> joined;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (connection != nullptr) {
            ended_.push_back(connection);
        }
        // They stay in the list for now, so that every other caller waits for them too.
        std::copy_if(ended_.begin(), ended_.end(), std::back_inserter(joined),
                     [this](const auto& entry) { return !IsReceiver() || entry->IsFinished(); });
    }
    for (const auto& entry : joined) {
        entry->Join();
    }
    const std::lock_guard<std::mutex> lock(mutex_);
    ended_.erase(std::remove_if(
                     ended_.begin(), ended_.end(),
                     [&](const auto& entry) { return std::find(joined.begin(), joined.end(), entry) != joined.end(); }),
                 ended_.end());
}

ConnectionKeeper::ConnectionPtr ConnectionKeeper::GetCurrent()
{
    const std::lock_guard<std::mutex> lock(mutex_);
    return current_;
}

ConnectionKeeper::ConnectionPtr ConnectionKeeper::GetCurrent(std::uint32_t number)
{
    const std::lock_guard<std::mutex> lock(mutex_);
    return number == count_ ? current_ : nullptr;
}

std::uint32_t ConnectionKeeper::GetCount()
{
    const std::lock_guard<std::mutex> lock(mutex_);
    return count_;
}

}  // namespace NEUtils
