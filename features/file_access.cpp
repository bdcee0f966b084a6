// The feature file_access: tells which process touches guarded files.
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "describe.h"
#include "fanotify_watcher.h"
#include "feature.h"
#include "feature_counters.h"
#include "file_rules.h"
#include "hips_guard.h"
#include "logger.h"
#include "own_log.h"
#include "policy_text.h"
#include "report.h"

namespace {

constexpr int kSliceUs = 10000;
constexpr int kWaitMs = 20000;
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
    FileAccess() = default;
    ~FileAccess()
    {
        if (thread_ != 0) {
            const std::uint64_t one = 1;
            static_cast<void>(!write(stopEvent_, &one, sizeof(one)));
            StopHipsThreadEx(thread_);
            CloseHipsThreadHandleEx(thread_);
        }
        if (stopEvent_ >= 0) {
            close(stopEvent_);
        }
        counters_.watches = 0;
        counters_.lacking = 0;
    }
    FileAccess(const FileAccess&) = delete;
    FileAccess& operator=(const FileAccess&) = delete;

    // As far as it can; false, with a record, if there is nothing that could be guarded.
    bool Watch(const std::vector<FileGuard>& guards)
    {
        const auto onAccess = [this](int pid, const std::string& path, std::uint64_t mask, bool) {
            Handle(pid, path, mask);
        };
        if (!watcher_.Init(onAccess)) {  // for want of CAP_SYS_ADMIN, as a rule
            NE_LOG(ERROR, "Guarded files are not watched.[errorInfo=%s]", std::strerror(errno));
            return false;
        }
        for (const FileGuard& guard : guards) {
            ++(Mark(guard) ? counters_.watches : counters_.lacking);
        }
        return counters_.watches > 0 && StartThread();
    }

private:
    // Each record about the agent's own log would be the next use of it, which the watcher tells by itself.
    bool Mark(const FileGuard& guard) const
    {
        const bool isOwn = ownLog_.IsIn(guard.path);
        if (!isOwn && watcher_.AddWatch(guard.path, guard.mask)) {
            NE_LOG(INFO, "File is guarded.[path=%s]", guard.path.c_str());
            return true;
        }
        NE_LOG(ERROR, "File cannot be guarded.[path=%s reason=%s]", guard.path.c_str(),
               isOwn ? "the agent's own log is there" : std::strerror(errno));
        return false;
    }

    bool StartThread()
    {
        stopEvent_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
        if (stopEvent_ < 0) {
            NE_LOG(ERROR, "Guarded files are not watched.[errorInfo=%s]", std::strerror(errno));
            return false;
        }
        thread_ = CreateHipsThreadEx(&FileAccess::Thread, this, kSliceUs, "FileAccess");
        return thread_ != 0;
    }

    // One round: waits, reads, and has the watcher decode and call back; ends with the stop event.
    static int Thread(void* self)
    {
        auto& own = *static_cast<FileAccess*>(self);
        while (own.WaitAndRead()) {
            KeepCurrentThreadAlive();
        }
        return 1;
    }

    bool WaitAndRead()
    {
        pollfd wanted[] = {{watcher_.GetFd(), POLLIN, 0}, {stopEvent_, POLLIN, 0}};
        const int ready = poll(wanted, std::size(wanted), kWaitMs);
        if (ready > 0 && wanted[1].revents != 0) {
            return false;
        }
        if (ready > 0) {
            Read(wanted[1]);
        }
        return true;
    }

    void Read(pollfd& stop)
    {
        alignas(fanotify_event_metadata) char records[kReadSize];
        const ssize_t count = read(watcher_.GetFd(), records, sizeof(records));
        const int error = errno;
        if (count > 0) {
            watcher_.HandleEvent(records, count);
        } else if (count < 0 && error != EAGAIN) {  // no descriptors left, say: one event is lost with it
            ++counters_.lost;
            NE_LOG(ERROR, "Use of a guarded file could not be read.[errorInfo=%s]", std::strerror(error));
            poll(&stop, 1, kRetryMs);
        }
        const std::uint64_t overflows = watcher_.GetOverflowCount();
        counters_.lost += overflows - std::exchange(overflows_, overflows);
    }

    void Handle(int pid, const std::string& path, std::uint64_t mask)
    {
        ++counters_.seen;
        if (ownLog_.Holds(path)) {
            ++counters_.filtered;
            return;
        }
        const std::string action = GuardEventNames(mask);
        std::string user;
        std::string cmdLine;
        DescribeProcess(pid, user, cmdLine);
        NE_LOG(INFO, "File accessed.[action=%s pid=%d user=%s path=%s cmdLine=%s]", action.c_str(), pid, user.c_str(),
               NEUtils::Printable(path).c_str(), cmdLine.c_str());
        NEUtils::Report(NEUtils::kMsgAccess)
            .Add(NEUtils::kTagAction, action)
            .Add(NEUtils::kTagPid, pid)
            .Add(NEUtils::kTagUser, user)
            .Add(NEUtils::kTagPath, path)
            .Add(NEUtils::kTagCmdLine, cmdLine)
            .Push();
    }

    NEUtils::FeatureCounters& counters_ = NEUtils::FeatureCounters::Of(kFeatureName);
    const OwnLog ownLog_;
    NEUtils::FanotifyWatcher watcher_;
    std::uint64_t overflows_ = 0;
    int stopEvent_ = -1;
    std::uintptr_t thread_ = 0;
};

std::unique_ptr<FileAccess> g_access;

}  // namespace

const char kFeatureName[] = "file_access";

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
