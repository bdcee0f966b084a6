#include "connection_tracer.h"

#include <atomic>
#include <mutex>
#include <utility>

#include "logger.h"
#include "network/connection_ring.h"
#include "process/tracer_thread.h"

namespace NEUtils {

namespace {

constexpr char kName[] = "network tracer";

}  // namespace

// One tracer's work: the ring, its thread and the callbacks.
class ConnectionTracer::Session {
public:
    ~Session() { Join(); }

    bool Start(const Settings& settings, Callback callback, LossCallback onLoss);
    void Stop();
    bool IsRunning() const { return running_; }
    Counts GetCounts() const;
    long long GetBeatAgeMs() const;

private:
    bool OpenRing(const Settings& settings);
    void Run();
    void Put(const ConnectionRecord& record);
    void PutLoss(const Counts::Kinds& lost);
    bool Join();
    std::shared_ptr<ConnectionRing> GetRing() const;

    std::atomic<bool> running_{false};
    std::atomic<bool> muted_{false};  // stopped from a callback: there may be none any more
    TracerThread thread_;
    Callback callback_;
    LossCallback onLoss_;

    mutable std::mutex mutex_;
    std::shared_ptr<ConnectionRing> ring_;
    Counts lastCounts_;  // of a ring that is gone
};

bool ConnectionTracer::Session::Start(const Settings& settings, Callback callback, LossCallback onLoss)
{
    if (running_) {
        NE_LOG(WARN, "The network tracer is running.");
        return false;
    }
    if (callback == nullptr) {
        NE_LOG(ERROR, "The callback is null.");
        return false;
    }
    if (!Join()) {
        return false;
    }
    callback_ = std::move(callback);
    onLoss_ = std::move(onLoss);
    muted_ = false;
    if (!OpenRing(settings)) {
        return false;
    }
    running_ = true;
    if (!thread_.Start("network-tracer", [this] { Run(); })) {
        Join();
        return false;
    }
    NE_LOG(INFO, "The network tracer started.");
    return true;
}

bool ConnectionTracer::Session::OpenRing(const Settings& settings)
{
    auto ring = std::make_shared<ConnectionRing>(
        settings, [this](const ConnectionRecord& record) { Put(record); },
        [this](const Counts::Kinds& lost) { PutLoss(lost); });
    std::string reason;
    if (!ring->Open(reason)) {
        NE_LOG(ERROR, "Fail to start the network tracer.[reason=%s]", reason.c_str());
        return false;
    }
    const std::lock_guard<std::mutex> lock(mutex_);
    ring_ = std::move(ring);
    lastCounts_ = {};
    return true;
}

void ConnectionTracer::Session::Run()
{
    ring_->Run();  // nobody changes it before this thread is joined
    ring_->TellPending();
}

void ConnectionTracer::Session::Put(const ConnectionRecord& record)
{
    if (!muted_) {
        CallOwner(kName, [&] { callback_(record); });
    }
}

void ConnectionTracer::Session::PutLoss(const Counts::Kinds& lost)
{
    NE_LOG(WARN, "Connections were lost.[connects=%llu results=%llu accepts=%llu listens=%llu]",
           static_cast<unsigned long long>(lost.connects), static_cast<unsigned long long>(lost.results),
           static_cast<unsigned long long>(lost.accepts), static_cast<unsigned long long>(lost.listens));
    if (onLoss_ != nullptr && !muted_) {
        CallOwner(kName, [&] { onLoss_(lost); });
    }
}

void ConnectionTracer::Session::Stop()
{
    if (thread_.IsOwn()) {
        muted_ = true;
    }
    if (!running_.exchange(false)) {
        NE_LOG(WARN, "The network tracer has stopped.");
    } else {
        ring_->RequestStop(!thread_.IsOwn());
        NE_LOG(INFO, "The network tracer stops.");
    }
    if (!thread_.IsOwn()) {
        Join();
    }
}

// True once neither thread nor ring is left.
bool ConnectionTracer::Session::Join()
{
    if (thread_.IsOwn()) {
        NE_LOG(ERROR, "The network tracer cannot wait for its own thread.");
        return false;
    }
    if (running_.exchange(false)) {
        ring_->RequestStop(true);
    }
    thread_.Join();
    const Counts counts = GetCounts();
    std::shared_ptr<ConnectionRing> ring;
    const std::lock_guard<std::mutex> lock(mutex_);
    lastCounts_ = counts;
    ring.swap(ring_);
    return true;
}

ConnectionCounts ConnectionTracer::Session::GetCounts() const
{
    if (const auto ring = GetRing(); ring != nullptr) {
        return ring->GetCounts();
    }
    const std::lock_guard<std::mutex> lock(mutex_);
    return lastCounts_;
}

long long ConnectionTracer::Session::GetBeatAgeMs() const
{
    const auto ring = running_ ? GetRing() : nullptr;
    return ring == nullptr ? -1 : ring->GetBeatAgeMs();
}

std::shared_ptr<ConnectionRing> ConnectionTracer::Session::GetRing() const
{
    const std::lock_guard<std::mutex> lock(mutex_);
    return ring_;
}

ConnectionTracer::ConnectionTracer() : session_(std::make_unique<Session>()) {}
ConnectionTracer::~ConnectionTracer() = default;

bool ConnectionTracer::Start(const Settings& settings, Callback callback, LossCallback onLoss)
{
    return session_->Start(settings, std::move(callback), std::move(onLoss));
}

void ConnectionTracer::Stop()
{
    session_->Stop();
}

bool ConnectionTracer::IsRunning() const
{
    return session_->IsRunning();
}

ConnectionTracer::Counts ConnectionTracer::GetCounts() const
{
    return session_->GetCounts();
}

long long ConnectionTracer::GetBeatAgeMs() const
{
    return session_->GetBeatAgeMs();
}

}  // namespace NEUtils
