#include "process/trace_ring.h"

#include <bpf/libbpf.h>

#include <atomic>

#include "process/container_names.h"
#include "process/proc_directory.h"
#include "process/ring_reader.h"
#include "process/trace_decoder.h"
#include "process/trace_layout.h"
#include "process/trace_programs.h"
#include "process/trace_state.h"

// Made from the programs, with types of the layout.
#include <process_trace.skel.h>

namespace NEUtils {

namespace {

TracerCounts::Kinds LoadKinds(const __u64 (&counters)[TRACE_KINDS])
{
    return {RingReader::Load(counters[TRACE_FORK]), RingReader::Load(counters[TRACE_EXEC]),
            RingReader::Load(counters[TRACE_EXIT]), 0};
}

class TraceRing : public TraceSource, private RingSink {
public:
    explicit TraceRing(const TracerSettings& settings) : reader_(settings.ringSize, settings.wakeMs) {}

    bool Open(std::string& reason) override
    {
        return programs_.Load(
                   reader_.GetRingSize(), reader_.GetWakeSize(), [](process_trace&) {}, reason) &&
               reader_.Open(bpf_map__fd(programs_->maps.ring), programs_->bss->state, reason);
    }
    void Run(RecordSink& sink) override
    {
        sink_ = &sink;
        reader_.Run(*this);
    }
    void RequestStop(bool toEnd) override { reader_.RequestStop(toEnd); }
    TracerCounts GetCounts() const override;

private:
    void TakeRecord(const void* data, std::size_t length) override;
    void EndRound(bool isQuiet) override;
    void Complete(ProcessRecord& record);

    TracePrograms<process_trace> programs_;
    RingReader reader_;
    std::atomic<std::uint64_t> received_[TRACE_KINDS] = {};
    std::atomic<std::uint64_t> malformed_{0};

    // Of the tracer's thread alone:
    RecordSink* sink_ = nullptr;
    ProcessRecord record_;
    ContainerNames containers_;
    std::uint32_t hostMountNs_ = HostMountNs();
    std::uint64_t seenLosses_ = 0;
};

void TraceRing::TakeRecord(const void* data, std::size_t length)
{
    if (!DecodeTraceRecord(data, length, reader_.GetWallOffsetNs(), record_)) {
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

void TraceRing::EndRound(bool isQuiet)
{
    const std::uint64_t losses = LoadKinds(programs_->bss->state.lost).Total() + reader_.GetFailureCount();
    if (losses != seenLosses_) {
        seenLosses_ = losses;
        sink_->PutLoss();
    }
    sink_->Rest(isQuiet);
}

TracerCounts TraceRing::GetCounts() const
{
    TracerCounts counts;
    counts.seen = LoadKinds(programs_->bss->state.seen);
    counts.lost = LoadKinds(programs_->bss->state.lost);
    counts.received = {received_[TRACE_FORK], received_[TRACE_EXEC], received_[TRACE_EXIT], 0};
    if (reader_.WasCutShort()) {
        counts.lost = {counts.seen.forks - counts.received.forks, counts.seen.execs - counts.received.execs,
                       counts.seen.exits - counts.received.exits, 0};
    }
    counts.malformed = malformed_ + reader_.GetFailureCount();
    for (const bpf_program* program :
         {programs_->progs.trace_exec, programs_->progs.trace_fork, programs_->progs.trace_exit}) {
        counts.recursionMisses += RingReader::CountRecursionMisses(program);
    }
    return counts;
}

}  // namespace

std::unique_ptr<TraceSource> MakeTraceRing(const TracerSettings& settings)
{
    return std::make_unique<TraceRing>(settings);
}

}  // namespace NEUtils
