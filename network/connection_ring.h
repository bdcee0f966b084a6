#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

#include "connection_record.h"
#include "network/connection_decoder.h"
#include "network/network_layout.h"
#include "network/pending_connects.h"
#include "process/ring_reader.h"
#include "process/trace_programs.h"
#include "util/rate_limiter.h"

struct network_trace;

namespace NEUtils {

// Loads the trace program of the network into the kernel, reads its ring and makes records of what is in it.
//
// Threads  Open by the owner; Run on the tracer's thread until RequestStop, which any may call; GetCounts by any.
class ConnectionRing : private RingSink {
public:
    using Callback = PendingConnects::Callback;
    using LossCallback = std::function<void(const ConnectionCounts::Kinds&)>;

    // Neither callback may throw.
    ConnectionRing(const ConnectionSettings& settings, Callback callback, LossCallback onLoss);
    ~ConnectionRing() override;

    // False with the reason.
    bool Open(std::string& reason);
    void Run() { reader_.Run(*this); }
    void RequestStop(bool toEnd) { reader_.RequestStop(toEnd); }
    void TellPending() { pending_.ExpireAll(); }  // by the thread of Run
    ConnectionCounts GetCounts() const;
    long long GetBeatAgeMs() const { return reader_.GetBeatAgeMs(); }

private:
    void TakeRecord(const void* data, std::size_t length) override;
    void EndRound(bool isQuiet) override;

    const ConnectionSettings settings_;
    const Callback callback_;
    const LossCallback onLoss_;
    TracePrograms<network_trace> programs_;
    RingReader reader_;
    std::atomic<std::uint64_t> received_[CONNECTION_KINDS] = {};
    std::atomic<std::uint64_t> malformed_{0};

    const std::uint32_t hostNetNs_;

    // Of the tracer's thread alone:
    ConnectionEvent event_;
    PendingConnects pending_;
    std::uint64_t toldLosses_ = 0;
    RateLimiter lossRecords_{1000};
};

}  // namespace NEUtils
