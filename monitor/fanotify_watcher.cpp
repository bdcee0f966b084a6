#include "fanotify_watcher.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <memory>
#include <new>
#include <utility>

#include "logger.h"
#include "monitor/fanotify_decoder.h"
#include "util/bounded.h"
#include "util/clock.h"
#include "util/errno_text.h"
#include "util/unique_fd.h"

namespace NEUtils {

namespace {

constexpr long kPollNs = 10 * Clock::kNsPerMs;
constexpr long kPaceNs = 10 * Clock::kNsPerMs;
constexpr int kMaxPasses = 1000;

// The bytes of one read; 0 if there is nothing to handle.
ssize_t ReadEvents(int fd, unsigned char* buffer)
{
    const ssize_t length = read(fd, buffer, kFanotifyReadSize);
    const int error = errno;
    if (length >= 0) {
        return length;
    }
    if (error != EAGAIN) {
        NE_LOG(ERROR, "Can not read event.[reason=%s]", ErrnoText(error).Get());
    }
    return 0;
}

}  // namespace

FanotifyWatcher::~FanotifyWatcher()
{
    Close();
}

bool FanotifyWatcher::Init(Callback callback)
{
    if (!callback) {
        return false;
    }
    Close();
    callback_ = std::move(callback);
    fd_ = fanotify_init(kFanotifyFlags, kFanotifyFileFlags);
    enabled_ = fd_ != -1;
    return enabled_;
}

void FanotifyWatcher::DeInit()
{
    Close();
    NE_LOG(INFO, "The fanotify monitoring function is disabled.");
}

void FanotifyWatcher::Close()
{
    if (fd_ > 0) {  // Kept because 0 counts as standard input here: it is never closed, whoever opened it.
        close(fd_);
    }
    fd_ = -1;
    enabled_ = false;
}

bool FanotifyWatcher::AddWatch(const std::string& path, std::uint32_t mask) const
{
    struct stat status = {};
    if (!enabled_ || path.empty() || stat(path.c_str(), &status) != 0) {
        return false;
    }
    if (S_ISDIR(status.st_mode)) {
        mask |= kFanotifyDirectoryMask;
    }
    if (fanotify_mark(fd_, FAN_MARK_ADD, mask, AT_FDCWD, path.c_str()) != 0) {
        NE_LOG(ERROR, "Add fanotify watch for file failed.[file=%s]", path.c_str());
        return false;
    }
    NE_LOG(DEBUG, "Add fanotify watch for file succeed. [file=%s]", path.c_str());
    return true;
}

void FanotifyWatcher::RmWatch(const std::string& path, std::uint32_t mask) const
{
    if (!enabled_) {
        return;
    }
    // Kept because callers take off exactly what they asked for: the two bits that AddWatch adds for a directory stay.
    if (fanotify_mark(fd_, FAN_MARK_REMOVE, mask, AT_FDCWD, path.c_str()) != 0) {
        NE_LOG(ERROR, "Remove fanotify watch for file failed.[file=%s]", path.c_str());
        return;
    }
    NE_LOG(DEBUG, "Remove fanotify watch for file succeed. [file=%s]", path.c_str());
}

bool FanotifyWatcher::Poll()
{
    if (!enabled_) {
        return false;
    }
    pollfd waiting = {fd_, POLLIN, 0};
    const timespec limit = {0, kPollNs};
    sigset_t noSignals;
    sigemptyset(&noSignals);
    const int ready = ppoll(&waiting, 1, &limit, &noSignals);
    const int error = errno;
    if (ready == -1 && error != EINTR) {
        NE_LOG(ERROR, "Poll fanotify event failed.[errorInfo=%s]", ErrnoText(error).Get());
    }
    return ready > 0 && (waiting.revents & POLLIN) != 0;
}

void FanotifyWatcher::HandleEvent() const
{
    const std::unique_ptr<unsigned char[]> buffer(new (std::nothrow) unsigned char[kFanotifyReadSize]);
    if (buffer == nullptr) {
        NE_LOG(ERROR, "Failed to apply for memory.");
        return;
    }
    memset_s(buffer.get(), kFanotifyReadSize, 0, kFanotifyReadSize);
    for (int pass = 0; pass < kMaxPasses; ++pass) {
        const ssize_t length = ReadEvents(fd_, buffer.get());
        if (length == 0 || !HandleEvent(buffer.get(), length)) {
            return;
        }
        Clock::SleepNs(kPaceNs);  // also before the read that finds nothing: events gather meanwhile
    }
}

bool FanotifyWatcher::HandleEvent(const void* buffer, ssize_t length) const
{
    FanotifyBatch batch(buffer, length);
    const std::unique_ptr<char[]> path(new (std::nothrow) char[kFanotifyPathSize]);
    if (path == nullptr) {
        NE_LOG(ERROR, "Failed to apply for memory.");
        return false;
    }
    fanotify_event_metadata record;
    while (batch.Next(record)) {
        if (record.fd < 0) {
            overflows_ += (record.mask & FAN_Q_OVERFLOW) != 0 ? 1 : 0;
            continue;
        }
        if (!CheckMetaData(record)) {
            return false;
        }
        const UniqueFd file(record.fd);
        if (ReadFanotifyPath(file.Get(), path.get())) {
            Dispatch(record, path.get());
        }
    }
    return true;
}

bool FanotifyWatcher::CheckMetaData(const fanotify_event_metadata& record) const
{
    if (record.vers == FANOTIFY_METADATA_VERSION) {
        return true;
    }
    NE_LOG(ERROR, "Mismatch of fanotify metadata version.");
    const UniqueFd closed(record.fd);
    return false;
}

void FanotifyWatcher::Dispatch(const fanotify_event_metadata& record, const char* path) const
{
    if (record.pid == getpid()) {
        NE_LOG(INFO, "The file is modified by its own process.[file=%s]", path);
    } else if (callback_) {
        callback_(record.pid, path, record.mask, (record.mask & FAN_ONDIR) != 0);
    }
}

}  // namespace NEUtils
