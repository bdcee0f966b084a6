#include "process/trace_ring.h"

#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>

#include "process/container_names.h"
#include "process/libbpf_messages.h"
#include "process/proc_directory.h"
#include "process/trace_decoder.h"
#include "process/trace_layout.h"
#include "util/clock.h"
#include "util/errno_text.h"
#include "util/file.h"
#include "util/unique_fd.h"

// Made from the programs, with types of the layout.
#include <process_trace.skel.h>

namespace NEUtils {

namespace {

constexpr std::size_t kMinRing = std::size_t{64} << 10;
constexpr std::size_t kMaxRing = std::size_t{1} << 30;
constexpr int kMaxRound = 10000;   // records
constexpr int kIdleWaitMs = 1000;  // should a wake-up have been missed
constexpr int kStopReading = -ECANCELED;
constexpr std::uint32_t kHostPidNs = 0xEFFFFFFCU;  // fixed in the kernel

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

std::uint32_t HostMountNs()
{
    struct stat space = {};
    const bool known = stat("/proc/1/ns/mnt", &space) == 0 || stat("/proc/self/ns/mnt", &space) == 0;
    return known ? static_cast<std::uint32_t>(space.st_ino) : 0;
}

// Shared with the kernel's programs, so every access is one of the processor's.
std::uint64_t Load(const __u64& counter)
{
    return __atomic_load_n(&counter, __ATOMIC_RELAXED);
}

TracerCounts::Kinds LoadKinds(const __u64 (&counters)[TRACE_KINDS])
{
    return {Load(counters[TRACE_FORK]), Load(counters[TRACE_EXEC]), Load(counters[TRACE_EXIT]), 0};
}

// The kernel tells this even without the right to ask bpf().
std::uint64_t RecursionMisses(int program)
{
    constexpr std::string_view kKey = "recursion_misses:";
    ByteBuffer content;
    if (!FileOperation::ReadAllNosize("/proc/self/fdinfo/" + std::to_string(program), content)) {
        return 0;
    }
    const std::string text = content.ToString();
    const std::size_t at = text.find(kKey);
    return at == std::string::npos ? 0 : std::strtoull(text.c_str() + at + kKey.size(), nullptr, 10);
}

class TraceRing : public TraceSource {
public:
    explicit TraceRing(const TracerSettings& settings)
        : ringSize_(ToRingSize(settings.ringSize)), wakeMs_(std::clamp(settings.wakeMs, 0, kIdleWaitMs))
    {
    }
    ~TraceRing() override
    {
        ring_buffer__free(ring_);
        process_trace__destroy(programs_);
    }

    bool Open(std::string& reason) override;
    void Run(RecordSink& sink) override;
    void RequestStop() override;
    TracerCounts GetCounts() const override;

private:
    static int OnRecord(void* self, void* data, std::size_t length);

    bool LoadPrograms(std::string& reason);
    bool OpenWait(std::string& reason);
    void Take(const void* data, std::size_t length);
    void Complete(ProcessRecord& record);
    bool ReadRing();
    void Wait(std::uint32_t waiting, int timeoutMs);
    void TellLoss();

    const std::size_t ringSize_;
    const int wakeMs_;
    process_trace* programs_ = nullptr;
    ring_buffer* ring_ = nullptr;
    UniqueFd stop_;
    UniqueFd epoll_;
    std::atomic<bool> running_{true};
    std::atomic<std::uint64_t> received_[TRACE_KINDS] = {};
    std::atomic<std::uint64_t> malformed_{0};

    // Of the tracer's thread alone:
    RecordSink* sink_ = nullptr;
    ProcessRecord record_;
    ContainerNames containers_;
    std::uint32_t hostMountNs_ = HostMountNs();
    std::int64_t wallOffsetNs_ = 0;
    std::uint64_t toldLosses_ = 0;
    int leftInRound_ = 0;
};

bool TraceRing::Open(std::string& reason)
{
    return LoadPrograms(reason) && OpenWait(reason);
}

bool TraceRing::LoadPrograms(std::string& reason)
{
    LibbpfMessages messages;
    programs_ = process_trace__open();
    int error = programs_ == nullptr ? -errno : 0;
    const char* step = "open";
    if (error == 0) {
        programs_->rodata->wake_size = wakeMs_ == 0 ? 0 : ringSize_ / 4;
        step = "load";
        error = bpf_map__set_max_entries(programs_->maps.ring, static_cast<__u32>(ringSize_));
    }
    if (error == 0) {
        error = process_trace__load(programs_);
    }
    if (error == 0) {
        step = "attach";
        error = process_trace__attach(programs_);
    }
    if (error == 0) {
        step = "map the ring of";
        ring_ = ring_buffer__new(bpf_map__fd(programs_->maps.ring), &TraceRing::OnRecord, this, nullptr);
        error = ring_ == nullptr ? -errno : 0;
    }
    if (error != 0) {
        reason = std::string("cannot ") + step + " the trace programs: " + ErrnoText(-error).Get();
        reason += messages.GetFirst().empty() ? "" : " (" + messages.GetFirst() + ")";
    }
    return error == 0;
}

// Edge-triggered: otherwise whatever lies in the ring would end the wait, also what nobody shall be woken for.
bool TraceRing::OpenWait(std::string& reason)
{
    stop_.Reset(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    epoll_.Reset(epoll_create1(EPOLL_CLOEXEC));
    epoll_event ring = {};
    ring.events = EPOLLIN | EPOLLET;
    epoll_event stop = {};
    stop.events = EPOLLIN;
    if (!stop_.IsValid() || !epoll_.IsValid() ||
        epoll_ctl(epoll_.Get(), EPOLL_CTL_ADD, bpf_map__fd(programs_->maps.ring), &ring) != 0 ||
        epoll_ctl(epoll_.Get(), EPOLL_CTL_ADD, stop_.Get(), &stop) != 0) {
        reason = std::string("cannot wait for the ring: ") + ErrnoText(errno).Get();
        return false;
    }
    return true;
}

void TraceRing::RequestStop()
{
    running_ = false;
    eventfd_write(stop_.Get(), 1);
}

void TraceRing::Run(RecordSink& sink)
{
    sink_ = &sink;
    bool idle = false;
    while (running_) {
        const bool found = ReadRing();
        TellLoss();
        sink.Rest(!found);
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

void TraceRing::Wait(std::uint32_t waiting, int timeoutMs)
{
    epoll_event event;
    __atomic_store_n(&programs_->bss->state.waiting, waiting, __ATOMIC_SEQ_CST);
    epoll_wait(epoll_.Get(), &event, 1, timeoutMs);
    __atomic_store_n(&programs_->bss->state.waiting, TRACE_READING, __ATOMIC_RELAXED);
}

// True if there was anything.
bool TraceRing::ReadRing()
{
    wallOffsetNs_ = NsOf(CLOCK_REALTIME) - NsOf(CLOCK_BOOTTIME);
    leftInRound_ = kMaxRound;
    return ring_buffer__consume(ring_) != 0;
}

int TraceRing::OnRecord(void* self, void* data, std::size_t length)
{
    auto& ring = *static_cast<TraceRing*>(self);
    ring.Take(data, length);
    return ring.running_ && --ring.leftInRound_ > 0 ? 0 : kStopReading;
}

void TraceRing::Take(const void* data, std::size_t length)
{
    if (!DecodeTraceRecord(data, length, wallOffsetNs_, record_)) {
        ++malformed_;
        return;
    }
    received_[record_.kind].fetch_add(1, std::memory_order_relaxed);
    Complete(record_);
    sink_->Put(record_);
}

// What the programs leave to be looked up while the process lives.
void TraceRing::Complete(ProcessRecord& record)
{
    record.foreignMountNs = record.mountNs != hostMountNs_;
    record.foreignPidNs = record.pidNs != kHostPidNs;
    if (!containers_.Complete(record)) {
        record.whole = false;
    }
    if (record.kind == ProcessRecord::kExec) {
        ResolvePaths(record);
    }
}

void TraceRing::TellLoss()
{
    const std::uint64_t losses = LoadKinds(programs_->bss->state.lost).Total();
    if (losses != toldLosses_) {
        toldLosses_ = losses;
        sink_->PutLoss();
    }
}

TracerCounts TraceRing::GetCounts() const
{
    TracerCounts counts;
    counts.seen = LoadKinds(programs_->bss->state.seen);
    counts.lost = LoadKinds(programs_->bss->state.lost);
    counts.received = {received_[TRACE_FORK], received_[TRACE_EXEC], received_[TRACE_EXIT], 0};
    counts.malformed = malformed_;
    for (const bpf_program* program :
         {programs_->progs.trace_exec, programs_->progs.trace_fork, programs_->progs.trace_exit}) {
        counts.recursionMisses += RecursionMisses(bpf_program__fd(program));
    }
    return counts;
}

}  // namespace

std::unique_ptr<TraceSource> MakeTraceRing(const TracerSettings& settings)
{
    return std::make_unique<TraceRing>(settings);
}

}  // namespace NEUtils
