#pragma once

#include <linux/cn_proc.h>

#include <chrono>
#include <cstdint>
#include <functional>

#include "process/datagram_batch.h"
#include "process/leader_exits.h"

namespace NEUtils {

// Takes datagrams off the connector's socket and hands their events on, one at a time.
//
// Threads  one.
// Blocks   Drain: as long as a call of the handler; none begins after half a second.
class EventReception {
public:
    using Handler = std::function<void(proc_event&)>;

    struct Losses {
        std::uint64_t events = 0;     // as the kernel counted them
        std::uint64_t overflows = 0;  // of a kernel that does not count: how many events each cost is unknown
    };

    // With processesOnly an exit is the end of a process, and nothing of further threads is handed on. The socket
    // has the filter of these kinds.
    EventReception(int fd, std::uint32_t kinds, bool processesOnly, Handler handler);

    // Takes one batch, and then hands its events on. The number of datagrams, or 0 or -1 with errno set.
    int Receive();
    void HandOn(int count);

    // Hands on the exits of first threads whose processes have ended since. Looks at most every half second.
    void HandOnHeldExits();

    // Hands on what is there now and takes nothing more off the socket: for the end. What takes too long counts
    // as lost.
    void Drain();

    Losses TakeLosses();  // since the last call

private:
    using Steady = std::chrono::steady_clock;

    void HandOnOfProcess(proc_event& event);
    void FollowHeldProcesses();
    void CountDrops(bool overflow);

    const int fd_;
    const std::uint32_t kinds_;
    const bool processesOnly_;
    const Handler handler_;
    DatagramBatch batch_;
    DropCounter drops_;
    LeaderExits leaderExits_;
    Losses losses_;
    Steady::time_point lookedAtExits_;
    Steady::time_point giveUpAt_ = Steady::time_point::max();  // events that are read later count as lost
};

}  // namespace NEUtils
