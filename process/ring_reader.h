#pragma once

#include <linux/types.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <string>

#include "util/unique_fd.h"

struct bpf_program;
struct ring_buffer;
struct trace_state;

namespace NEUtils {

// Takes what a ring reader reads.
class RingSink {
public:
    virtual ~RingSink() = default;

    virtual void TakeRecord(const void* data, std::size_t length) = 0;
    virtual void EndRound(bool isQuiet) = 0;  // isQuiet: nothing came in this one
};

// Reads the ring of a set of trace programs: when a quarter of it is full, otherwise some time after the last time.
//
// Threads  Open by the owner; Run on the tracer's thread until RequestStop, which any may call.
class RingReader {
public:
    // A ring of at least so many bytes: a power of two, 64 KiB to 1 GiB. wakeMs 0: each record is read at once.
    RingReader(std::size_t ringSize, int wakeMs);
    ~RingReader();
    RingReader(const RingReader&) = delete;
    RingReader& operator=(const RingReader&) = delete;

    std::size_t GetRingSize() const { return ringSize_; }
    std::size_t GetWakeSize() const { return wakeMs_ == 0 ? 0 : ringSize_ / 4; }  // for the programs

    // With the descriptor of the ring, and the memory that the programs share. False with the reason.
    bool Open(int ring, trace_state& state, std::string& reason);
    void Run(RingSink& sink);
    // With toEnd, what is in the ring by then is still read, for half a second at most.
    void RequestStop(bool toEnd = false);
    bool WasCutShort() const { return wasCutShort_; }  // more was there; once Run has returned

    // From the time since the boot to the wall clock's, as of the round under way. For the thread of Run.
    std::int64_t GetWallOffsetNs() const { return wallOffsetNs_; }

    // How often the sink had no memory for a record, or for the end of a round.
    std::uint64_t GetFailureCount() const { return failures_; }
    // How long ago Run last came round; -1 before it has. For any thread.
    long long GetBeatAgeMs() const;

    // A counter that the programs change at the same time.
    static std::uint64_t Load(const __u64& counter) { return __atomic_load_n(&counter, __ATOMIC_RELAXED); }
    // How often the kernel did not run a program, since it was running already. Needs no rights, but /proc/self: 0
    // where the process may not read that.
    static std::uint64_t CountRecursionMisses(const bpf_program* program);

private:
    static int OnRecord(void* self, void* data, std::size_t length);

    bool ReadRound();
    bool ReadRing();
    void ReadRest();
    void Wait(std::uint32_t waiting, int timeoutMs);

    const std::size_t ringSize_;
    const int wakeMs_;
    trace_state* state_ = nullptr;
    ring_buffer* ring_ = nullptr;
    UniqueFd stop_;
    UniqueFd epoll_;
    std::atomic<bool> running_{true};
    std::atomic<std::uint64_t> failures_{0};
    std::atomic<bool> readsRest_{false};
    std::atomic<bool> wasCutShort_{false};
    std::atomic<std::int64_t> beatNs_{-1};

    // Of the thread of Run alone:
    RingSink* sink_ = nullptr;
    std::int64_t wallOffsetNs_ = 0;
    int leftInRound_ = 0;
    std::exception_ptr failure_;
    std::int64_t restEndNs_ = 0;
};

}  // namespace NEUtils
