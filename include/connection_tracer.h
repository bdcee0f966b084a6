#pragma once

#include <functional>
#include <memory>
#include <string>

#include "connection_record.h"
#include "neutils_api.h"

namespace NEUtils {

// Hands a record to its owner about every TCP connection that a process opens or tries to, every one that a listening
// socket accepts, and every begin and end of listening, in all network namespaces of the host.
//
// One record a connect, with its result. An attempt without a result after a second is handed over as pending, and
// again once the result is known. An accepted connection has no process: the kernel completes it while whatever
// process happens to run. Nothing says that a connection has ended.
//
// Source   a trace program in the kernel: Linux 5.8 with BTF, CAP_BPF and CAP_PERFMON. There is no other source.
//          Only TCP: the kernel tells the states of no UDP or raw socket. A connection of MPTCP shows as its TCP flows.
//          Those that there are at the start are not told; of a listener among them the end is.
// Threads  callbacks run on the tracer's thread, "network-tracer", one at a time. Start, Stop and the destructor
//          belong to one owner, everything else may be called by any. A callback may stop the tracer, but neither start
//          nor destroy it.
// Locks    none is held while a callback runs.
// Blocks   Stop waits for one callback, and for those about attempts that are not told yet.
// Limits   16,384 attempts without a result; of the oldest beyond, the result is told without the process.
// Errors   logged. What did not reach the reader is counted, never silent.
class NEUTILS_API ConnectionTracer {
public:
    using Settings = ConnectionSettings;
    using Counts = ConnectionCounts;
    using Callback = std::function<void(const ConnectionRecord&)>;
    // Called after records have been lost, with all that were so far.
    using LossCallback = std::function<void(const Counts::Kinds& lost)>;

    ConnectionTracer();
    ~ConnectionTracer();  // stops it if it runs
    ConnectionTracer(const ConnectionTracer&) = delete;
    ConnectionTracer& operator=(const ConnectionTracer&) = delete;

    // False, with the reason logged, if the program cannot be had; then nothing runs. Rights may be dropped once it has
    // returned true, and everything that happens from then on is told.
    [[nodiscard]] bool Start(const Settings& settings, Callback callback, LossCallback onLoss = nullptr);
    // No callback runs afterwards, but the one that it is called from.
    void Stop();

    bool IsRunning() const;
    Counts GetCounts() const;
    long long GetBeatAgeMs() const;  // how long ago its thread came round; -1 while there is none

    static std::string GetAddressText(const NetworkAddress& address);  // as in 10.0.0.1 or fe80::1; empty without one

private:
    class Session;

    std::unique_ptr<Session> session_;
};

}  // namespace NEUtils
