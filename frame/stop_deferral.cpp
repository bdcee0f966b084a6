#include "frame/stop_deferral.h"

#include <pthread.h>
#include <signal.h>

namespace NEUtils {

namespace {

// In the initial-exec model, since any other may allocate at its first use, which can be in the handler.
[[gnu::tls_model("initial-exec")]] thread_local volatile sig_atomic_t t_depth = 0;
[[gnu::tls_model("initial-exec")]] thread_local volatile sig_atomic_t t_putOff = 0;

}  // namespace

void StopDeferral::Begin()
{
    t_depth = t_depth + 1;
}

void StopDeferral::End()
{
    t_depth = t_depth - 1;
    const int signo = t_putOff;
    if (t_depth == 0 && signo != 0) {
        t_putOff = 0;
        pthread_kill(pthread_self(), signo);
    }
}

bool StopDeferral::PutOff(int signo)
{
    const bool isStop = signo == SIGINT || signo == SIGQUIT || signo == SIGTSTP;
    if (!isStop || t_depth == 0 || t_putOff != 0) {
        return false;
    }
    t_putOff = signo;
    return true;
}

}  // namespace NEUtils
