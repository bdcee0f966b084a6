#include "monitor/inotify_session.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <exception>
#include <utility>

#include "hips_guard.h"
#include "logger.h"
#include "monitor/watch_scope.h"
#include "util/clock.h"
#include "util/errno_text.h"
#include "util/rate_limiter.h"

namespace NEUtils {

namespace {

constexpr std::size_t kMaxRecords = 262144;
constexpr std::size_t kRecordsPerTurn = 256;
constexpr std::size_t kCallsPerPause = 64;
constexpr int kWaitMs = 20000;
constexpr int kPairWaitMs = 5;      // for the second half of a rename
constexpr int kSuspectWaitMs = 20;  // before a path is looked at once more
constexpr int kNoMemoryWaitMs = 100;
constexpr std::int64_t kLossPeriodMs = 60000;

RateLimiter g_lossRecords(kLossPeriodMs);

}  // namespace

// The right to work on the tracker.
class InotifySession::Turn {
public:
    Turn(InotifySession& session, Turns::Wait wait) : session_(session), isMine_(session.turns_.Take(wait)) {}
    ~Turn()
    {
        if (isMine_) {
            session_.EndTurn();
        }
    }
    Turn(const Turn&) = delete;
    Turn& operator=(const Turn&) = delete;
    [[nodiscard]] bool IsMine() const { return isMine_; }

private:
    InotifySession& session_;
    const bool isMine_;
};

InotifySession::InotifySession() : host_([this] { return GoOn(); }), tracker_(host_) {}

InotifySession::~InotifySession() = default;

bool InotifySession::Init()
{
    const bool initialised = host_.Init();
    wakeEvent_.Reset(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (initialised && !wakeEvent_.IsValid()) {
        const int error = errno;
        NE_LOG(ERROR, "File monitor has no event to stop by.[errorInfo=%s]", ErrnoText(error).Get());
    }
    mounts_.Open();
    HandleMounts();
    return initialised && wakeEvent_.IsValid();
}

// Gives the turn up. After a stop nobody needs what is known any more.
void InotifySession::EndTurn()
{
    Notifications notifications = tracker_.TakeNotifications();
    lacking_ = tracker_.CountLacking();
    hasMoves_ = tracker_.HasMoves();
    hasSuspects_ = tracker_.HasSuspects();
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        notifications_.splice(notifications_.end(), notifications);
    }
    while (!turns_.EndUnless([this] { return stopping_ && !isCleared_; })) {
        isCleared_ = true;
        try {
            tracker_.Clear();
        } catch (const std::exception&) {
            CountLoss();
        }
    }
}

void InotifySession::Stop()
{
    stopping_ = true;
    Wake();
    WatchRuleList rules;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        rules.swap(rules_);
    }
    for (const WatchRulePtr& rule : rules) {
        rule->gate.Close();
    }
    {
        const Turn turn(*this, Turns::kShortly);
    }  // or whoever has it clears what is known, soon
    host_.Stop();
}

void InotifySession::Wake() const
{
    const std::uint64_t one = 1;
    static_cast<void>(!write(wakeEvent_.Get(), &one, sizeof(one)));
}

WatchRulePtr InotifySession::Find(const Rule& rule) const
{
    const auto found = std::find_if(rules_.begin(), rules_.end(),
                                    [&rule](const WatchRulePtr& other) { return Monitor::IsSame(other->given, rule); });
    return found == rules_.end() ? nullptr : *found;
}

bool InotifySession::AddRule(const Rule& rule)
{
    const auto added = std::make_shared<WatchRule>(rule);
    bool isNew = false;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        isNew = !stopping_ && Find(rule) == nullptr;
        if (isNew) {
            rules_.push_back(added);
        }
    }
    if (!isNew) {
        NE_LOG(ERROR, "Watch rule is there already.[path=%s]", rule.path.c_str());
        return false;
    }
    const bool isAdded = AddToTracker(added);
    if (!isAdded) {
        const std::lock_guard<std::mutex> lock(mutex_);
        rules_.erase(std::remove(rules_.begin(), rules_.end(), added), rules_.end());
    }
    LogLack();
    Wake();
    return isAdded;
}

bool InotifySession::AddToTracker(const WatchRulePtr& added)
{
    const Rule& rule = added->given;
    FileTracker::Added result = FileTracker::Added::kNoRoom;
    try {
        const Turn turn(*this, Turns::kUntilFree);
        if (stopping_) {
            return false;
        }
        result = tracker_.AddRule(added);
    } catch (const std::exception&) {
        CountLoss();  // the comparison removes what there is of the rule
    }
    struct stat status = {};
    if (result == FileTracker::Added::kMissing) {
        NE_LOG(ERROR, "Watch rule has no such path.[errorInfo=%s path=%s]", ErrnoText(ENOENT).Get(), rule.path.c_str());
    } else if (result != FileTracker::Added::kYes) {
        NE_LOG(ERROR, "Watch rule is refused.[reason=%s path=%s]",
               result == FileTracker::Added::kPseudo ? "a pseudo file system" : "no room for a watch",
               rule.path.c_str());
    } else if (!rule.recursive && lstat(rule.path.c_str(), &status) == 0 && S_ISLNK(status.st_mode)) {
        NE_LOG(INFO, "Watch rule is for a link, not for what it leads to.[path=%s]", rule.path.c_str());
    }
    return result == FileTracker::Added::kYes;
}

bool InotifySession::RemoveRule(const Rule& rule)
{
    WatchRulePtr removed;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        removed = Find(rule);
        rules_.erase(std::remove(rules_.begin(), rules_.end(), removed), rules_.end());
    }
    if (removed == nullptr) {
        return false;
    }
    try {
        const Turn turn(*this, Turns::kUntilFree);
        tracker_.RemoveRule(removed);
    } catch (const std::exception&) {
        CountLoss();  // the comparison removes the rest
    }
    removed->gate.Close();  // without the turn, which a callback may wait for
    return true;
}

Monitor::WatchState InotifySession::GetState(const Rule& rule) const
{
    const std::lock_guard<std::mutex> lock(mutex_);
    const WatchRulePtr found = Find(rule);
    if (found == nullptr) {
        return Monitor::kNotWatched;
    }
    return found->isThere ? Monitor::kWatching : Monitor::kWaiting;
}

void InotifySession::Run()
{
    runner_ = std::this_thread::get_id();
    while (!stopping_) {
        try {
            RunOnce();
        } catch (const std::exception&) {
            CountLoss();
            LogLosses();
            pollfd stop = {wakeEvent_.Get(), POLLIN, 0};
            poll(&stop, 1, kNoMemoryWaitMs);
        }
    }
    runner_ = std::thread::id();
}

void InotifySession::RunOnce()
{
    WaitForWork();
    KeepCurrentThreadAlive();
    TakeRecords();
    if (const Turn turn(*this, Turns::kShortly); turn.IsMine() && !stopping_) {
        HandleRecords();
    }
    LogLosses();
    LogLack();
    Deliver();
}

// Memory has run out. What is known may differ from what is there, and how much is lost nobody knows.
void InotifySession::CountLoss()
{
    ++losses_;
    mounts_.SetChanged();
    hasLost_ = true;
}

// Without the turn.
void InotifySession::LogLosses()
{
    if (std::exchange(loggedOverflows_, overflows_) != overflows_) {
        NE_LOG(WARN, "Inotify queue has overflowed, the watched files are compared.[count=%llu]",
               static_cast<unsigned long long>(overflows_));
    }
    if (losses_ != loggedLosses_ && g_lossRecords.Allow(Clock::MonotonicNs() / Clock::kNsPerMs)) {
        loggedLosses_ = losses_.load();
        NE_LOG(ERROR, "Memory has run out, file events may be lost, the watched files are compared.[count=%llu]",
               static_cast<unsigned long long>(loggedLosses_));
    }
}

void InotifySession::WaitForWork()
{
    std::vector<pollfd> wanted = {{wakeEvent_.Get(), POLLIN, 0}, {mounts_.GetFd(), POLLPRI, 0}};
    for (const int fd : host_.Descriptors()) {
        wanted.push_back({fd, POLLIN, 0});
    }
    int waitMs = kWaitMs;
    if (!records_.empty() || mounts_.IsChanged() || hasLost_) {
        waitMs = 0;
    } else if (hasMoves_) {
        waitMs = kPairWaitMs;
    } else if (hasSuspects_) {
        waitMs = kSuspectWaitMs;
    }
    const int ready = poll(wanted.data(), wanted.size(), waitMs);
    std::uint64_t count = 0;
    if (ready > 0 && wanted[0].revents != 0 && !stopping_) {
        static_cast<void>(!read(wakeEvent_.Get(), &count, sizeof(count)));
    }
    if (ready > 0 && (wanted[1].revents & POLLPRI) != 0) {
        mounts_.SetChanged();
    }
}

void InotifySession::TakeRecords()
{
    try {
        if (records_.size() < kMaxRecords) {
            host_.ReadRecords(records_, kMaxRecords);
        }
    } catch (const std::exception&) {
        CountLoss();
    }
    waiting_ = records_.size();
}

// During long work of the tracker.
bool InotifySession::GoOn()
{
    KeepCurrentThreadAlive();
    if (std::this_thread::get_id() == runner_.load()) {
        TakeRecords();
    }
    return !stopping_;
}

void InotifySession::HandleMounts()
{
    std::string text;
    if (!mounts_.TakeChange()) {
        tracker_.KeepMounts();
    } else if (mounts_.Read(text)) {
        tracker_.SetMounts(text);
    }
}

void InotifySession::HandleRecords()
{
    HandleMounts();
    for (std::size_t i = 0; i < kRecordsPerTurn && !records_.empty() && !stopping_; ++i) {
        const WatchRecord record = std::move(records_.front());
        records_.pop_front();
        try {
            tracker_.Handle(record, Clock::MonotonicNs());
        } catch (const std::exception&) {
            CountLoss();
        }
    }
    waiting_ = records_.size();
    if (records_.empty() && !stopping_) {
        HandleQuiet();
    }
}

// All records are handled.
void InotifySession::HandleQuiet()
{
    const std::int64_t now = Clock::MonotonicNs();
    tracker_.EndMovesBefore(now - kPairWaitMs * Clock::kNsPerMs);
    if (now - triedRoomNs_ >= kWaitMs * Clock::kNsPerMs) {
        triedRoomNs_ = now;
        host_.TryRoomAgain();
    }
    TakeRecords();
    if (!records_.empty() || tracker_.HasMoves()) {
        return;
    }
    if (const std::uint64_t overflows = host_.CountOverflows(); overflows != overflows_) {
        overflows_ = overflows;
        hasLost_ = true;
    }
    if (hasLost_) {
        tracker_.Compare();
        hasLost_ = false;
    }
    tracker_.LookAgain();
}

// Once for each rule, until it has all its watches.
void InotifySession::LogLack()
{
    std::vector<FileTracker::Lack> lacks;
    if (lacking_ == 0 && !hasLoggedLack_) {
        return;
    }
    if (const Turn turn(*this, Turns::kShortly); turn.IsMine()) {
        hasLoggedLack_ = lacking_ > 0;
        lacks = tracker_.TakeNewLacks();
    }
    for (const auto& [path, lacking] : lacks) {
        NE_LOG(WARN, "Watch rule cannot have all its directories.[lacking=%zu path=%s]", lacking, path.c_str());
    }
}

void InotifySession::Deliver()
{
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        delivered_.splice(delivered_.end(), notifications_);
    }
    for (std::size_t calls = 0; !delivered_.empty() && !stopping_; delivered_.pop_front()) {
        Call(delivered_.front());
        if (++calls % kCallsPerPause == 0) {
            KeepCurrentThreadAlive();
            TakeRecords();
        }
    }
}

void InotifySession::Call(const Notification& notification)
{
    const Monitor::FileEvent& event = notification.event;
    const Rule& rule = notification.rule->given;
    try {
        notification.rule->gate.Call([&] { rule.callback(event, rule.userData); });
    } catch (const std::exception& error) {
        NE_LOG(ERROR, "File event callback has failed.[error=%s]", error.what());
    } catch (...) {
        NE_LOG(ERROR, "File event callback has failed.[path=%s]", event.path.c_str());
    }
}

}  // namespace NEUtils
