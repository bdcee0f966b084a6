#include "process/tracer_thread.h"

#include <utility>

#include "util/clock.h"
#include "util/rate_limiter.h"
#include "util/stop_signals.h"
#include "util/thread_name.h"

namespace NEUtils {

namespace {

thread_local const TracerThread* t_own = nullptr;  // the one that this thread is

}  // namespace

bool TracerThread::Start(const char* name, std::function<void()> body)
{
    const StopSignalsBlocked blocked;
    try {
        thread_ = std::thread([this, name, body = std::move(body)] {
            t_own = this;
            SetThreadName(name);
            body();
        });
    } catch (const std::exception& error) {
        NE_LOG(ERROR, "Fail to create a tracer's thread.[name=%s reason=%s]", name, error.what());
        return false;
    }
    return true;
}

void LogTracerFailure(const std::exception& failure)
{
    static RateLimiter records(15 * 60 * 1000);
    if (records.Allow(Clock::MonotonicNs() / Clock::kNsPerMs)) {
        NE_LOG(ERROR, "A tracer failed and goes on.[what=%s]", failure.what());
    }
}

bool TracerThread::IsOwn() const
{
    return t_own == this;
}

void TracerThread::Join()
{
    if (thread_.joinable()) {
        thread_.join();
    }
}

}  // namespace NEUtils
