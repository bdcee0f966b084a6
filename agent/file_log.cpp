#include "file_log.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <memory>

#include "hips_guard.h"
#include "logger.h"
#include "process_log.h"
#include "report.h"

namespace {

using NEUtils::Monitor::FileEvent;

constexpr int kSliceUs = 100000;
constexpr int kWaitMs = 20000;
constexpr int kRetryMs = 1000;
constexpr std::size_t kReadSize = 4800;

std::string ActionOf(const FileEvent& event)
{
    return !event.oldPath.empty() ? "rename" : WatchEventNames(event.mask);
}

}  // namespace

void FileLog::Start(const std::vector<NEUtils::Monitor::FileWatchRule>& watches, const std::vector<FileGuard>& guards,
                    const std::string& ownLog, bool report)
{
    const std::size_t slash = ownLog.rfind('/');
    const std::unique_ptr<char, decltype(&std::free)> folder(realpath(ownLog.substr(0, slash).c_str(), nullptr),
                                                             &std::free);
    ownLog_ =
        (folder == nullptr ? ownLog.substr(0, slash) : folder.get()) + ownLog.substr(slash);  // events have real paths
    report_ = report;
    watching_ = !watches.empty() && NEUtils::Monitor::InitFileMonitor();
    for (NEUtils::Monitor::FileWatchRule rule : watches) {
        rule.callback = &OnChange;
        rule.userData = this;
        if (watching_ && NEUtils::Monitor::AddMonitor(rule, NEUtils::Monitor::kAnyMonitor)) {
            NE_LOG(INFO, "Files are watched.[path=%s recursive=%d]", rule.path.c_str(), rule.recursive ? 1 : 0);
        }
    }
    if (!guards.empty()) {
        StartGuards(guards);
    }
}

void FileLog::StartGuards(const std::vector<FileGuard>& guards)
{
    stopEvent_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    const auto onAccess = [this](int pid, const std::string& path, std::uint64_t mask, bool) {
        OnAccess(pid, path, mask);
    };
    if (stopEvent_ < 0 || !watcher_.Init(onAccess)) {
        NE_LOG(WARN, "Guarded files are not watched.[missing=CAP_SYS_ADMIN]");
        return;
    }
    for (const FileGuard& guard : guards) {
        if (watcher_.AddWatch(guard.path, guard.mask)) {
            NE_LOG(INFO, "File is guarded.[path=%s]", guard.path.c_str());
        } else {
            NE_LOG(ERROR, "File cannot be guarded.[path=%s]", guard.path.c_str());
        }
    }
    thread_ = CreateHipsThreadEx(&AccessThread, this, kSliceUs, "FileAccess");
}

void FileLog::Stop()
{
    if (watching_) {
        NEUtils::Monitor::DeInitFileMonitor();
    }
    if (thread_ != 0) {
        const std::uint64_t one = 1;
        static_cast<void>(!write(stopEvent_, &one, sizeof(one)));
        StopHipsThreadEx(thread_);
        CloseHipsThreadHandleEx(thread_);
        thread_ = 0;
        watcher_.DeInit();
    }
}

// Waits, reads, and has the watcher decode and call back; ends with the stop event.
int FileLog::AccessThread(void* self)
{
    auto& own = *static_cast<FileLog*>(self);
    alignas(fanotify_event_metadata) char records[kReadSize];
    for (;;) {
        pollfd wanted[] = {{own.watcher_.GetFd(), POLLIN, 0}, {own.stopEvent_, POLLIN, 0}};
        const int ready = poll(wanted, std::size(wanted), kWaitMs);
        KeepCurrentThreadAlive();
        if (ready > 0 && wanted[1].revents != 0) {
            return 1;
        }
        const ssize_t count = ready > 0 ? read(own.watcher_.GetFd(), records, sizeof(records)) : 0;
        const int error = errno;
        if (count > 0) {
            own.watcher_.HandleEvent(records, count);
        } else if (count < 0 && error != EAGAIN) {  // no descriptors left, say: one event is lost with it
            NE_LOG(ERROR, "Use of a guarded file could not be read.[errorInfo=%s]", std::strerror(error));
            poll(&wanted[1], 1, kRetryMs);
        }
    }
}

bool FileLog::IsOwn(const std::string& path) const
{
    return path.compare(0, ownLog_.size(), ownLog_) == 0 &&
           (path.size() == ownLog_.size() || path[ownLog_.size()] == '.');
}

void FileLog::OnChange(const FileEvent& event, void* self)
{
    const auto& own = *static_cast<FileLog*>(self);
    if (own.IsOwn(event.path)) {
        return;
    }
    const std::string action = ActionOf(event);
    // Of the text only what has changed: the path is told by itself.
    const std::string change = event.change.empty() ? "" : event.change.substr(event.path.size() + 1);
    NE_LOG(INFO, "File changed.[action=%s change=%s oldPath=%s path=%s]", action.c_str(), change.c_str(),
           Printable(event.oldPath).c_str(), Printable(event.path).c_str());
    if (own.report_) {
        Report(NEUtils::kMsgFile)
            .Add(NEUtils::kTagAction, action)
            .Add(NEUtils::kTagChange, change)
            .Add(NEUtils::kTagOldPath, event.oldPath)
            .Add(NEUtils::kTagPath, event.path)
            .Push();
    }
}

void FileLog::OnAccess(int pid, const std::string& path, std::uint64_t mask) const
{
    if (IsOwn(path)) {
        return;
    }
    const std::string action = GuardEventNames(mask);
    std::string user;
    std::string cmdLine;
    DescribeProcess(pid, user, cmdLine);
    NE_LOG(INFO, "File accessed.[action=%s pid=%d user=%s path=%s cmdLine=%s]", action.c_str(), pid, user.c_str(),
           Printable(path).c_str(), cmdLine.c_str());
    if (report_) {
        Report(NEUtils::kMsgAccess)
            .Add(NEUtils::kTagAction, action)
            .Add(NEUtils::kTagPid, pid)
            .Add(NEUtils::kTagUser, user)
            .Add(NEUtils::kTagPath, path)
            .Add(NEUtils::kTagCmdLine, cmdLine)
            .Push();
    }
}
