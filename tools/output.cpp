#include "output.h"

#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "util/errno_text.h"

namespace {

// Room may come back on a disk, and after a limit of the file's size. A terminal that fails has hung up.
bool IsPassing(int error, bool isFile)
{
    switch (error) {
    case ENOSPC:
    case EDQUOT:
    case EFBIG:
    case ENOMEM:
    case ENOBUFS:
        return true;
    default:
        return error == EIO && isFile;
    }
}

}  // namespace

StreamOutput::StreamOutput(int fd) : fd_(fd)
{
    struct stat status = {};
    isNamedFile_ = fstat(fd_, &status) == 0 && S_ISREG(status.st_mode) && status.st_nlink > 0;
}

// Lines that go on into a removed file are lost. One that never had a name is meant so.
bool StreamOutput::IsRemoved() const
{
    struct stat status = {};
    return isNamedFile_ && fstat(fd_, &status) == 0 && status.st_nlink == 0;
}

Output::Result StreamOutput::Write(std::string_view bytes)
{
    const ssize_t count = write(fd_, bytes.data(), bytes.size());
    const int error = errno;
    if (count >= 0) {
        return IsRemoved() ? Result{0, "the file was removed", true} : Result{static_cast<std::size_t>(count), {}};
    }
    if (error == EINTR) {
        return {};
    }
    if (error == EAGAIN) {  // somebody else has made it non-blocking
        pollfd wanted = {fd_, POLLOUT, 0};
        poll(&wanted, 1, -1);
        return {};
    }
    return {0, NEUtils::ErrnoText(error).Get(), !IsPassing(error, isNamedFile_)};
}
