// How a main function waits for a stop signal instead of being interrupted by one.
#include <signal.h>
#include <sys/signalfd.h>

#include <cerrno>
#include <ctime>

#include "my_program.h"
#include "util/stop_signals.h"

namespace NEUtils {

void MyProgram::BlockStopSignals()
{
    const sigset_t stop = StopSignalSet();
    pthread_sigmask(SIG_BLOCK, &stop, nullptr);
}

bool MyProgram::WaitForStop()
{
    BlockStopSignals();
    const sigset_t stop = StopSignalSet();
    for (;;) {
        siginfo_t info = {};
        const int signo = sigwaitinfo(&stop, &info);
        if (signo < 0 && errno != EINTR) {
            return false;
        }
        if (signo > 0) {
            SigActionHandler(signo, &info, nullptr);
            if (GetStopSignal() == signo) {  // otherwise swallowed
                return true;
            }
        }
    }
}

int MyProgram::GetStopDescriptor()
{
    const sigset_t stop = StopSignalSet();
    static const int descriptor = signalfd(-1, &stop, SFD_CLOEXEC | SFD_NONBLOCK);
    return descriptor;
}

bool MyProgram::HandlePendingStop()
{
    const sigset_t stop = StopSignalSet();
    const timespec now = {};
    siginfo_t info = {};
    const int signo = sigtimedwait(&stop, &info, &now);
    if (signo > 0) {
        SigActionHandler(signo, &info, nullptr);
    }
    return signo > 0 && GetStopSignal() == signo;
}

}  // namespace NEUtils
