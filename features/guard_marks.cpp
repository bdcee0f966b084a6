#include "guard_marks.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <cerrno>

#include "event.h"
#include "logger.h"
#include "loop_thread.h"
#include "util/clock.h"
#include "util/errno_text.h"

namespace {

using NEUtils::Clock::kNsPerMs;

constexpr std::int64_t kLookPeriodMs = 60000;
constexpr std::int64_t kLogPeriodMs = 1000;

std::int64_t NowMs()
{
    return NEUtils::Clock::MonotonicNs() / kNsPerMs;
}

}  // namespace

bool GuardMarks::Start(const NEUtils::FanotifyWatcher& watcher, const std::vector<FileGuard>& guards)
{
    watcher_ = &watcher;
    if (!names_.Init()) {
        const int error = errno;
        NE_LOG(WARN, "Guarded files that are replaced are noticed within a minute only.[errorInfo=%s]",
               NEUtils::ErrnoText(error).Get());
    }
    for (const FileGuard& rule : guards) {
        guards_.push_back({rule});
        LookAt(guards_.size() - 1);
        LogStart(guards_.back());
        guards_.back().loggedState = guards_.back().state;
    }
    lookedAtMs_ = NowMs();
    Count();
    return std::any_of(guards_.begin(), guards_.end(), [](const Guard& guard) { return guard.state != kRefused; });
}

void GuardMarks::LookAtNames()
{
    for (const std::size_t number : names_.Read()) {
        LookAt(number);
    }
    Count();
}

void GuardMarks::LookAtAll()
{
    lookedAtMs_ = NowMs();
    for (std::size_t number = 0; number < guards_.size(); ++number) {
        LookAt(number);
    }
    Count();
}

void GuardMarks::Tick()
{
    const std::int64_t now = NowMs();
    if (now - lookedAtMs_ >= kLookPeriodMs) {
        LookAtAll();
    }
    for (Guard& guard : guards_) {
        if (guard.changes > 0 && (guard.loggedAtMs == 0 || now - guard.loggedAtMs >= kLogPeriodMs)) {
            LogChange(guard, now);
        }
    }
}

int GuardMarks::GetWaitMs() const
{
    const bool isDue =
        std::any_of(guards_.begin(), guards_.end(), [](const Guard& guard) { return guard.changes > 0; });
    return isDue ? static_cast<int>(kLogPeriodMs) : LoopThread::kMostWaitMs;
}

// The names are watched before the mark is set: what changes in between is looked at again.
void GuardMarks::LookAt(std::size_t number)
{
    Guard& guard = guards_[number];
    if (names_.GetFd() >= 0 && !names_.Follow(number, guard.rule.path)) {
        const int error = errno;
        if (faultLogs_.Allow(NowMs())) {
            NE_LOG(WARN, "Guarded file that is replaced is noticed within a minute only.[errorInfo=%s path=%s]",
                   Quoted(NEUtils::ErrnoText(error).Get()).c_str(), guard.rule.path.c_str());
        }
    }
    if (Mark(guard) && guard.state == kMarked) {
        ++marks_;
    }
}

// True where it is not as it was.
bool GuardMarks::Mark(Guard& guard)
{
    Identity identity;
    const State state = TryMark(guard, identity);
    const bool changed = state != guard.state || identity != guard.identity;
    guard.changes += changed && guard.state != kNew ? 1 : 0;
    guard.state = state;
    guard.identity = identity;
    return changed;
}

// Also a file that was marked before is marked once more: it may be another one with the old one's number.
GuardMarks::State GuardMarks::TryMark(Guard& guard, Identity& identity)
{
    const char* path = guard.rule.path.c_str();
    struct statx status = {};
    if (statx(AT_FDCWD, path, 0, STATX_INO | STATX_BTIME, &status) != 0) {
        return kMissing;
    }
    identity = {makedev(status.stx_dev_major, status.stx_dev_minor), status.stx_ino, status.stx_btime.tv_sec,
                status.stx_btime.tv_nsec};
    if (ownFiles_.AreAt(path)) {
        guard.reason = "the agent's own log is there";
        return kRefused;
    }
    if (watcher_->AddWatch(path, guard.rule.mask)) {
        return kMarked;
    }
    guard.reason = NEUtils::ErrnoText(errno).Get();
    return kRefused;
}

void GuardMarks::MoveTo(const NEUtils::FanotifyWatcher& watcher)
{
    watcher_ = &watcher;
    marks_ = 0;
    for (Guard& guard : guards_) {
        Mark(guard);
    }
    Count();
}

void GuardMarks::Count()
{
    const auto countIn = [this](State state) {
        return static_cast<std::uint64_t>(std::count_if(guards_.begin(), guards_.end(),
                                                        [state](const Guard& guard) { return guard.state == state; }));
    };
    counters_.watches = countIn(kMarked);
    counters_.waiting = countIn(kMissing);
    counters_.lacking = countIn(kRefused);
}

void GuardMarks::LogStart(const Guard& guard)
{
    const char* path = guard.rule.path.c_str();
    if (guard.state == kMarked) {
        NE_LOG(INFO, "File is guarded.[path=%s]", path);
    } else if (guard.state == kMissing) {
        NE_LOG(WARN, "File to be guarded is not there, it is waited for.[path=%s]", path);
    } else {
        NE_LOG(ERROR, "File cannot be guarded.[reason=%s path=%s]", Quoted(guard.reason).c_str(), path);
    }
}

void GuardMarks::LogChange(Guard& guard, std::int64_t nowMs)
{
    const char* action = guard.state == kMissing                                          ? "missing"
                         : guard.state == kRefused                                        ? "unguarded"
                         : guard.loggedState == kMissing || guard.loggedState == kRefused ? "guarded"
                                                                                          : "replaced";
    Event change({NEUtils::kMsgFile, "file", "Guarded file changed."}, NEUtils::Clock::WallMs());
    change.Add("action", NEUtils::kTagAction, action);
    if (guard.changes > 1) {
        change.AddCount(guard.changes);
    }
    change.Send("path", NEUtils::kTagPath, guard.rule.path);
    if (guard.state == kRefused) {
        LogStart(guard);
    }
    guard.loggedState = guard.state;
    guard.loggedAtMs = nowMs;
    guard.changes = 0;
}
