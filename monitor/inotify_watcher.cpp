#include "inotify_watcher.h"

#include <poll.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fstream>

#include "logger.h"
#include "util/bounded.h"
#include "util/clock.h"
#include "util/errno_text.h"
#include "util/rate_limiter.h"

namespace NEUtils {

namespace {

constexpr char kAllowanceFile[] = "/proc/sys/fs/inotify/max_user_watches";
constexpr unsigned long kPercentOfAllowance = 70;
constexpr std::int64_t kErrorPeriodMs = 900000;
constexpr long kPollNs = 10 * Clock::kNsPerMs;
constexpr std::size_t kMaxEvents = 300;
constexpr std::uint32_t kHeaderSize = sizeof(inotify_event);
constexpr std::uint32_t kDirectoryMask =
    IN_MOVED_FROM | IN_MOVED_TO | IN_CREATE | IN_DELETE | IN_DELETE_SELF | IN_MOVE_SELF;

RateLimiter g_refusalRecords(kErrorPeriodMs);  // of all watchers together

// The whole length of the record that begins here, which may be more than there is.
std::uint64_t RecordLength(const char* record, std::uint32_t left)
{
    inotify_event header = {};
    if (left >= kHeaderSize) {
        std::memcpy(&header, record, kHeaderSize);
    }
    return std::uint64_t{kHeaderSize} + header.len;
}

}  // namespace

bool InotifyWatcher::Init()
{
    // Close-on-exec beside the fixed flag: else every program that the process starts would keep the watches alive.
    fd_ = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (fd_ == -1) {
        const int error = errno;
        NE_LOG(ERROR, "Init inotify with new init failed.[error=%s]", ErrnoText(error).Get());
        return false;
    }
    if (!SetLimit()) {
        NE_LOG(ERROR, "Set inotify watches limit failed.");
        return false;
    }
    NE_LOG(INFO, "Init inotify successfully.");
    return true;
}

bool InotifyWatcher::SetLimit()
{
    std::ifstream file(kAllowanceFile);
    if (!file.is_open()) {
        const int error = errno;
        NE_LOG(ERROR, "Open file failed.[file=%s, error=%s]", kAllowanceFile, ErrnoText(error).Get());
        return false;
    }
    errno = 0;  // an empty file is no error of the system's
    std::string line;
    if (!std::getline(file, line)) {
        const int error = errno;
        NE_LOG(ERROR, "Read file failed.[file=%s, error=%s]", kAllowanceFile, ErrnoText(error).Get());
        return false;
    }
    const unsigned long allowance = std::stoul(line);
    const std::lock_guard<std::mutex> lock(mutex_);
    if (limit_ > allowance) {
        limit_ = static_cast<std::uint32_t>(kPercentOfAllowance * allowance / 100);
    }
    return true;
}

int InotifyWatcher::AddWatch(const std::string& path, std::uint32_t mask)
{
    bool isFull = false;
    std::size_t watchers = 0;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        watchers = paths_.size();
        isFull = watchers > limit_;  // Kept because a table counts as full once it has one more than the limit.
    }
    if (path.empty() || isFull) {
        if (g_refusalRecords.Allow(Clock::WallMs())) {
            NE_LOG(ERROR, "Add inotify watch failed.[path=%s, watchers=%zu]", path.c_str(), watchers);
        }
        return 0;
    }
    // Kept because the masks of watches are fixed: what a link leads to decides about the mask, but the link is
    // watched.
    struct stat status = {};
    if (stat(path.c_str(), &status) != 0) {
        return 0;
    }
    mask |= IN_DONT_FOLLOW | (S_ISDIR(status.st_mode) ? kDirectoryMask : 0);
    const int wd = inotify_add_watch(fd_, path.c_str(), mask);
    if (wd == -1) {
        const int error = errno;
        NE_LOG(ERROR, "Add watch failed.[path=%s errorInfo=%s]", path.c_str(), ErrnoText(error).Get());
        return 0;
    }
    const std::lock_guard<std::mutex> lock(mutex_);
    paths_.emplace(wd, path);
    return wd;
}

void InotifyWatcher::RmWatch(int wd)
{
    std::string path;
    int error = 0;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        const auto watch = paths_.find(wd);
        if (watch == paths_.end()) {
            return;
        }
        if (inotify_rm_watch(fd_, wd) != 0) {
            error = errno;
        }
        path = std::move(watch->second);
        paths_.erase(watch);
    }
    if (error != 0) {
        NE_LOG(ERROR, "Remove watch failed.[path=%s errorInfo=%s]", path.c_str(), ErrnoText(error).Get());
    }
}

void InotifyWatcher::RmInvalidWatch(int wd)
{
    const std::lock_guard<std::mutex> lock(mutex_);
    paths_.erase(wd);
}

bool InotifyWatcher::Poll() const
{
    pollfd waiting = {fd_, POLLIN, 0};
    const timespec timeout = {0, kPollNs};
    sigset_t none;
    sigemptyset(&none);
    const int ready = ppoll(&waiting, 1, &timeout, &none);
    if (ready == -1) {  // Kept because each failed wait is to be logged: also one that a signal has ended.
        const int error = errno;
        NE_LOG(ERROR, "Inotify poll failed.[errorInfo=%s]", ErrnoText(error).Get());
        return false;
    }
    return ready > 0 && (waiting.revents & POLLIN) != 0;
}

bool InotifyWatcher::ReadEvent(std::vector<Event>& events) const
{
    char buffer[kBufferSize] = {};
    std::uint32_t carry = 0;  // never more than the buffer, and with a full one the read gives 0
    do {
        const ssize_t count = read(fd_, buffer + carry, kBufferSize - carry);
        if (count <= 0) {
            return true;
        }
        if (!GenerateEvent(0, carry, carry + static_cast<std::uint32_t>(count), buffer, events)) {
            return false;
        }
    } while (events.size() < kMaxEvents);
    return true;
}

bool InotifyWatcher::GenerateEvent(std::uint32_t start, std::uint32_t& carry, std::uint32_t end,
                                   char (&buffer)[kBufferSize], std::vector<Event>& events) const
{
    if (start >= end) {
        return true;
    }
    if (end > kBufferSize) {
        return false;
    }
    while (start < end) {
        const char* record = buffer + start;
        const std::uint32_t left = end - start;
        const std::uint64_t length = RecordLength(record, left);
        if (length > left) {
            if (memmove_s(buffer, kBufferSize, record, left) != 0) {
                return false;
            }
            carry = left;
            return true;
        }
        AppendEvent(record, static_cast<std::uint32_t>(length), events);
        start += static_cast<std::uint32_t>(length);
    }
    // Kept because carry is written for a cut record only: it stays what it was. The kernel cuts none, so it is 0 here.
    return true;
}

// Takes a record that is there to its end.
void InotifyWatcher::AppendEvent(const char* record, std::uint32_t length, std::vector<Event>& events) const
{
    inotify_event header = {};
    std::memcpy(&header, record, kHeaderSize);
    if ((header.mask & IN_Q_OVERFLOW) != 0) {
        ++overflows_;
    }
    Event event;
    event.wd = header.wd;
    event.mask = header.mask;
    event.cookie = header.cookie;
    if (length > kHeaderSize) {
        event.name.assign(record + kHeaderSize, strnlen(record + kHeaderSize, length - kHeaderSize));
    } else {
        event.name = GetPathByWatch(header.wd);
    }
    if (!event.name.empty()) {
        events.push_back(std::move(event));
    }
}

std::size_t InotifyWatcher::GetWatchCount() const
{
    const std::lock_guard<std::mutex> lock(mutex_);
    return paths_.size();
}

std::uint32_t InotifyWatcher::GetLimit() const
{
    const std::lock_guard<std::mutex> lock(mutex_);
    return limit_;
}

std::string InotifyWatcher::GetPathByWatch(int wd) const
{
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto watch = paths_.find(wd);
    return watch == paths_.end() ? std::string() : watch->second;
}

void InotifyWatcher::Stop()
{
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        for (const auto& [wd, path] : paths_) {
            inotify_rm_watch(fd_, wd);
        }
        paths_.clear();
    }
    NE_LOG(INFO, "Inotify monitoring stopped.");
}

}  // namespace NEUtils
