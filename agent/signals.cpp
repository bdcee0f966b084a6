#include "signals.h"

#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <initializer_list>

namespace {

constexpr std::initializer_list<int> kStops = {SIGINT, SIGQUIT, SIGTSTP, SIGTERM};

sigset_t SetOf(std::initializer_list<int> signals)
{
    sigset_t set;
    sigemptyset(&set);
    for (const int signo : signals) {
        sigaddset(&set, signo);
    }
    return set;
}

int Descriptor(const sigset_t& set)
{
    return signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
}

bool Take(int fd, signalfd_siginfo& info)
{
    return read(fd, &info, sizeof(info)) == sizeof(info);
}

}  // namespace

void Signals::Block()
{
    for (const int signo : {SIGTERM, SIGHUP, SIGALRM, SIGCHLD}) {
        signal(signo, SIG_DFL);  // an ignored SIGCHLD would hide how gzip ended
    }
    const sigset_t open = SetOf({SIGALRM, SIGUSR1});
    pthread_sigmask(SIG_UNBLOCK, &open, nullptr);
    for (const sigset_t& set : {SetOf(kStops), SetOf({SIGHUP})}) {
        pthread_sigmask(SIG_BLOCK, &set, nullptr);
    }
}

bool Signals::Open()
{
    stops_.Reset(Descriptor(SetOf(kStops)));
    reloads_.Reset(Descriptor(SetOf({SIGHUP})));
    return stops_.IsValid() && reloads_.IsValid();
}

bool Signals::TakeStop(Stop& stop) const
{
    signalfd_siginfo info = {};
    if (!Take(stops_.Get(), info)) {
        return false;
    }
    stop.signo = static_cast<int>(info.ssi_signo);
    stop.isOfGuard = info.ssi_code == SI_TKILL && info.ssi_pid == static_cast<unsigned int>(getpid());
    return true;
}

bool Signals::TakeReload() const
{
    signalfd_siginfo info = {};
    return Take(reloads_.Get(), info);
}
