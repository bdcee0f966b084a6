#include "frame/stop_deferral.h"

#include <pthread.h>
#include <signal.h>

namespace NEUtils {

namespace {

// In the initial-exec model, since any other may allocate at its first use, which can be in the handler.
[[gnu::tls_model("initial-exec")]] thread_local volatile sig_atomic_t t_depth = 0;
[[gnu::tls_model("initial-exec")]] thread_local volatile sig_atomic_t t_putOff = 0;
[[gnu::tls_model("initial-exec")]] thread_local volatile sig_atomic_t t_interrupted = 0;

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
    t_interrupted = 0;
    const int signo = t_putOff;
    if (signo != 0) {
        t_putOff = 0;
        pthread_kill(pthread_self(), signo);
    }
}

bool StopDeferral::PutOff(int signo)
{
    if (t_depth == 0 || signo == SIGUSR1) {
        return false;
    }
    const bool isStop = signo == SIGINT || signo == SIGQUIT || signo == SIGTSTP;
    if (isStop && t_putOff == 0) {
        t_putOff = signo;
        return true;
    }
    t_interrupted = 1;
    return false;
}

bool StopDeferral::IsInterrupted()
{
    return t_interrupted != 0;
}

}  // namespace NEUtils
