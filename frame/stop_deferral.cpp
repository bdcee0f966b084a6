#include "frame/stop_deferral.h"

#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <ctime>

#include "util/clock.h"

namespace NEUtils {

namespace {

// In the initial-exec model, since any other may allocate at its first use, which can be in the handler.
[[gnu::tls_model("initial-exec")]] thread_local volatile sig_atomic_t t_depth = 0;
[[gnu::tls_model("initial-exec")]] thread_local volatile sig_atomic_t t_putOff = 0;
[[gnu::tls_model("initial-exec")]] thread_local volatile sig_atomic_t t_process =
    0;  // the one that t_putOff was sent to
[[gnu::tls_model("initial-exec")]] thread_local volatile std::int64_t t_putOffNs = 0;  // when
[[gnu::tls_model("initial-exec")]] thread_local volatile sig_atomic_t t_interrupted = 0;

std::atomic<int> g_interrupted{0};  // threads whose stop function runs in the middle of a log call
constexpr std::int64_t kStuckNs = 100 * Clock::kNsPerMs;
constexpr std::int64_t kPatienceNs = Clock::kNsPerSecond;

}  // namespace

void StopDeferral::Begin()
{
    t_depth = t_depth + 1;
}

void StopDeferral::End()
{
    t_depth = t_depth - 1;
    if (t_depth > 0) {
        return;
    }
    if (t_interrupted != 0) {
        t_interrupted = 0;
        --g_interrupted;
    }
    const int signo = t_putOff;
    if (signo != 0) {
        t_putOff = 0;
        if (t_process == getpid()) {  // a child that was forked meanwhile inherits no pending signal
            pthread_kill(pthread_self(), signo);
        }
    }
}

bool StopDeferral::PutOff(int signo)
{
    if (t_depth == 0 || signo == SIGUSR1) {
        return false;
    }
    const bool isStop = signo == SIGINT || signo == SIGQUIT || signo == SIGTSTP;
    const pid_t self = getpid();
    const std::int64_t now = Clock::MonotonicNs();
    if (isStop && (t_putOff == 0 || t_process != self)) {
        t_putOffNs = now;
        t_process = self;
        t_putOff = signo;
        return true;
    }
    // Many at once are one: the record under way is not what keeps the program from stopping.
    if (isStop && t_interrupted == 0 && now - t_putOffNs <= kPatienceNs) {
        return true;
    }
    if (t_interrupted == 0) {
        t_interrupted = 1;
        ++g_interrupted;
    }
    return false;
}

bool StopDeferral::IsInterrupted()
{
    return t_interrupted != 0;
}

bool FrameLock::Lock(std::mutex& mutex)
{
    if (StopDeferral::IsInterrupted()) {
        return false;
    }
    if (mutex.try_lock()) {
        return true;
    }
    do {
        timespec end = {};
        clock_gettime(CLOCK_REALTIME, &end);  // a step of it makes one slice longer or shorter, no more
        end.tv_nsec += kStuckNs;
        if (end.tv_nsec >= Clock::kNsPerSecond) {
            end.tv_nsec -= Clock::kNsPerSecond;
            ++end.tv_sec;
        }
        if (pthread_mutex_timedlock(mutex.native_handle(), &end) == 0) {
            return true;
        }
    } while (g_interrupted == 0);
    return false;
}

}  // namespace NEUtils
