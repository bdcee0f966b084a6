#include "loop_thread.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "hips_guard.h"
#include "logger.h"
#include "util/errno_text.h"

namespace {

constexpr int kSliceUs = 10000;

}  // namespace

bool LoopThread::Start(const char* name, Round round)
{
    stopFd_.Reset(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    const int error = errno;
    if (!stopFd_.IsValid()) {
        NE_LOG(ERROR, "Thread cannot be stopped later.[name=%s errorInfo=%s]", name, NEUtils::ErrnoText(error).Get());
        return false;
    }
    round_ = std::move(round);
    stopping_ = false;
    thread_ = CreateHipsThreadEx(&LoopThread::Run, this, kSliceUs, name);
    return thread_ != 0;
}

void LoopThread::Stop()
{
    if (thread_ == 0) {
        return;
    }
    stopping_ = true;
    const std::uint64_t one = 1;
    static_cast<void>(!write(stopFd_.Get(), &one, sizeof(one)));
    StopHipsThreadEx(thread_);
    CloseHipsThreadHandleEx(std::exchange(thread_, 0));
}

int LoopThread::Run(void* self)
{
    auto& own = *static_cast<LoopThread*>(self);
    while (!own.stopping_) {
        own.round_(own.stopFd_.Get());
        KeepCurrentThreadAlive();
    }
    return 1;
}

bool WaitFor(int fd, int ms)
{
    pollfd wanted = {fd, POLLIN, 0};
    return poll(&wanted, 1, ms) > 0;
}
