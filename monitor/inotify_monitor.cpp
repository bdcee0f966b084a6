#include "inotify_monitor.h"

#include <sys/inotify.h>

#include <utility>

#include "logger.h"
#include "monitor/inotify_session.h"

namespace NEUtils {

namespace {

// The same path is always written the same way.
Monitor::FileWatchRule Settled(Monitor::FileWatchRule rule)
{
    while (rule.path.size() > 1 && rule.path.back() == '/') {
        rule.path.pop_back();
    }
    return rule;
}

}  // namespace

bool InotifyMonitor::Init()
{
    if (Session() != nullptr) {
        return true;
    }
    auto session = std::make_shared<InotifySession>();
    if (!session->Init()) {
        return false;
    }
    const std::lock_guard<std::mutex> lock(mutex_);
    if (session_ == nullptr) {  // nobody was faster
        session_ = std::move(session);
    }
    return true;
}

void InotifyMonitor::DeInit()
{
    std::shared_ptr<InotifySession> session;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        session.swap(session_);
    }
    if (session != nullptr) {
        session->Stop();
    }
}

std::shared_ptr<InotifySession> InotifyMonitor::Session()
{
    const std::lock_guard<std::mutex> lock(mutex_);
    return session_;
}

bool InotifyMonitor::AddRule(const Monitor::FileWatchRule& rule)
{
    const auto session = Session();
    if (session == nullptr || rule.path.empty() || rule.path[0] != '/' || rule.callback == nullptr ||
        (rule.mask & IN_ALL_EVENTS) == 0) {
        NE_LOG(ERROR, "Watch rule is refused.[reason=%s path=%s]",
               session == nullptr ? "no monitor runs" : "path not absolute, no event wanted, or no callback",
               rule.path.c_str());
        return false;
    }
    return session->AddRule(Settled(rule));
}

bool InotifyMonitor::RemoveRule(const Monitor::FileWatchRule& rule)
{
    const auto session = Session();
    return session != nullptr && session->RemoveRule(Settled(rule));
}

Monitor::WatchState InotifyMonitor::GetWatchState(const Monitor::FileWatchRule& rule)
{
    const auto session = Session();
    return session == nullptr ? Monitor::kNotWatched : session->GetState(Settled(rule));
}

void InotifyMonitor::ReadEvent()
{
    if (const auto session = Session(); session != nullptr) {
        session->Run();
    }
}

std::size_t InotifyMonitor::GetWatchCount()
{
    const auto session = Session();
    return session == nullptr ? 0 : session->GetWatchCount();
}

std::size_t InotifyMonitor::GetLackingCount()
{
    const auto session = Session();
    return session == nullptr ? 0 : session->GetLackingCount();
}

std::uint64_t InotifyMonitor::GetOverflowCount()
{
    const auto session = Session();
    return session == nullptr ? 0 : session->GetOverflowCount();
}

}  // namespace NEUtils
