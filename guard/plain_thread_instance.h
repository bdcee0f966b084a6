#pragma once

#include <atomic>
#include <cstdint>
#include <string>

#include "hips_thread_instance.h"
#include "util/call_gate.h"

namespace NEUtils {

// A thread that the guard neither makes nor stops, only watches: a function tells when it last came round.
//
// Locks  the instance manager's mutex is held while DoHeartBeat calls the function, so it must not call the guard.
class PlainThreadInstance final : public HipsBaseInstance {
public:
    using BeatAge = long long (*)(void* arg);

    PlainThreadInstance(const std::string& name, BeatAge beatAgeMs, void* arg);

    bool Start(HipsResourceManager*) override { return true; }
    bool Stop() override;  // afterwards the function is not called any more
    bool IsRunning() override { return GetBeatAgeMs() >= 0; }
    unsigned int DoHeartBeat() override;
    long GetId() const override { return id_; }
    std::int64_t GetBeatAgeMs() const override;  // -1: there is no thread

private:
    const BeatAge beatAgeMs_;
    void* const arg_;
    const long id_;
    std::atomic<std::int64_t> lastCheckNs_;
    mutable CallGate gate_;
};

}  // namespace NEUtils
