#include "input_client.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "errors.h"

namespace {

constexpr timeval kAtOnce = {0, 0};

bool HasPath(int fd)
{
    char path[2] = {};
    return readlink(("/proc/self/fd/" + std::to_string(fd)).c_str(), path, 1) == 1 && path[0] == '/';
}

}  // namespace

InputClient::~InputClient()
{
    Close();
}

// Opens standard input anew where that is possible. Other processes share the descriptor of the shell: it must
// not become non-blocking for them, and one of them may read what has come. A file goes on where it stands.
std::string InputClient::Open()
{
    struct stat status = {};
    if (fstat(STDIN_FILENO, &status) != 0) {
        return std::strerror(errno);
    }
    signal(SIGTTIN, SIG_IGN);  // reading fails in the background of a terminal, instead of stopping the process
    if (S_ISFIFO(status.st_mode) || S_ISCHR(status.st_mode)) {
        // A FIFO with a name has no end: it is held open for the next one who writes.
        hasName_ = S_ISFIFO(status.st_mode) && status.st_nlink > 0 && HasPath(STDIN_FILENO);
        fd_ = open("/proc/self/fd/0", (hasName_ ? O_RDWR : O_RDONLY) | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    }
    if (fd_ < 0) {
        fd_ = fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 0);
    }
    if (fd_ < 0) {
        return std::strerror(errno);
    }
    isSocket_ = S_ISSOCK(status.st_mode);
    isWaitable_ = isSocket_ || S_ISFIFO(status.st_mode) || isatty(fd_) == 1;
    // A file is always ready, which epoll does not tell: the next piece is read with the next turn of the loop.
    ready_.reset(
        event_new(base_, isWaitable_ ? fd_ : -1, static_cast<short>(isWaitable_ ? EV_READ : 0), &OnReady, this));
    if (in_ == nullptr || ready_ == nullptr || !Wait()) {
        return "no event";
    }
    return {};
}

void InputClient::Finish()
{
    Close();
    DropLines(in_.get());
}

void InputClient::Close()
{
    ready_.reset();
    if (fd_ >= 0) {
        close(fd_);
    }
    fd_ = -1;
    ended_ = true;
}

void InputClient::Check()
{
    struct stat status = {};
    if (hasName_ && fd_ >= 0 && fstat(fd_, &status) == 0 && status.st_nlink == 0) {
        hasName_ = false;
        Complain("the FIFO of standard input was removed or replaced: nobody can open it any more");
    }
}

bool InputClient::Wait()
{
    return event_add(ready_.get(), isWaitable_ ? nullptr : &kAtOnce) == 0;
}

void InputClient::OnReady(int, short, void* self)
{
    auto& client = *static_cast<InputClient*>(self);
    client.ReadSome();
    client.Serve();
}

ssize_t InputClient::Read(char* bytes, std::size_t size) const
{
    return isSocket_ ? recv(fd_, bytes, size, MSG_DONTWAIT) : read(fd_, bytes, size);
}

void InputClient::ReadSome()
{
    char bytes[kMaxCommandLine];
    const ssize_t got = Read(bytes, sizeof(bytes));
    const int error = errno;
    if (got > 0) {
        evbuffer_add(in_.get(), bytes, static_cast<std::size_t>(got));
    } else if (got == 0 || !isWaitable_ || (error != EAGAIN && error != EINTR)) {
        ended_ = true;
    }
    if (got < 0 && ended_) {
        Complain(std::string("standard input: ") + std::strerror(error));
    }
}

void InputClient::Serve()
{
    TakeLines(in_.get());
    if (ended_) {
        Close();
    } else if (HasRoom()) {
        Wait();
    }
}

void InputClient::Say(const std::string& line)
{
    SayError(line);
}
