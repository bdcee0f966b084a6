#include "instance_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <utility>

#include "util/file.h"
#include "util/unique_fd.h"

namespace NEUtils {

namespace {

constexpr int kMaxTries = 10;  // each is lost to somebody who has replaced the file at that very moment

pid_t ReadPid(int fd)
{
    char text[16];
    const ssize_t length = FileOperation::Read(fd, text, sizeof(text));
    pid_t pid = 0;
    if (length <= 0 || std::from_chars(text, text + length, pid).ec != std::errc() || pid < 0) {
        return 0;
    }
    return pid;
}

// Opens the file; never as one of the standard descriptors, which a daemon replaces.
UniqueFd Open(const std::string& path)
{
    constexpr int kFlags = O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY;
    UniqueFd fd(open(path.c_str(), kFlags, 0640));
    return fd.Get() > STDERR_FILENO || !fd.IsValid() ? std::move(fd)
                                                     : UniqueFd(fcntl(fd.Get(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
}

bool LeadsTo(const std::string& path, int fd)
{
    struct stat named = {};
    struct stat open = {};
    return lstat(path.c_str(), &named) == 0 && fstat(fd, &open) == 0 && named.st_dev == open.st_dev &&
           named.st_ino == open.st_ino;
}

// A file that has another name too is somebody's; emptying it would lose his content.
bool IsPlain(int fd)
{
    struct stat status = {};
    if (fstat(fd, &status) != 0) {
        return false;
    }
    if (!S_ISREG(status.st_mode) || status.st_nlink > 1) {
        errno = S_ISREG(status.st_mode) ? EMLINK : EINVAL;
        return false;
    }
    return true;
}

}  // namespace

InstanceLock::Result InstanceLock::Take(const std::string& path)
{
    Release();
    holder_ = 0;
    for (int tries = 0; tries < kMaxTries; ++tries) {
        UniqueFd fd = Open(path);
        if (!fd.IsValid() || !IsPlain(fd.Get())) {
            return Result::kFailed;
        }
        if (flock(fd.Get(), LOCK_EX | LOCK_NB) != 0) {
            if (errno != EWOULDBLOCK) {
                return Result::kFailed;
            }
            holder_ = ReadPid(fd.Get());
            return Result::kHeld;
        }
        if (LeadsTo(path, fd.Get())) {
            if (ftruncate(fd.Get(), 0) != 0) {  // the id of the holder before
                return Result::kFailed;
            }
            path_ = path;
            fd_ = fd.Release();
            return Result::kTaken;
        }
    }
    errno = ESTALE;
    return Result::kFailed;
}

bool InstanceLock::WritePid()
{
    const std::string text = std::to_string(getpid());
    return fd_ >= 0 && pwrite(fd_, text.data(), text.size(), 0) == static_cast<ssize_t>(text.size()) &&
           ftruncate(fd_, static_cast<off_t>(text.size())) == 0;
}

bool InstanceLock::IsInPlace() const
{
    return fd_ >= 0 && LeadsTo(path_, fd_);
}

void InstanceLock::Release()
{
    // Closing alone: an explicit unlock in a forked child would take the lock from its parent.
    UniqueFd(fd_).Reset();
    fd_ = -1;
}

}  // namespace NEUtils
