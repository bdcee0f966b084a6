#include "process/exec_reader.h"

#include <poll.h>
#include <pthread.h>
#include <sched.h>
#include <sys/eventfd.h>

#include <algorithm>
#include <chrono>
#include <exception>

#include "logger.h"
#include "process/tracer_thread.h"
#include "util/clock.h"
#include "util/errno_text.h"
#include "util/stop_signals.h"

namespace NEUtils {

namespace {

constexpr std::size_t kMaxLooks = 4096;
constexpr std::size_t kMaxLooksSize = std::size_t{16} << 20;      // bytes; one may have half a megabyte
constexpr std::uint64_t kMaxLookAgeNs = 5 * Clock::kNsPerSecond;  // its event has come, or never will
constexpr std::uint64_t kSwitchNs = 5 * Clock::kNsPerMs;  // an exec changes the process this long before its event
constexpr std::uint64_t kOnItsWayNs = Clock::kNsPerMs;    // an event gets its time before it is sent
constexpr std::chrono::milliseconds kPatience{500};       // with a reader that is behind

}  // namespace

std::uint64_t ConnectorNow()
{
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * Clock::kNsPerSecond + static_cast<std::uint64_t>(now.tv_nsec);
}

ExecReader::~ExecReader()
{
    RequestStop();
    if (thread_.joinable()) {
        thread_.join();
    }
}

bool ExecReader::Open(int priority, std::string& reason)
{
    stop_.Reset(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!stop_.IsValid()) {
        const int error = errno;
        reason = std::string("cannot make an event descriptor: ") + ErrnoText(error).Get();
        return false;
    }
    if (!socket_.Open(ConnectorSocket::kExecs, reason)) {
        return false;
    }
    const StopSignalsBlocked blocked;
    running_ = true;
    try {
        events_.reserve(DatagramBatch::kSize);
        thread_ = std::thread([this, priority] { Run(priority); });
    } catch (const std::exception& error) {
        reason = std::string("cannot start the reader of /proc: ") + error.what();
        return false;
    }
    pthread_setname_np(thread_.native_handle(), "process-reader");
    return true;
}

void ExecReader::RequestStop()
{
    running_ = false;
    if (stop_.IsValid()) {
        eventfd_write(stop_.Get(), 1);
    }
}

void ExecReader::Run(int priority)
{
    const sched_param wanted = {priority};
    const int error = priority > 0 ? pthread_setschedparam(pthread_self(), SCHED_FIFO, &wanted) : 0;
    if (error != 0) {
        NE_LOG(WARN, "Details of short programs may be missing: no real-time priority.[errmsg=%s]",
               ErrnoText(error).Get());
    }
    while (running_) {
        pollfd waiting[] = {{socket_.Fd(), POLLIN, 0}, {stop_.Get(), POLLIN, 0}};
        if (poll(waiting, 2, -1) < 0) {
            continue;
        }
        std::uint64_t now = ConnectorNow();
        while (running_ && socket_.Receive(events_) > 0) {
            for (const proc_event& event : events_) {
                TryToLookAt(event.event_data.exec.process_tgid, event.timestamp_ns);
            }
            now = ConnectorNow();
        }
        SetReached(now - kOnItsWayNs);
    }
}

// Nobody needs to wait for a look at anything up to this time.
void ExecReader::SetReached(std::uint64_t timeNs)
{
    const std::lock_guard<std::mutex> lock(mutex_);
    reachedNs_ = std::max(reachedNs_, timeNs);
    came_.notify_all();
}

// Without memory nothing was seen, and the record says so.
void ExecReader::TryToLookAt(int pid, std::uint64_t timeNs)
{
    try {
        LookAt(pid, timeNs);
    } catch (const std::exception& error) {
        LogTracerFailure(error);
    }
}

void ExecReader::LookAt(int pid, std::uint64_t timeNs)
{
    Look look;
    const ProcDirectory process(pid);
    look.isGood = process.IsOpen() && process.ReadRecord(look.record, look.stat) && look.record.whole;
    look.endNs = ConnectorNow();
    Keep({timeNs, pid}, std::move(look));
}

void ExecReader::Keep(const Key& key, Look look)
{
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto last = last_.find(key.second);
    const auto before = last == last_.end() ? looks_.end() : looks_.find(last->second);
    if (before != looks_.end() && before->second.isGood) {
        // The look at the program before may have met this one.
        Look& other = before->second;
        const bool known = look.stat.stackStart != 0 && other.stat.stackStart != 0;
        const bool met = key.first <= other.endNs ||
                         (known ? look.stat.IsSameProgram(other.stat) : key.first < other.endNs + kSwitchNs);
        other.isGood = !met;
    }
    last_[key.second] = key;
    const auto [kept, isNew] = looks_.emplace(key, std::move(look));
    looksSize_ += isNew ? kept->second.Size() : 0;
    while (looks_.size() > kMaxLooks || looksSize_ > kMaxLooksSize ||
           looks_.begin()->first.first + kMaxLookAgeNs < key.first) {
        Forget(looks_.begin());
    }
    reachedNs_ = std::max(reachedNs_, key.first);
    came_.notify_all();
}

bool ExecReader::Take(int pid, std::uint64_t timeNs, ProcessRecord& record)
{
    const Key key{timeNs, pid};
    std::unique_lock<std::mutex> lock(mutex_);
    came_.wait_for(lock, kPatience, [&] { return !running_ || reachedNs_ >= timeNs || looks_.count(key) != 0; });
    const auto found = looks_.find(key);
    if (found == looks_.end()) {
        return false;
    }
    const bool good = found->second.isGood;
    if (good) {
        record = found->second.record;
    }
    Forget(found);
    return good;
}

void ExecReader::Forget(Looks::iterator look)
{
    const auto last = last_.find(look->first.second);
    if (last != last_.end() && last->second == look->first) {
        last_.erase(last);
    }
    looksSize_ -= look->second.Size();
    looks_.erase(look);
}

}  // namespace NEUtils
