#include "myfanotify.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <iterator>
#include <memory>
#include <new>

#include "logger.h"
#include "monitor/fanotify_decoder.h"
#include "util/bounded.h"
#include "util/clock.h"
#include "util/errno_text.h"
#include "util/unique_fd.h"

namespace NEUtils::Monitor {

namespace {

constexpr int kNoLevel = 255;
constexpr int kMaxLevel = 5;
constexpr int kWaitMs = 1000;
constexpr long kInterruptedNs = 5 * Clock::kNsPerMs;

struct CloseDir {
    void operator()(DIR* dir) const { closedir(dir); }
};

bool IsDirectory(const char* path)
{
    struct stat status = {};
    return stat(path, &status) == 0 && S_ISDIR(status.st_mode);
}

// Marks a directory and those below it.
bool MarkTree(int fd, unsigned int flags, std::uint64_t mask, int dirFd, const char* path)
{
    if (fanotify_mark(fd, flags, mask, dirFd, path) != 0) {
        NE_LOG(ERROR, "Fanotify mark failed.");
        return false;
    }
    NE_LOG(DEBUG, "Add fanotify watch for dir succeed. [file=%s]", path);
    if (FanotifyAddWatchDir(fd, flags, mask, dirFd, path) != 0) {
        NE_LOG(ERROR, "Fanotify add watch dir failed.");
        return false;
    }
    return true;
}

int HandlePollError(int error)
{
    if (error != EINTR) {
        NE_LOG(ERROR, "Poll event failed.[errorInfo=%s]", ErrnoText(error).Get());
        return -1;
    }
    Clock::SleepNs(kInterruptedNs);
    return 0;
}

void HandleRecords(const unsigned char* buffer, ssize_t length, char* path, FanotifyCallback callback)
{
    FanotifyBatch batch(buffer, length);
    fanotify_event_metadata record;
    while (batch.Next(record)) {
        const UniqueFd file(record.fd);
        if (!file.IsValid()) {
            continue;
        }
        if (record.vers != FANOTIFY_METADATA_VERSION) {
            NE_LOG(ERROR, "Mismatch of fanotify metadata version.");
            return;
        }
        if (record.pid != getpid() && ReadFanotifyPath(file.Get(), path)) {
            callback(record.pid, path, static_cast<std::uint32_t>(record.mask));
        }
    }
}

void HandleEvents(int fd, FanotifyCallback callback)
{
    const std::unique_ptr<unsigned char[]> buffer(new (std::nothrow) unsigned char[kFanotifyReadSize]);
    if (buffer == nullptr) {
        NE_LOG(ERROR, "Alloc fanotify event metadata memory failed.");
        return;
    }
    const std::unique_ptr<char[]> path(new (std::nothrow) char[kFanotifyPathSize]);
    if (path == nullptr) {
        NE_LOG(ERROR, "Alloc path memory failed.");
        return;
    }
    const ssize_t length = read(fd, buffer.get(), kFanotifyReadSize);
    // A failed read gives no records; the next call finds out by its poll.
    HandleRecords(buffer.get(), length, path.get(), callback);
}

}  // namespace

int InitFanotifyEvent(FANOTIFY_EVENT* event, FanotifyCallback callback)
{
    if (event == nullptr) {
        return 1;
    }
    const int fd = fanotify_init(kFanotifyFlags, kFanotifyFileFlags);
    if (fd == -1) {
        NE_LOG(ERROR, "Failed to initialize the fanotify.");
        return 1;
    }
    event->fd = fd;
    if (callback == nullptr) {  // Kept because the record is the caller's: the descriptor stays in it, open.
        return 1;
    }
    event->callback = callback;
    return 0;
}

int DirLevel(const char* path)
{
    return path == nullptr ? kNoLevel : static_cast<int>(std::count(path, path + std::strlen(path), '/'));
}

int FanotifyGetEntryPath(const dirent* entry, const char* dir, char* out, std::size_t size)
{
    if (entry == nullptr || dir == nullptr || out == nullptr) {
        return 1;
    }
    const char* name = entry->d_name;
    if (std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0) {
        return 1;
    }
    // Kept because only the longer form has a record of its own: below the root a name that does not fit is not logged.
    if (std::strcmp(dir, "/") == 0) {
        return snprintf_s(out, size, "/%s", name) < 0 ? 1 : 0;
    }
    if (snprintf_s(out, size, "%s/%s", dir, name) < 0) {
        NE_LOG(ERROR, "Format entry path failed.");
        return 1;
    }
    return 0;
}

int FanotifyAddWatchDir(int fd, unsigned int flags, std::uint64_t mask, int dirFd, const char* path)
{
    if (path == nullptr) {
        return 1;
    }
    if (DirLevel(path) >= kMaxLevel) {
        return 0;
    }
    const std::unique_ptr<DIR, CloseDir> dir(opendir(path));
    if (dir == nullptr) {
        return 1;
    }
    char entryPath[PATH_MAX];
    while (const dirent* entry = readdir(dir.get())) {
        if (FanotifyGetEntryPath(entry, path, entryPath, std::size(entryPath)) == 0 && IsDirectory(entryPath) &&
            !MarkTree(fd, flags, mask, dirFd, entryPath)) {
            return 1;
        }
    }
    return 0;
}

int FanotifyAddWatch(const FANOTIFY_EVENT* event, const char* path, std::uint64_t mask)
{
    if (event == nullptr || path == nullptr) {
        return 1;
    }
    struct stat status = {};
    if (stat(path, &status) != 0) {
        const int error = errno;
        NE_LOG(ERROR, "Can not stat file.[path=%s errorInfo=%s]", path, ErrnoText(error).Get());
        return 1;
    }
    const bool isDirectory = S_ISDIR(status.st_mode);
    if (isDirectory) {
        mask |= kFanotifyDirectoryMask;
    }
    if (fanotify_mark(event->fd, FAN_MARK_ADD, mask, AT_FDCWD, path) != 0) {
        NE_LOG(ERROR, "Fanotify mark failed.[file=%s]", path);
        return 1;
    }
    NE_LOG(DEBUG, "Add fanotify watch for file succeed. [file=%s]", path);
    return isDirectory ? FanotifyAddWatchDir(event->fd, FAN_MARK_ADD, mask, AT_FDCWD, path) : 0;
}

int FanotifyLoop(void* context)
{
    const auto* loop = static_cast<const FANOTIFY_LOOP_CONTEXT*>(context);
    if (loop == nullptr || loop->event == nullptr || loop->callback == nullptr) {
        return -1;
    }
    pollfd waiting = {loop->event->fd, POLLIN, 0};
    const int ready = poll(&waiting, 1, kWaitMs);
    const int error = errno;
    if (ready < 0) {
        return HandlePollError(error);
    }
    if ((waiting.revents & POLLIN) != 0) {
        HandleEvents(loop->event->fd, loop->callback);
    }
    return 0;
}

}  // namespace NEUtils::Monitor
