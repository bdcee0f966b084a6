#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

namespace NEUtils {

// An IPv4 or IPv6 address. One of IPv4 that stands within an IPv6 address (::ffff:10.0.0.1) is an IPv4 address here:
// it is one on the wire.
struct NetworkAddress {
    int family = 0;                        // AF_INET or AF_INET6; 0: none
    std::array<std::uint8_t, 16> bytes{};  // of IPv4 the first four

    bool operator==(const NetworkAddress& other) const { return family == other.family && bytes == other.bytes; }
};

// What a TCP socket began or ended.
//
// Units    times in nanoseconds, ports as numbers of the host.
// Source   the process is the one that acted: its id and start time name it for good. comm is its own choice.
struct ConnectionRecord {
    enum Kind : std::uint8_t {
        kConnect = 1,   // a process connects; result says what came of it
        kAccept = 2,    // a listening socket has a new connection, which no process has taken yet
        kListen = 3,    // a process begins to listen; localPort is 0 where it leaves the choice to the kernel
        kListenEnd = 4  // the last process that had the listening socket has closed it, or has ended
    };
    enum Result : std::uint8_t { kPending = 0, kOpened = 1, kFailed = 2 };  // of kConnect; kPending: not yet known

    Kind kind = kConnect;
    Result result = kPending;
    int error = 0;  // of kFailed: an errno, 0 if the process gave up itself

    std::int64_t wallNs = 0;       // when it happened, by the wall clock; of kConnect, when the process connected
    std::uint64_t bootNs = 0;      // and since the boot, sleep included
    std::uint64_t durationNs = 0;  // of kConnect, until the result

    int pid = 0;                // 0: unknown, always of kAccept
    int tid = 0;                // the thread
    std::uint64_t startNs = 0;  // of the process, since the boot
    std::uint32_t uid = 0;      // real user; 0 without a process
    std::string comm;           // at most 15 bytes
    // The name of the executable's file, at most 63 bytes; empty for a kernel thread, and where the end of a process
    // closes a listener.
    std::string program;

    NetworkAddress local;
    NetworkAddress remote;         // of a listener all zero
    std::uint16_t localPort = 0;   // 0: unknown, of a kPending one
    std::uint16_t remotePort = 0;  // of a listener 0
    bool onIpv6Socket = false;     // also of IPv4 connections; one that listens at :: may take both

    std::uint32_t netNs = 0;    // number of the network namespace
    bool foreignNetNs = false;  // not the one of the host's first process
};

// Which connections a tracer asks the kernel for, and how it reads.
struct ConnectionSettings {
    bool connects = true;
    bool accepts = true;
    bool listens = true;                          // begun and ended
    std::size_t ringSize = std::size_t{1} << 20;  // bytes; taken up to a power of two, 64 KiB to 1 GiB
    // The ring is read when a quarter of it is full, otherwise this long after the last time; 0: each record at once.
    int wakeMs = 20;
};

// What came since the last start.
struct ConnectionCounts {
    struct Kinds {
        std::uint64_t connects = 0;  // attempts
        std::uint64_t results = 0;   // of those, or of attempts from before the start
        std::uint64_t accepts = 0;
        std::uint64_t listens = 0;  // begun and ended
        std::uint64_t Total() const { return connects + results + accepts + listens; }
    };
    Kinds seen;                         // by the program in the kernel
    Kinds received;                     // by the tracer
    Kinds lost;                         // for want of room: seen = received + lost, once everything is read
    std::uint64_t malformed = 0;        // that could not be understood
    std::uint64_t recursionMisses = 0;  // changes of state that came while the program was running
};

}  // namespace NEUtils
