#pragma once

#include <cstdint>
#include <optional>

#include "util/clock.h"

namespace NEUtils {

// Judges by its answers whether a server lives, and says when to ask it for one.
//
// Threads  one at a time.
// Units    nanoseconds of the monotonic clock.
class ServerWatch {
public:
    static constexpr std::int64_t kHeartbeatNs = 10 * Clock::kNsPerSecond;
    static constexpr std::int64_t kSilenceNs = 30 * Clock::kNsPerSecond;

    explicit ServerWatch(std::int64_t nowNs) : answeredNs_(nowNs) {}

    void OnConnected(std::int64_t nowNs) { *this = ServerWatch(nowNs); }

    void OnHeartbeat(std::uint32_t seq) { heartbeat_ = seq; }

    void OnAnswer(std::int64_t nowNs)
    {
        answeredNs_ = nowNs;
        answered_ = true;
    }

    // A heartbeat is due when nothing was answered for 10 s, and at once where a new connection has nothing to
    // send. One is under way at a time; the channel repeats it.
    bool IsHeartbeatDue(std::int64_t nowNs, bool isIdle) const
    {
        return !heartbeat_.has_value() && ((isIdle && !answered_) || nowNs - answeredNs_ >= kHeartbeatNs);
    }

    // Whether this number is the heartbeat's; it is answered then.
    bool TakeHeartbeat(std::uint32_t seq)
    {
        const bool isOurs = heartbeat_ == seq;
        if (isOurs) {
            heartbeat_.reset();
        }
        return isOurs;
    }

    std::optional<std::uint32_t> GetHeartbeat() const { return heartbeat_; }

    bool IsSilent(std::int64_t nowNs) const { return nowNs - answeredNs_ >= kSilenceNs; }
    bool IsAnswering(std::int64_t nowNs) const { return answered_ && !IsSilent(nowNs); }

private:
    std::int64_t answeredNs_;                 // the last answer, or the beginning of the connection
    bool answered_ = false;                   // on this connection
    std::optional<std::uint32_t> heartbeat_;  // the number of the one under way
};

}  // namespace NEUtils
