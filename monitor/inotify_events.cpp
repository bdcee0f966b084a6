// What an inotify session does with the kernel's events.
#include <poll.h>
#include <sys/inotify.h>

#include <algorithm>
#include <exception>
#include <utility>

#include "attribute.h"
#include "hips_guard.h"
#include "logger.h"
#include "monitor/inotify_session.h"
#include "monitor/watch_scope.h"
#include "util/clock.h"

namespace NEUtils {

using Monitor::Covers;
using Monitor::FileEvent;

namespace {

constexpr int kWaitMs = 20000;
constexpr int kPairWaitMs = 5;  // for the second half of a rename
constexpr std::uint32_t kContentEvents =
    IN_ACCESS | IN_MODIFY | IN_ATTRIB | IN_CLOSE_WRITE | IN_CLOSE_NOWRITE | IN_OPEN;
constexpr std::uint32_t kChangingEvents = IN_MODIFY | IN_ATTRIB | IN_CLOSE_WRITE;

// Does the rule want to hear that this path is gone?
bool WantsDelete(const Monitor::FileWatchRule& rule, const std::string& path, bool moved)
{
    const std::uint32_t own = path == rule.path ? IN_DELETE_SELF | IN_MOVE_SELF : 0;
    return (rule.mask & (IN_DELETE | own | (moved ? IN_MOVED_FROM : 0U))) != 0;
}

}  // namespace

void InotifySession::Run()
{
    std::vector<InotifyWatcher::Event> events;
    while (!stopping_) {
        pollfd wanted[] = {{watcher_.GetFd(), POLLIN, 0}, {stopEvent_.Get(), POLLIN, 0}};
        const int ready = poll(wanted, std::size(wanted), moves_.empty() ? kWaitMs : kPairWaitMs);
        KeepCurrentThreadAlive();
        if (ready > 0 && wanted[0].revents != 0 && watcher_.Poll()) {
            events.clear();
            watcher_.ReadEvent(events);
            bool failed = false;
            for (const InotifyWatcher::Event& event : events) {
                if (stopping_) {
                    return;
                }
                try {
                    Handle(event);
                } catch (const std::exception& error) {  // no memory
                    NE_LOG(ERROR, "File event could not be handled.[error=%s]", error.what());
                    failed = true;
                }
            }
            if (failed || watcher_.GetOverflowCount() != overflows_) {
                Compare();
            }
        }
        const std::int64_t late = Clock::MonotonicNs() - kPairWaitMs * Clock::kNsPerMs;
        EndMoves([late](const Move& move) { return move.since <= late; });
    }
}

void InotifySession::Handle(const InotifyWatcher::Event& event)
{
    if ((event.mask & IN_IGNORED) != 0) {
        Forget(event.wd);
        return;
    }
    std::string path;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        const auto found = paths_.find(event.wd);
        if (found == paths_.end()) {
            return;
        }
        path = found->second;
    }
    if (event.name[0] == '/') {  // not an entry's name, but the path of the watch as it was at first
        HandleOwn(path, event);
    } else {
        HandleEntry(Monitor::EntryOf(path, event.name), event);
    }
    TellLack();
}

// The kernel has dropped a watch.
void InotifySession::Forget(int wd)
{
    watcher_.RmInvalidWatch(wd);
    const std::lock_guard<std::mutex> lock(mutex_);
    if (const auto found = paths_.find(wd); found != paths_.end()) {
        const auto file = known_.find(found->second);
        if (file != known_.end() && file->second.wd == wd) {
            file->second.wd = 0;
        }
        paths_.erase(found);
    }
}

void InotifySession::HandleOwn(const std::string& path, const InotifyWatcher::Event& event)
{
    const bool isDirectory = (event.mask & IN_ISDIR) != 0;
    if ((event.mask & IN_UNMOUNT) != 0) {
        OnDeleted(path, isDirectory, false);
    } else if ((event.mask & kContentEvents) != 0) {
        OnChanged(path, event.mask & kContentEvents, isDirectory, kOwnRules);
    }
}

void InotifySession::HandleEntry(const std::string& path, const InotifyWatcher::Event& event)
{
    const bool isDirectory = (event.mask & IN_ISDIR) != 0;
    const auto pair = std::find_if(moves_.begin(), moves_.end(), [&event](const Move& move) {
        return (event.mask & IN_MOVED_TO) != 0 && move.cookie == event.cookie;
    });
    if (pair != moves_.end()) {
        const Move move = std::move(*pair);
        moves_.erase(pair);
        EndMoves([&path](const Move& other) { return other.path == path; });
        OnRenamed(move, path);
        return;
    }
    EndMoves([&path](const Move& other) { return other.path == path; });
    if ((event.mask & (IN_CREATE | IN_MOVED_TO)) != 0) {
        OnCreated(path, isDirectory, (event.mask & IN_MOVED_TO) != 0);
    } else if ((event.mask & IN_MOVED_FROM) != 0) {
        moves_.push_back({event.cookie, path, isDirectory, Clock::MonotonicNs()});
    } else if ((event.mask & IN_DELETE) != 0) {
        OnDeleted(path, isDirectory, false);
    } else if ((event.mask & kContentEvents) != 0) {
        OnChanged(path, event.mask & kContentEvents, isDirectory, kEntryRules);
    }
}

// Gives up first halves of renames: their second halves are not to come.
template <typename Condition>
void InotifySession::EndMoves(Condition condition)
{
    for (auto move = moves_.begin(); move != moves_.end();) {
        if (!condition(*move)) {
            ++move;
            continue;
        }
        const Move ended = std::move(*move);
        moves_.erase(move);
        OnDeleted(ended.path, ended.isDirectory, true);
        move = moves_.begin();  // handling it may have ended others
    }
}

void InotifySession::OnCreated(const std::string& path, bool isDirectory, bool moved)
{
    struct stat status = {};
    const bool exists = lstat(path.c_str(), &status) == 0;
    bool told = false;
    bool silent = false;  // taken note of by a rule that was being added
    bool gone = false;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        const auto file = known_.find(path);
        if (file != known_.end() && exists && file->second.IsSameFile(status)) {
            told = std::exchange(file->second.createTold, false);
            silent = !told && !file->second.untold;
        } else if (file == known_.end() && !exists && IsCovered(path)) {
            known_.try_emplace(path, status);  // gone again: its end is to be told
            gone = true;
        }
    }
    if (told) {
        return;
    }
    if (silent || gone) {
        FileEvent event = {path, {}, IN_CREATE, isDirectory, {}, {}};
        Report(event, moved ? IN_CREATE | IN_MOVED_TO : IN_CREATE, kAll);
    }
    if (exists) {
        TakeUp(path, moved ? kMoved : kNews);
        const std::lock_guard<std::mutex> lock(mutex_);
        if (const auto file = known_.find(path); file != known_.end()) {
            file->second.createTold = false;  // this was its record
        }
    }
    SettleAtOrBelow(path);
}

void InotifySession::OnDeleted(const std::string& path, bool isDirectory, bool moved)
{
    EndMoves([&path](const Move& move) { return move.path != path && Monitor::IsAtOrBelow(move.path, path); });
    std::vector<std::pair<std::string, bool>> gone;  // the path and rules' own paths below it
    const auto roots = RootsBelow(path);
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (known_.count(path) != 0) {
            gone.emplace_back(path, isDirectory);
        }
        for (const WatchingPtr& root : roots) {
            const auto file = known_.find(root->rule.path);
            if (file != known_.end() && root->rule.path != path) {
                gone.emplace_back(file->first, file->second.isDirectory);
            }
        }
    }
    std::sort(gone.begin(), gone.end());
    gone.erase(std::unique(gone.begin(), gone.end()), gone.end());
    TakeOut(path);
    for (const auto& [lost, wasDirectory] : gone) {
        for (const WatchingPtr& watching : Covering(lost)) {
            if (WantsDelete(watching->rule, lost, moved)) {
                Call(*watching, {lost, {}, IN_DELETE, wasDirectory, {}, {}});
            }
        }
    }
    SettleAtOrBelow(path);
}

void InotifySession::OnRenamed(const Move& from, const std::string& path)
{
    if (IsSettled(from.path, path)) {
        return;
    }
    EndMoves([&from](const Move& move) { return Monitor::IsAtOrBelow(move.path, from.path); });
    const std::vector<Renamed> renamed = Covering(path).empty() ? std::vector<Renamed>() : Rename(from.path, path);
    if (renamed.empty()) {
        OnDeleted(from.path, from.isDirectory, true);
        OnCreated(path, from.isDirectory, true);
        return;
    }
    TellRenamed(renamed);
    TakeUp(path, kMoved);
    SettleAtOrBelow(from.path);
    SettleAtOrBelow(path);
}

// Is at both paths what is known to be there? Then the two were exchanged, and the first half has told it.
bool InotifySession::IsSettled(const std::string& from, const std::string& path)
{
    struct stat atFrom = {};
    struct stat atPath = {};
    if (lstat(from.c_str(), &atFrom) != 0 || lstat(path.c_str(), &atPath) != 0) {
        return false;
    }
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto old = known_.find(from);
    const auto now = known_.find(path);
    return old != known_.end() && now != known_.end() && old->second.IsSameFile(atFrom) &&
           now->second.IsSameFile(atPath);
}

// The first is the top. A rule that covers only one of the two paths sees a file come or go; of what is below
// the top, one that covers both sees nothing.
void InotifySession::TellRenamed(const std::vector<Renamed>& renamed)
{
    std::vector<WatchingPtr> rules;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        rules = rules_;
    }
    for (const Renamed& file : renamed) {
        for (const WatchingPtr& watching : rules) {
            const Rule& rule = watching->rule;
            const bool before = Covers(rule, file.old);
            const bool now = Covers(rule, file.now);
            const bool isTop = &file == &renamed.front();
            if (before && now && isTop && (rule.mask & IN_MOVE) != 0) {
                Call(*watching, {file.now, file.old, IN_MOVED_TO, file.isDirectory, {}, {}});
            } else if (before && !now && WantsDelete(rule, file.old, true) &&
                       (isTop || file.old == rule.path || Covers(rule, renamed.front().now))) {
                Call(*watching, {file.old, {}, IN_DELETE, file.isDirectory, {}, {}});
            } else if (!before && now && (rule.mask & (IN_CREATE | IN_MOVED_TO)) != 0) {
                Call(*watching, {file.now, {}, IN_CREATE, file.isDirectory, {}, {}});
            }
        }
    }
}

// Gives the known files at or below a path their new paths; two paths that have been exchanged both change.
// Empty if the path is not known.
std::vector<InotifySession::Renamed> InotifySession::Rename(const std::string& from, const std::string& path)
{
    struct stat status = {};
    struct stat statusOfOld = {};
    const bool exists = lstat(path.c_str(), &status) == 0;
    const bool oldExists = lstat(from.c_str(), &statusOfOld) == 0;
    bool exchanged = false;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        const auto old = known_.find(from);
        const auto target = known_.find(path);
        if (old == known_.end()) {
            return {};
        }
        exchanged = target != known_.end() && oldExists && exists && target->second.IsSameFile(statusOfOld) &&
                    old->second.IsSameFile(status);
    }
    if (!exchanged) {
        TakeOut(path);  // what was there has been replaced
    }
    std::vector<Renamed> renamed;
    std::vector<int> watches;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        std::vector<KnownFiles::node_type> files;
        const auto extract = [&](const std::string& top, const std::string& other) {
            const std::size_t first = files.size();
            for (auto file = known_.lower_bound(top);
                 file != known_.end() && file->first.compare(0, top.size(), top) == 0;) {
                const auto current = file++;
                if (Monitor::IsAtOrBelow(current->first, top)) {
                    files.push_back(known_.extract(current));
                }
            }
            for (std::size_t i = first; i < files.size(); ++i) {
                const std::string now = other + files[i].key().substr(top.size());
                renamed.push_back({files[i].key(), now, files[i].mapped().isDirectory});
                files[i].key() = now;
            }
        };
        extract(from, path);
        if (exchanged) {
            extract(path, from);
        }
        for (auto& file : files) {
            Known& known = file.mapped();
            const std::string& now = file.key();
            if (known.wd != 0 && WatchMask(now, known.isDirectory) == 0) {
                watches.push_back(known.wd);
                paths_.erase(known.wd);
                known.wd = 0;
            } else if (known.wd != 0) {
                paths_[known.wd] = now;
            }
            if (now == path && exists) {
                known.status = Known(status).status;  // a rename is a change of status
            }
            if (IsCovered(now)) {
                known_.insert(std::move(file));
            }
        }
    }
    for (const Renamed& file : renamed) {
        Monitor::UpdateFileName(file.old, file.now);
        DropUnknownRecord(file.now);
    }
    for (const int wd : watches) {
        watcher_.RmWatch(wd);
    }
    return renamed;
}

void InotifySession::OnChanged(const std::string& path, std::uint32_t mask, bool isDirectory, Audience audience)
{
    FileEvent event = {path, {}, mask, isDirectory, {}, {}};
    if ((mask & kChangingEvents) != 0) {
        Monitor::UpdateAttrAndLog(path, event.change);
        struct stat status = {};
        const bool exists = lstat(path.c_str(), &status) == 0;
        const std::lock_guard<std::mutex> lock(mutex_);
        const auto file = known_.find(path);
        if (file == known_.end()) {
            return;
        }
        if (exists && file->second.IsSameFile(status)) {
            file->second.status = Known(status).status;
        } else if (audience == kOwnRules) {
            return;  // of a file that has lost this path
        }
        const timespec& changed = file->second.status.changed;
        if (!event.change.empty()) {
            lastChange_ = {path, event.change, audience, changed};
        } else if (lastChange_.path == path && lastChange_.audience != audience &&
                   lastChange_.changed.tv_sec == changed.tv_sec && lastChange_.changed.tv_nsec == changed.tv_nsec) {
            event.change = lastChange_.text;
        }
    }
    Report(event, mask, audience);
}

// After an overflow: what is known is compared with what is there.
void InotifySession::Compare()
{
    overflows_ = watcher_.GetOverflowCount();
    EndMoves([](const Move&) { return true; });  // their second halves may be lost
    NE_LOG(WARN, "Inotify queue has overflowed, the watched files are compared.[count=%llu]",
           static_cast<unsigned long long>(overflows_));
    std::vector<std::pair<std::string, bool>> files;
    std::vector<WatchingPtr> rules;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        for (const auto& [path, file] : known_) {
            files.emplace_back(path, file.isDirectory);
        }
        rules = rules_;
    }
    std::reverse(files.begin(), files.end());  // entries before their directory
    for (const auto& [path, isDirectory] : files) {
        struct stat status = {};
        if (stopping_) {
            return;
        }
        if (lstat(path.c_str(), &status) != 0) {
            KeepCurrentThreadAlive();
            OnDeleted(path, isDirectory, true);
        }
    }
    for (const WatchingPtr& watching : rules) {
        KeepCurrentThreadAlive();
        Settle(watching, kCompare);
    }
}

// Calls the rules that cover the path and want one of these bits.
void InotifySession::Report(FileEvent& event, std::uint32_t wanted, Audience audience)
{
    const std::uint32_t mask = event.mask;
    for (const WatchingPtr& watching : Covering(event.path)) {
        const Rule& rule = watching->rule;
        const bool own = rule.path == event.path;
        if ((rule.mask & wanted) != 0 && (audience == kAll || own == (audience == kOwnRules))) {
            event.mask = (mask & kContentEvents) != 0 ? mask & rule.mask : mask;
            Call(*watching, event);
        }
    }
}

void InotifySession::Call(Watching& watching, FileEvent event)
{
    struct stat status = {};
    if (event.mask != IN_DELETE && lstat(event.path.c_str(), &status) == 0) {
        event.status = status;
    }
    try {
        watching.gate.Call([&] { watching.rule.callback(event, watching.rule.userData); });
    } catch (const std::exception& error) {
        NE_LOG(ERROR, "File event callback has failed.[path=%s error=%s]", event.path.c_str(), error.what());
    } catch (...) {
        NE_LOG(ERROR, "File event callback has failed.[path=%s]", event.path.c_str());
    }
}

}  // namespace NEUtils
