#include "monitor/inotify_host.h"

#include <sys/inotify.h>
#include <unistd.h>

#include <climits>
#include <exception>
#include <numeric>
#include <utility>

#include "logger.h"
#include "util/file.h"

namespace NEUtils {

namespace {

constexpr unsigned int kNumberBits = 32;

// A watch's id is the number of its watcher, from 1 on, and the kernel's descriptor.
WatchId IdOf(std::size_t watcher, int wd)
{
    return wd <= 0 ? 0 : (static_cast<WatchId>(watcher + 1) << kNumberBits) | static_cast<std::uint32_t>(wd);
}

int DescriptorOf(WatchId watch)
{
    return static_cast<int>(watch & UINT32_MAX);
}

}  // namespace

bool InotifyHost::Init()
{
    return AddWatcher();
}

// The first one, or a further one because all others are full.
bool InotifyHost::AddWatcher()
{
    auto watcher = std::make_shared<Watcher>();
    bool initialised = false;
    try {
        initialised = watcher->inotify.Init();
    } catch (const std::exception& error) {
        NE_LOG(ERROR, "The kernel's limit of watches is no number.[error=%s]", error.what());
    }
    watcher->fd.Reset(watcher->inotify.GetFd());
    if (initialised) {
        const std::lock_guard<std::mutex> lock(mutex_);
        watchers_.push_back(std::move(watcher));
    }
    return initialised;
}

void InotifyHost::Stop()
{
    for (const auto& watcher : Watchers()) {
        watcher->inotify.Stop();
    }
}

bool InotifyHost::Look(const std::string& path, struct stat& status)
{
    return lstat(path.c_str(), &status) == 0;
}

bool InotifyHost::ReadLink(const std::string& path, std::string& target)
{
    char text[PATH_MAX];
    const ssize_t length = readlink(path.c_str(), text, sizeof(text));
    target.assign(text, length < 0 ? 0 : static_cast<std::size_t>(length));
    return length > 0;
}

bool InotifyHost::ListDirectory(const std::string& path, std::vector<std::string>& names)
{
    return FileOperation::ListDirectory(path, names);
}

WatchId InotifyHost::AddWatch(const std::string& path, std::uint32_t mask, bool isDirectory, WatchId like)
{
    if (like != 0) {
        const std::uint32_t whole =
            mask | IN_DONT_FOLLOW |
            (isDirectory ? IN_MOVE | IN_CREATE | IN_DELETE | IN_DELETE_SELF | IN_MOVE_SELF : 0U);
        if (const WatchId same = AddLike(path, whole, like); same != 0) {
            return same;
        }
    }
    if (isFull_) {
        return 0;
    }
    for (std::size_t i = 0;; ++i) {
        const auto watchers = Watchers();
        InotifyWatcher& watcher = watchers[i]->inotify;
        const bool isLast = i + 1 == watchers.size();
        if (watcher.GetWatchCount() <= watcher.GetLimit()) {
            const int wd = watcher.AddWatch(path, mask);
            // Where one that may be read is refused the kernel has no more to give.
            isFull_ = wd == 0 && access(path.c_str(), R_OK) == 0;
            return IdOf(i, wd);
        }
        if (isLast && (watcher.GetLimit() < InotifyWatcher::kMaxLimit || !AddWatcher())) {
            isFull_ = true;
            return IdOf(i, watcher.AddWatch(path, mask));  // which it refuses, with a record
        }
    }
}

// By the watcher that is believed to watch the same file. 0 if that was wrong.
WatchId InotifyHost::AddLike(const std::string& path, std::uint32_t mask, WatchId like)
{
    const auto watcher = WatcherOf(like);
    if (watcher == nullptr) {
        return 0;
    }
    const int fd = watcher->inotify.GetFd();
    const int wd = inotify_add_watch(fd, path.c_str(), mask);
    if (wd <= 0) {
        return 0;
    }
    if (watcher->inotify.GetPathByWatch(wd).empty()) {  // a watch that nobody knows: of another file
        inotify_rm_watch(fd, wd);
        return 0;
    }
    return (like & ~WatchId{UINT32_MAX}) | static_cast<std::uint32_t>(wd);
}

// The kernel may have ended the watch already, which is no failure.
void InotifyHost::RemoveWatch(WatchId watch)
{
    if (const auto watcher = WatcherOf(watch); watcher != nullptr) {
        inotify_rm_watch(watcher->inotify.GetFd(), DescriptorOf(watch));
        watcher->inotify.RmInvalidWatch(DescriptorOf(watch));
        isFull_ = false;
    }
}

void InotifyHost::ForgetWatch(WatchId watch)
{
    if (const auto watcher = WatcherOf(watch); watcher != nullptr) {
        watcher->inotify.RmInvalidWatch(DescriptorOf(watch));
        isFull_ = false;
    }
}

void InotifyHost::ReadRecords(std::deque<WatchRecord>& records, std::size_t limit)
{
    const auto watchers = Watchers();
    std::vector<InotifyWatcher::Event> events;
    for (std::size_t i = 0; i < watchers.size(); ++i) {
        do {
            events.clear();
            watchers[i]->inotify.ReadEvent(events);
            for (InotifyWatcher::Event& event : events) {
                const bool isOwn = event.name[0] == '/';  // the path of the watch, not the name of an entry
                records.push_back(
                    {IdOf(i, event.wd), event.mask, event.cookie, isOwn ? std::string() : std::move(event.name)});
            }
        } while (!events.empty() && records.size() < limit);
    }
}

std::vector<std::shared_ptr<InotifyHost::Watcher>> InotifyHost::Watchers() const
{
    const std::lock_guard<std::mutex> lock(mutex_);
    return watchers_;
}

std::shared_ptr<InotifyHost::Watcher> InotifyHost::WatcherOf(WatchId watch) const
{
    const std::lock_guard<std::mutex> lock(mutex_);
    const std::size_t number = static_cast<std::size_t>(watch >> kNumberBits);
    return number == 0 || number > watchers_.size() ? nullptr : watchers_[number - 1];
}

std::vector<int> InotifyHost::Descriptors() const
{
    std::vector<int> descriptors;
    for (const auto& watcher : Watchers()) {
        descriptors.push_back(watcher->inotify.GetFd());
    }
    return descriptors;
}

std::size_t InotifyHost::CountWatches() const
{
    const auto watchers = Watchers();
    return std::accumulate(watchers.begin(), watchers.end(), std::size_t{0},
                           [](std::size_t sum, const auto& watcher) { return sum + watcher->inotify.GetWatchCount(); });
}

std::uint64_t InotifyHost::CountOverflows() const
{
    const auto watchers = Watchers();
    return std::accumulate(
        watchers.begin(), watchers.end(), std::uint64_t{0},
        [](std::uint64_t sum, const auto& watcher) { return sum + watcher->inotify.GetOverflowCount(); });
}

}  // namespace NEUtils
