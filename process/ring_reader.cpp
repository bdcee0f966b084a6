#include "process/ring_reader.h"

#include <bpf/libbpf.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <string_view>

#include "byte_buffer.h"
#include "process/trace_programs.h"
#include "process/trace_state.h"
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

void RingReader::RequestStop()
{
    running_ = false;
    eventfd_write(stop_.Get(), 1);
}

void RingReader::Run(RingSink& sink)
{
    sink_ = &sink;
    bool idle = false;
    while (running_) {
        const bool found = ReadRing();
        sink.EndRound(!found);
        // A program looks at how the reader waits before its record is in the ring. So the reader still comes round
        // once at the usual time after it has asked to be woken up.
        const int timeout = found || !idle ? std::max(wakeMs_, 1) : kIdleWaitMs;
        idle = !found;
        if (leftInRound_ <= 0) {
            continue;
        }
        Wait(idle ? TRACE_IDLE : TRACE_RESTING, wakeMs_ == 0 ? kIdleWaitMs : timeout);
    }
}

void RingReader::Wait(std::uint32_t waiting, int timeoutMs)
{
    epoll_event event;
    __atomic_store_n(&state_->waiting, waiting, __ATOMIC_SEQ_CST);
    epoll_wait(epoll_.Get(), &event, 1, timeoutMs);
    __atomic_store_n(&state_->waiting, TRACE_READING, __ATOMIC_RELAXED);
}

// True if there was anything.
bool RingReader::ReadRing()
{
    wallOffsetNs_ = NsOf(CLOCK_REALTIME) - NsOf(CLOCK_BOOTTIME);
    leftInRound_ = kMaxRound;
    return ring_buffer__consume(ring_) != 0;
}

int RingReader::OnRecord(void* self, void* data, std::size_t length)
{
    auto& reader = *static_cast<RingReader*>(self);
    reader.sink_->TakeRecord(data, length);
    return reader.running_ && --reader.leftInRound_ > 0 ? 0 : kStopReading;
}

std::uint64_t RingReader::CountRecursionMisses(const bpf_program* program)
{
    constexpr std::string_view kKey = "recursion_misses:";
    ByteBuffer content;
    if (!FileOperation::ReadAllNosize("/proc/self/fdinfo/" + std::to_string(bpf_program__fd(program)), content)) {
        return 0;
    }
    const std::string text = content.ToString();
    const std::size_t at = text.find(kKey);
    return at == std::string::npos ? 0 : std::strtoull(text.c_str() + at + kKey.size(), nullptr, 10);
}

}  // namespace NEUtils
