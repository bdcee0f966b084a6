#include "network/connection_ring.h"

#include <sys/stat.h>

#include <ctime>
#include <initializer_list>
#include <utility>

#include "process/trace_state.h"
#include "util/clock.h"

// Made from the program, with types of the layout.
#include <network_trace.skel.h>

namespace NEUtils {

namespace {

static_assert(static_cast<int>(CONNECTION_KINDS) <= static_cast<int>(TRACE_KINDS));

std::uint32_t WantedKinds(const ConnectionSettings& settings)
{
    const auto bits = [](bool isWanted, std::initializer_list<connection_kind> kinds) {
        std::uint32_t mask = 0;
        for (const connection_kind kind : kinds) {
            mask |= isWanted ? 1U << kind : 0;
        }
        return mask;
    };
    return bits(settings.connects, {CONNECTION_ATTEMPT, CONNECTION_OPENED, CONNECTION_FAILED}) |
           bits(settings.accepts, {CONNECTION_ACCEPTED}) |
           bits(settings.listens, {CONNECTION_LISTEN, CONNECTION_LISTEN_END});
}

// Numbers of each kind as those of a caller.
template <typename Get>
ConnectionCounts::Kinds ToKinds(const Get& get)
{
    return {get(CONNECTION_ATTEMPT), get(CONNECTION_OPENED) + get(CONNECTION_FAILED), get(CONNECTION_ACCEPTED),
            get(CONNECTION_LISTEN) + get(CONNECTION_LISTEN_END)};
}

std::uint32_t HostNetNs()
{
    struct stat space = {};
    const bool known = stat("/proc/1/ns/net", &space) == 0 || stat("/proc/self/ns/net", &space) == 0;
    return known ? static_cast<std::uint32_t>(space.st_ino) : 0;
}

std::uint64_t BootNs()
{
    timespec now = {};
    clock_gettime(CLOCK_BOOTTIME, &now);
    return static_cast<std::uint64_t>(std::int64_t{now.tv_sec} * Clock::kNsPerSecond + now.tv_nsec);
}

}  // namespace

ConnectionRing::ConnectionRing(const ConnectionSettings& settings, Callback callback, LossCallback onLoss)
    : settings_(settings),
      callback_(std::move(callback)),
      onLoss_(std::move(onLoss)),
      reader_(settings.ringSize, settings.wakeMs),
      hostNetNs_(HostNetNs()),
      pending_(callback_)
{
}

ConnectionRing::~ConnectionRing() = default;

bool ConnectionRing::Open(std::string& reason)
{
    const auto prepare = [this](network_trace& programs) { programs.rodata->wanted = WantedKinds(settings_); };
    return programs_.Load(reader_.GetRingSize(), reader_.GetWakeSize(), prepare, reason) &&
           reader_.Open(bpf_map__fd(programs_->maps.ring), programs_->bss->state, reason);
}

void ConnectionRing::TakeRecord(const void* data, std::size_t length)
{
    if (!DecodeConnection(data, length, reader_.GetWallOffsetNs(), event_)) {
        ++malformed_;
        return;
    }
    received_[event_.kind].fetch_add(1, std::memory_order_relaxed);
    event_.record.foreignNetNs = event_.record.netNs != hostNetNs_;
    switch (event_.kind) {
    case CONNECTION_ATTEMPT:
        pending_.Begin(event_.socket, event_.record);
        break;
    case CONNECTION_OPENED:
    case CONNECTION_FAILED:
        pending_.End(event_.socket, event_.record);
        break;
    default:
        callback_(event_.record);
    }
}

void ConnectionRing::EndRound(bool)
{
    pending_.Expire(BootNs());
    const ConnectionCounts::Kinds lost =
        ToKinds([this](connection_kind kind) { return RingReader::Load(programs_->bss->state.lost[kind]); });
    if (lost.Total() != toldLosses_ && lossRecords_.Allow(Clock::MonotonicNs() / Clock::kNsPerMs)) {
        toldLosses_ = lost.Total();
        onLoss_(lost);
    }
}

ConnectionCounts ConnectionRing::GetCounts() const
{
    const trace_state& state = programs_->bss->state;
    ConnectionCounts counts;
    counts.seen = ToKinds([&](connection_kind kind) { return RingReader::Load(state.seen[kind]); });
    counts.lost = ToKinds([&](connection_kind kind) { return RingReader::Load(state.lost[kind]); });
    counts.received = ToKinds([this](connection_kind kind) { return received_[kind].load(); });
    if (reader_.WasCutShort()) {
        counts.lost = {counts.seen.connects - counts.received.connects, counts.seen.results - counts.received.results,
                       counts.seen.accepts - counts.received.accepts, counts.seen.listens - counts.received.listens};
    }
    counts.malformed = malformed_ + reader_.GetFailureCount();
    counts.recursionMisses = RingReader::CountRecursionMisses(programs_->progs.trace_state_change);
    return counts;
}

}  // namespace NEUtils
