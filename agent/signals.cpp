#include "signals.h"

#include <sys/signalfd.h>
#include <unistd.h>

namespace {

sigset_t SetOf(std::initializer_list<int> signals)
{
    sigset_t set;
    sigemptyset(&set);
    for (const int signo : signals) {
        sigaddset(&set, signo);
    }
    return set;
}

sigset_t StopSet()
{
    return SetOf({SIGINT, SIGQUIT, SIGTSTP});
}

}  // namespace

void Signals::Block()
{
    for (const int signo : {SIGTERM, SIGALRM, SIGCHLD}) {
        signal(signo, SIG_DFL);  // an ignored SIGCHLD would hide how gzip ended
    }
    const sigset_t open = SetOf({SIGTERM, SIGALRM, SIGUSR1});
    pthread_sigmask(SIG_UNBLOCK, &open, nullptr);
    const sigset_t stop = StopSet();
    pthread_sigmask(SIG_BLOCK, &stop, nullptr);
}

bool Signals::Open()
{
    const sigset_t stop = StopSet();
    fd_.Reset(signalfd(-1, &stop, SFD_CLOEXEC | SFD_NONBLOCK));
    return fd_.IsValid();
}

int Signals::Take() const
{
    signalfd_siginfo info = {};
    return read(fd_.Get(), &info, sizeof(info)) == sizeof(info) ? static_cast<int>(info.ssi_signo) : 0;
}
