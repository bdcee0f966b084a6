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
constexpr int kPairWaitMs = 20;  // for the second half of a rename
constexpr std::uint32_t kContentEvents =
    IN_ACCESS | IN_MODIFY | IN_ATTRIB | IN_CLOSE_WRITE | IN_CLOSE_NOWRITE | IN_OPEN;
constexpr std::uint32_t kChangingEvents = IN_MODIFY | IN_ATTRIB | IN_CLOSE_WRITE;
constexpr std::uint32_t kDeleteWanted = IN_DELETE | IN_DELETE_SELF;

// A directory's size, links and times follow its entries, which are told themselves.
bool IsOwnChange(const std::string& change)
{
    return change.find(" oaccess=") != std::string::npos || change.find(" ouid=") != std::string::npos ||
           change.find(" ogid=") != std::string::npos;
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
            for (const InotifyWatcher::Event& event : events) {
                if (stopping_) {
                    return;
                }
                Handle(event);
            }
            if (watcher_.GetOverflowCount() != overflows_) {
                Compare();
            }
        }
        EndMoves({}, Clock::MonotonicNs());
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
    if ((event.mask & (IN_DELETE_SELF | IN_MOVE_SELF | IN_UNMOUNT)) != 0) {
        std::vector<WatchingPtr> orphans;
        {
            const std::lock_guard<std::mutex> lock(mutex_);
            for (const WatchingPtr& watching : rules_) {
                if (watching->ancestor == path) {
                    watching->ancestor.clear();
                    orphans.push_back(watching);
                }
            }
        }
        for (const WatchingPtr& watching : orphans) {
            Settle(watching, kNews);
        }
    }
    if ((event.mask & kContentEvents) != 0) {
        OnChanged(path, event.mask & kContentEvents, (event.mask & IN_ISDIR) != 0, kOwnRules);
    }
}

void InotifySession::HandleEntry(const std::string& path, const InotifyWatcher::Event& event)
{
    const bool isDirectory = (event.mask & IN_ISDIR) != 0;
    if ((event.mask & IN_MOVED_TO) != 0) {
        const auto from = std::find_if(moves_.begin(), moves_.end(),
                                       [&event](const Move& move) { return move.cookie == event.cookie; });
        if (from != moves_.end()) {
            const Move move = std::move(*from);
            moves_.erase(from);
            OnRenamed(move, path);
        } else {
            OnCreated(path, isDirectory, true);
        }
        return;
    }
    EndMoves(path, 0);
    if ((event.mask & IN_CREATE) != 0) {
        OnCreated(path, isDirectory, false);
    } else if ((event.mask & IN_MOVED_FROM) != 0) {
        moves_.push_back({event.cookie, path, isDirectory, Clock::MonotonicNs()});
    } else if ((event.mask & IN_DELETE) != 0) {
        OnDeleted(path, isDirectory, false);
    } else if ((event.mask & kContentEvents) != 0) {
        OnChanged(path, event.mask & kContentEvents, isDirectory, kEntryRules);
    }
}

// Gives up first halves of renames: that of a path of which something else is told now, and those that have
// waited long enough.
void InotifySession::EndMoves(const std::string& path, std::int64_t now)
{
    for (std::size_t i = 0; i < moves_.size();) {
        const Move& move = moves_[i];
        if (move.path == path || (now != 0 && now - move.since >= kPairWaitMs * Clock::kNsPerMs)) {
            const Move ended = std::move(moves_[i]);
            moves_.erase(moves_.begin() + static_cast<std::ptrdiff_t>(i));
            OnDeleted(ended.path, ended.isDirectory, true);
        } else {
            ++i;
        }
    }
}

void InotifySession::OnCreated(const std::string& path, bool isDirectory, bool moved)
{
    struct stat status = {};
    const bool exists = lstat(path.c_str(), &status) == 0;
    bool told = false;
    bool silent = false;  // taken note of by a rule that was being added
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        const auto file = known_.find(path);
        if (file != known_.end() && exists && file->second.inode == status.st_ino) {
            told = std::exchange(file->second.createTold, false);
            silent = !told;
        }
    }
    if (told) {
        return;
    }
    if (exists) {
        TakeUp(path, moved ? kMoved : kNews);
    }
    if (silent || !exists) {
        FileEvent event = {path, {}, IN_CREATE, isDirectory, {}};
        Report(event, moved ? IN_CREATE | IN_MOVED_TO : IN_CREATE, kAll);
    }
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        const bool covered = std::any_of(rules_.begin(), rules_.end(),
                                         [&path](const WatchingPtr& watching) { return Covers(watching->rule, path); });
        if (covered) {  // also what is gone again: its end is to be told
            known_[path].createTold = false;
        }
    }
    SettleAtOrBelow(path);
}

void InotifySession::OnDeleted(const std::string& path, bool isDirectory, bool moved)
{
    bool known = false;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        known = known_.count(path) != 0;
    }
    TakeOut(path, moved);
    if (known) {
        FileEvent event = {path, {}, IN_DELETE, isDirectory, {}};
        Report(event, moved ? kDeleteWanted | IN_MOVED_FROM : kDeleteWanted, kAll);
    }
    SettleAtOrBelow(path);
}

void InotifySession::OnRenamed(const Move& from, const std::string& path)
{
    const auto coveredBefore = Covering(from.path);
    const auto coveredNow = Covering(path);
    if (coveredNow.empty() || !Rename(from.path, path)) {
        OnDeleted(from.path, from.isDirectory, true);
        OnCreated(path, from.isDirectory, true);
        return;
    }
    const auto covers = [](const std::vector<WatchingPtr>& all, const WatchingPtr& one) {
        return std::find(all.begin(), all.end(), one) != all.end();
    };
    for (const WatchingPtr& watching : coveredBefore) {
        const std::uint32_t mask = watching->rule.mask;
        if (covers(coveredNow, watching) && (mask & IN_MOVE) != 0) {
            Call(*watching, {path, from.path, IN_MOVED_TO, from.isDirectory, {}});
        } else if (!covers(coveredNow, watching) && (mask & (kDeleteWanted | IN_MOVED_FROM)) != 0) {
            Call(*watching, {from.path, {}, IN_DELETE, from.isDirectory, {}});
        }
    }
    for (const WatchingPtr& watching : coveredNow) {
        if (!covers(coveredBefore, watching) && (watching->rule.mask & (IN_CREATE | IN_MOVED_TO)) != 0) {
            Call(*watching, {path, {}, IN_CREATE, from.isDirectory, {}});
        }
    }
    TakeUp(path, kNews);
    SettleAtOrBelow(from.path);
    SettleAtOrBelow(path);
}

// Gives the known files at or below a path their new paths. False if the path was not known.
bool InotifySession::Rename(const std::string& from, const std::string& path)
{
    TakeOut(path, false);  // what was there has been replaced
    std::vector<std::pair<std::string, std::string>> renamed;
    std::vector<std::string> uncovered;
    std::vector<int> watches;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        std::vector<KnownFiles::node_type> files;
        const auto extract = [&](KnownFiles::iterator file) { files.push_back(known_.extract(file)); };
        if (const auto own = known_.find(from); own != known_.end()) {
            extract(own);
        } else {
            return false;
        }
        for (auto file = known_.lower_bound(from + "/");
             file != known_.end() && Monitor::IsAtOrBelow(file->first, from);) {
            extract(file++);
        }
        for (auto& file : files) {
            const std::string old = file.key();
            file.key() = path + old.substr(from.size());
            const std::string& now = file.key();
            renamed.emplace_back(old, now);
            const int wd = file.mapped().wd;
            if (wd != 0 && WatchMask(now, file.mapped().isDirectory) == 0) {
                watches.push_back(wd);
                paths_.erase(wd);
                file.mapped().wd = 0;
            } else if (wd != 0) {
                paths_[wd] = now;
            }
            const bool covered = std::any_of(rules_.begin(), rules_.end(), [&now](const WatchingPtr& watching) {
                return Covers(watching->rule, now);
            });
            if (covered) {
                known_.insert(std::move(file));
            } else {
                uncovered.push_back(now);
            }
        }
    }
    for (const auto& [old, now] : renamed) {
        Monitor::UpdateFileName(old, now);
    }
    for (const std::string& gone : uncovered) {
        Monitor::RemoveRecord(gone);
    }
    for (const int wd : watches) {
        watcher_.RmWatch(wd);
    }
    return true;
}

void InotifySession::OnChanged(const std::string& path, std::uint32_t mask, bool isDirectory, Audience audience)
{
    FileEvent event = {path, {}, mask, isDirectory, {}};
    if ((mask & kChangingEvents) != 0) {
        Monitor::UpdateAttrAndLog(path, event.change);
        struct stat status = {};
        const bool exists = lstat(path.c_str(), &status) == 0;
        const std::lock_guard<std::mutex> lock(mutex_);
        const auto file = known_.find(path);
        if (file == known_.end()) {
            return;
        }
        if (exists && file->second.inode == status.st_ino) {
            file->second.changed = status.st_ctim;
        } else if (audience == kOwnRules) {
            return;  // of a file that has lost this path
        }
    }
    if (audience == kAll) {  // found by comparing
        if (isDirectory && !IsOwnChange(event.change)) {
            return;
        }
        event.mask = IsOwnChange(event.change) ? IN_ATTRIB : IN_MODIFY | IN_CLOSE_WRITE;
    }
    Report(event, event.mask, audience);
}

// After an overflow: what is known is compared with what is there.
void InotifySession::Compare()
{
    overflows_ = watcher_.GetOverflowCount();
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

void InotifySession::Call(Watching& watching, const FileEvent& event)
{
    try {
        watching.gate.Call([&] { watching.rule.callback(event, watching.rule.userData); });
    } catch (const std::exception& error) {
        NE_LOG(ERROR, "File event callback has failed.[path=%s error=%s]", event.path.c_str(), error.what());
    } catch (...) {
        NE_LOG(ERROR, "File event callback has failed.[path=%s]", event.path.c_str());
    }
}

}  // namespace NEUtils
