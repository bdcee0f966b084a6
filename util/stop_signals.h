#pragma once

#include <signal.h>

namespace NEUtils {

// The signals that ask a program under the frame to stop.
inline sigset_t StopSignalSet()
{
    sigset_t stop;
    sigemptyset(&stop);
    for (const int signo : {SIGINT, SIGQUIT, SIGTSTP}) {
        sigaddset(&stop, signo);
    }
    return stop;
}

// Blocks the three stop signals on this thread for a scope. A thread created inside it inherits the
// mask, so the stop function, which joins the library's threads, never runs on one of them.
class StopSignalsBlocked {
public:
    StopSignalsBlocked()
    {
        const sigset_t stop = StopSignalSet();
        pthread_sigmask(SIG_BLOCK, &stop, &old_);
    }
    ~StopSignalsBlocked() { pthread_sigmask(SIG_SETMASK, &old_, nullptr); }
    StopSignalsBlocked(const StopSignalsBlocked&) = delete;
    StopSignalsBlocked& operator=(const StopSignalsBlocked&) = delete;

private:
    sigset_t old_;
};

}  // namespace NEUtils
