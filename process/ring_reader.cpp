#include "process/ring_reader.h"

#include <bpf/libbpf.h>
#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "process/trace_programs.h"
#include "process/trace_state.h"
#include "process/tracer_thread.h"
#include "util/bounded.h"
#include "util/clock.h"
#include "util/errno_text.h"
#include "util/file.h"

namespace NEUtils {

namespace {

constexpr std::size_t kMinRing = std::size_t{64} << 10;
constexpr std::size_t kMaxRing = std::size_t{1} << 30;
constexpr int kMaxRound = 10000;   // records
constexpr int kIdleWaitMs = 1000;  // should a wake-up have been missed
constexpr int kStopReading = -ECANCELED;
constexpr std::int64_t kRestNs = Clock::kNsPerSecond / 2;

std::size_t ToRingSize(std::size_t wanted)
{
    std::size_t size = kMinRing;
    while (size < wanted && size < kMaxRing) {
        size *= 2;
    }
    return size;
}

std::int64_t NsOf(clockid_t clock)
{
    timespec now = {};
    clock_gettime(clock, &now);
    return std::int64_t{now.tv_sec} * Clock::kNsPerSecond + now.tv_nsec;
}

}  // namespace

std::string LoadFault(const char* step, int error, const LibbpfMessages& messages)
{
    const std::string detail = messages.GetFirst().empty() ? "" : " (" + messages.GetFirst() + ")";
    return std::string("cannot ") + step + " the trace programs: " + ErrnoText(-error).Get() + detail;
}

RingReader::RingReader(std::size_t ringSize, int wakeMs)
    : ringSize_(ToRingSize(ringSize)), wakeMs_(std::clamp(wakeMs, 0, kIdleWaitMs))
{
}

RingReader::~RingReader()
{
    ring_buffer__free(ring_);
}

// Edge-triggered: otherwise whatever lies in the ring would end the wait, also what nobody shall be woken for.
bool RingReader::Open(int ring, trace_state& state, std::string& reason)
{
    state_ = &state;
    const LibbpfMessages messages;
    ring_ = ring_buffer__new(ring, &RingReader::OnRecord, this, nullptr);
    if (ring_ == nullptr) {
        reason = LoadFault("map the ring of", -errno, messages);
        return false;
    }
    stop_.Reset(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    epoll_.Reset(epoll_create1(EPOLL_CLOEXEC));
    epoll_event filled = {};
    filled.events = EPOLLIN | EPOLLET;
    epoll_event stop = {};
    stop.events = EPOLLIN;
    if (!stop_.IsValid() || !epoll_.IsValid() || epoll_ctl(epoll_.Get(), EPOLL_CTL_ADD, ring, &filled) != 0 ||
        epoll_ctl(epoll_.Get(), EPOLL_CTL_ADD, stop_.Get(), &stop) != 0) {
        reason = std::string("cannot wait for the ring: ") + ErrnoText(errno).Get();
        return false;
    }
    return true;
}

void RingReader::RequestStop(bool toEnd)
{
    readsRest_ = toEnd;
    running_ = false;
    eventfd_write(stop_.Get(), 1);
}

void RingReader::Run(RingSink& sink)
{
    sink_ = &sink;
    bool idle = false;
    while (running_) {
        beatNs_ = Clock::MonotonicNs();
        const bool found = ReadRound();
        // A program looks at how the reader waits before its record is in the ring. So the reader still comes round
        // once at the usual time after it has asked to be woken up.
        const int timeout = found || !idle ? std::max(wakeMs_, 1) : kIdleWaitMs;
        idle = !found;
        if (leftInRound_ <= 0) {
            continue;
        }
        Wait(idle ? TRACE_IDLE : TRACE_RESTING, wakeMs_ == 0 ? kIdleWaitMs : timeout);
    }
    if (readsRest_) {
        ReadRest();
    } else {
        wasCutShort_ = true;
    }
}

// The round that a stop has ended may have left something, too.
void RingReader::ReadRest()
{
    restEndNs_ = Clock::MonotonicNs() + kRestNs;
    wallOffsetNs_ = NsOf(CLOCK_REALTIME) - NsOf(CLOCK_BOOTTIME);
    wasCutShort_ = ring_buffer__consume(ring_) == kStopReading;
}

// True if there was anything.
bool RingReader::ReadRound()
{
    try {
        const bool found = ReadRing();
        sink_->EndRound(!found);
        return found;
    } catch (const std::exception& error) {
        ++failures_;
        LogTracerFailure(error);
        return true;
    }
}

long long RingReader::GetBeatAgeMs() const
{
    const std::int64_t beat = beatNs_;
    return beat < 0 ? -1 : (Clock::MonotonicNs() - beat) / Clock::kNsPerMs;
}

void RingReader::Wait(std::uint32_t waiting, int timeoutMs)
{
    epoll_event event;
    __atomic_store_n(&state_->waiting, waiting, __ATOMIC_SEQ_CST);
    epoll_wait(epoll_.Get(), &event, 1, timeoutMs);
    __atomic_store_n(&state_->waiting, TRACE_READING, __ATOMIC_RELAXED);
}

bool RingReader::ReadRing()
{
    wallOffsetNs_ = NsOf(CLOCK_REALTIME) - NsOf(CLOCK_BOOTTIME);
    leftInRound_ = kMaxRound;
    const bool found = ring_buffer__consume(ring_) != 0;
    if (failure_ != nullptr) {
        std::rethrow_exception(std::exchange(failure_, nullptr));
    }
    return found;
}

int RingReader::OnRecord(void* self, void* data, std::size_t length)
{
    auto& reader = *static_cast<RingReader*>(self);
    try {
        reader.sink_->TakeRecord(data, length);
    } catch (...) {  // must not pass through libbpf
        reader.failure_ = std::current_exception();
        return kStopReading;
    }
    if (reader.restEndNs_ != 0) {
        return Clock::MonotonicNs() < reader.restEndNs_ ? 0 : kStopReading;
    }
    return reader.running_ && --reader.leftInRound_ > 0 ? 0 : kStopReading;
}

// Without memory of its own: counts are also asked for where that has run out.
std::uint64_t RingReader::CountRecursionMisses(const bpf_program* program)
{
    constexpr const char* kKey = "recursion_misses:";
    std::array<char, 64> path{};
    std::array<char, 1024> text{};
    snprintf_s(path.data(), path.size(), "/proc/self/fdinfo/%d", bpf_program__fd(program));
    const UniqueFd file(open(path.data(), O_RDONLY | O_CLOEXEC));
    if (!file.IsValid() || FileOperation::Read(file.Get(), text.data(), text.size() - 1) <= 0) {
        return 0;
    }
    const char* const at = std::strstr(text.data(), kKey);
    return at == nullptr ? 0 : std::strtoull(at + std::strlen(kKey), nullptr, 10);
}

}  // namespace NEUtils
