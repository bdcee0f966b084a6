// The feature file_access: logs and reports which process uses guarded files.
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <iterator>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "describe.h"
#include "event.h"
#include "fanotify_watcher.h"
#include "feature.h"
#include "feature_counters.h"
#include "file_rules.h"
#include "guard_marks.h"
#include "logger.h"
#include "loop_thread.h"
#include "own_files.h"
#include "policy_text.h"
#include "util/clock.h"
#include "util/errno_text.h"
#include "util/rate_limiter.h"

namespace {

constexpr int kRetryMs = 1000;
constexpr std::size_t kReadSize = 4800;

std::string ReadGuards(const std::string& policy, std::vector<FileGuard>& guards)
{
    const auto take = [&guards](const std::string& value) {
        return guards.size() == kMaxPolicyRules ? "is one rule too many" : ParseGuard(value, guards.emplace_back());
    };
    const std::string fault = ReadPolicy(policy, {{"guard", take}});
    return fault.empty() && guards.empty() ? "it has no guard" : fault;
}

// Watches as long as it lives, on a guarded thread of its own.
class FileAccess {
public:
    FileAccess() : marks_(counters_) {}
    ~FileAccess()
    {
        thread_.Stop();
        counters_.watches = 0;
        counters_.waiting = 0;
        counters_.lacking = 0;
    }
    FileAccess(const FileAccess&) = delete;
    FileAccess& operator=(const FileAccess&) = delete;

    // As far as it can; false, with a record, if there is nothing that could be guarded.
    bool Watch(const std::vector<FileGuard>& guards)
    {
        source_ = MakeSource();
        const int error = errno;
        if (!source_) {  // for want of CAP_SYS_ADMIN, as a rule
            NE_LOG(ERROR, "Guarded files are not watched.[errorInfo=%s]", NEUtils::ErrnoText(error).Get());
            return false;
        }
        return marks_.Start(source_->watcher, guards) &&
               thread_.Start("FileAccess", [this](int stopFd) { WaitAndRead(stopFd); });
    }

private:
    struct Source {
        NEUtils::FanotifyWatcher watcher;
        std::uint64_t overflows = 0;  // that have been counted
    };

    // Null, and errno, where the kernel gives none.
    std::unique_ptr<Source> MakeSource()
    {
        auto source = std::make_unique<Source>();
        const auto onAccess = [this](int pid, const std::string& path, std::uint64_t mask, bool) {
            Handle(pid, path, mask);
        };
        return source->watcher.Init(onAccess) ? std::move(source) : nullptr;
    }

    void WaitAndRead(int stopFd)
    {
        pollfd wanted[] = {{stopFd, POLLIN, 0},
                           {source_->watcher.GetFd(), POLLIN, 0},
                           {marks_.GetNames().GetFd(), POLLIN, 0},
                           {marks_.GetNames().GetMountFd(), POLLPRI, 0},
                           {former_ ? former_->watcher.GetFd() : -1, POLLIN, 0}};
        poll(wanted, std::size(wanted), marks_.GetWaitMs());
        if (wanted[0].revents != 0) {
            return;
        }
        if (wanted[2].revents != 0) {  // before the uses: the new file's may be among the next ones
            marks_.LookAtNames();
        }
        if (wanted[3].revents != 0) {
            marks_.LookAtAll();
        }
        marks_.Tick();
        if (wanted[4].revents != 0) {  // earlier ones
            ReadUses(*former_, stopFd);
        } else {
            former_.reset();
        }
        if (wanted[1].revents != 0) {
            ReadUses(*source_, stopFd);
        }
        if (marks_.HasManyOldMarks() && !former_) {
            ForgetOldMarks();
        }
    }

    // The kernel takes marks off one by one by the paths of their files, which are not known any more, or all at once.
    // So another source gets the marks that are wanted before the former one loses its own, and what that has seen is
    // still read. A use in between comes from both; none is missed.
    void ForgetOldMarks()
    {
        auto source = MakeSource();
        const int error = errno;
        if (!source) {  // until the next change
            if (faultLogs_.Allow(NEUtils::Clock::MonotonicNs() / NEUtils::Clock::kNsPerMs)) {
                NE_LOG(WARN, "Files that were guarded before cannot be forgotten.[errorInfo=%s]",
                       NEUtils::ErrnoText(error).Get());
            }
            return;
        }
        marks_.MoveTo(source->watcher);
        former_ = std::exchange(source_, std::move(source));
        fanotify_mark(former_->watcher.GetFd(), FAN_MARK_FLUSH, 0, AT_FDCWD, nullptr);
    }

    void ReadUses(Source& source, int stopFd)
    {
        alignas(fanotify_event_metadata) char records[kReadSize];
        const ssize_t count = read(source.watcher.GetFd(), records, sizeof(records));
        const int error = errno;
        if (count > 0) {
            source.watcher.HandleEvent(records, count);
        } else if (count < 0 && error != EAGAIN && error != EINTR) {  // no descriptors left, say
            ++counters_.lost;  // the kernel drops the one event that it has failed to hand over
            NE_LOG(ERROR, "Use of a guarded file could not be read.[errorInfo=%s]", NEUtils::ErrnoText(error).Get());
            WaitFor(stopFd, kRetryMs);
        }
        const std::uint64_t overflows = source.watcher.GetOverflowCount();
        counters_.overflows += overflows - std::exchange(source.overflows, overflows);
    }

    void Handle(int pid, const std::string& path, std::uint64_t mask)
    {
        ++counters_.seen;
        if (ownFiles_.Hold(path, nullptr)) {
            ++counters_.filtered;
            return;
        }
        std::string user;
        std::string cmdLine;
        DescribeProcess(pid, user, cmdLine);
        Event({NEUtils::kMsgAccess, "access", "File accessed."}, NEUtils::Clock::WallMs())
            .Add("action", NEUtils::kTagAction, GuardEventNames(mask))
            .Add("pid", NEUtils::kTagPid, pid)
            .Add("user", NEUtils::kTagUser, user)
            .Add("path", NEUtils::kTagPath, path)
            .Send("cmdLine", NEUtils::kTagCmdLine, cmdLine);
    }

    NEUtils::FeatureCounters& counters_ = NEUtils::FeatureCounters::Of(kFeatureName);
    OwnFiles ownFiles_;
    GuardMarks marks_;
    std::unique_ptr<Source> source_;
    std::unique_ptr<Source> former_;  // until what it has seen is read
    NEUtils::RateLimiter faultLogs_{3600000};
    LoopThread thread_;
};

std::unique_ptr<FileAccess> g_access;

}  // namespace

const char kFeatureName[] = "file_access";

std::string FindPolicyFault(const std::string& policy)
{
    std::vector<FileGuard> guards;
    return ReadGuards(policy, guards);
}

bool StartFeature(const std::string& policy)
{
    std::vector<FileGuard> guards;
    const std::string fault = ReadGuards(policy, guards);
    if (!fault.empty()) {
        LogRefusal(kFeatureName, fault);
        return false;
    }
    auto access = std::make_unique<FileAccess>();
    if (!access->Watch(guards)) {
        return false;
    }
    g_access = std::move(access);
    return true;
}

void StopFeature()
{
    g_access.reset();
}
