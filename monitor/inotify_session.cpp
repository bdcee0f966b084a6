#include "monitor/inotify_session.h"

#include <dirent.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <exception>
#include <utility>

#include "attribute.h"
#include "logger.h"
#include "monitor/watch_scope.h"
#include "util/errno_text.h"

namespace NEUtils {

using Monitor::Covers;
using Monitor::LooksInto;

namespace {

bool Exists(const std::string& path)
{
    struct stat status = {};
    return lstat(path.c_str(), &status) == 0;
}

// The path, or the nearest directory above it that is there.
std::string NearestDirectory(std::string path)
{
    struct stat status = {};
    while (path != "/" && (stat(path.c_str(), &status) != 0 || !S_ISDIR(status.st_mode))) {
        path = Monitor::ParentOf(path);
    }
    return path;
}

// The same rule with the links on the way to its path resolved: events come by the real directories.
InotifySession::Rule Resolved(InotifySession::Rule rule)
{
    const std::string name = rule.path.substr(rule.path.rfind('/') + 1);
    const bool isDots = name == "." || name == "..";
    const std::string way = isDots ? rule.path : Monitor::ParentOf(rule.path);
    const std::unique_ptr<char, decltype(&std::free)> real(realpath(way.c_str(), nullptr), &std::free);
    if (rule.path != "/" && real != nullptr) {
        rule.path = isDots ? real.get() : Monitor::EntryOf(real.get(), name);
    }
    return rule;
}

// What stands below a directory on the way to a path.
std::string NextOnTheWay(const std::string& directory, const std::string& path)
{
    return path.substr(0, path.find('/', directory == "/" ? 1 : directory.size() + 1));
}

std::vector<std::string> Entries(const std::string& directory)
{
    std::vector<std::string> entries;
    const std::unique_ptr<DIR, int (*)(DIR*)> stream(opendir(directory.c_str()), &closedir);
    while (stream != nullptr) {
        const dirent* entry = readdir(stream.get());
        if (entry == nullptr) {
            break;
        }
        const std::string name = entry->d_name;
        if (name != "." && name != "..") {
            entries.push_back(Monitor::EntryOf(directory, name));
        }
    }
    return entries;
}

// The keys of an ordered table at or below a path, as two ranges.
template <typename Table, typename Function>
void ForEachAtOrBelow(Table& table, const std::string& top, Function function)
{
    if (const auto own = table.find(top); own != table.end()) {
        function(own);
    }
    const std::string prefix = top == "/" ? top : top + "/";
    for (auto entry = table.upper_bound(prefix);
         entry != table.end() && entry->first.compare(0, prefix.size(), prefix) == 0;) {
        function(entry++);
    }
}

}  // namespace

InotifySession::Watching::Watching(const Rule& asGiven) : given(asGiven), rule(Resolved(asGiven)) {}

InotifySession::~InotifySession() = default;

bool InotifySession::Init()
{
    bool initialised = false;
    try {
        initialised = watcher_.Init();
    } catch (const std::exception& error) {
        NE_LOG(ERROR, "The kernel's limit of watches is no number.[error=%s]", error.what());
    }
    watcherFd_.Reset(watcher_.GetFd());
    stopEvent_.Reset(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (initialised && !stopEvent_.IsValid()) {
        NE_LOG(ERROR, "File monitor has no event to stop by.[errorInfo=%s]", ErrnoText(errno).Get());
    }
    return initialised && stopEvent_.IsValid();
}

void InotifySession::Stop()
{
    stopping_ = true;
    const std::uint64_t one = 1;
    static_cast<void>(!write(stopEvent_.Get(), &one, sizeof(one)));
    std::vector<WatchingPtr> rules;
    KnownFiles known;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        rules.swap(rules_);
        known.swap(known_);
    }
    for (const WatchingPtr& watching : rules) {
        watching->gate.Close();
    }
    for (const auto& [path, file] : known) {
        Monitor::RemoveRecord(path);
    }
    watcher_.Stop();
}

void InotifySession::BeginChange()
{
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [this] { return !changing_; });
    changing_ = true;
}

void InotifySession::EndChange()
{
    const std::lock_guard<std::mutex> lock(mutex_);
    changing_ = false;
    changed_.notify_one();
}

bool InotifySession::AddRule(const Rule& rule)
{
    const auto watching = std::make_shared<Watching>(rule);
    if (!Exists(rule.path)) {
        NE_LOG(ERROR, "Watch rule has no such path.[path=%s errorInfo=%s]", rule.path.c_str(), ErrnoText(errno).Get());
        return false;
    }
    BeginChange();
    bool added = false;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        added = !stopping_ && std::none_of(rules_.begin(), rules_.end(), [&rule](const WatchingPtr& other) {
            return Monitor::IsSame(other->given, rule);
        });
        if (added) {
            rules_.push_back(watching);
        }
    }
    const bool settled = added && Settle(watching, kSilent);
    EndChange();
    if (!added) {
        NE_LOG(ERROR, "Watch rule is there already.[path=%s]", rule.path.c_str());
    } else if (!settled) {
        RemoveRule(rule);
    }
    return settled;
}

bool InotifySession::RemoveRule(const Rule& rule)
{
    BeginChange();
    WatchingPtr removed;
    std::string ancestor;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        const auto found = std::find_if(rules_.begin(), rules_.end(), [&rule](const WatchingPtr& watching) {
            return Monitor::IsSame(watching->given, rule);
        });
        if (found != rules_.end()) {
            removed = *found;
            ancestor = removed->ancestor;
            rules_.erase(found);
        }
    }
    if (removed != nullptr) {
        DropUnneeded(removed->rule, ancestor);
    }
    EndChange();
    if (removed != nullptr) {
        removed->gate.Close();  // after the change, which a callback may wait for
    }
    return removed != nullptr;
}

// What no other rule needs goes; what others need is watched for them alone.
void InotifySession::DropUnneeded(const Rule& rule, const std::string& ancestor)
{
    struct Kept {
        std::string path;
        std::uint32_t mask;
    };
    std::vector<int> watches;
    std::vector<Kept> kept;
    std::vector<std::string> records;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        for (auto entry = paths_.begin(); entry != paths_.end();) {
            const auto current = entry++;
            const std::string& path = current->second;
            if (path != ancestor && !Covers(rule, path)) {
                continue;
            }
            const auto file = known_.find(path);
            const std::uint32_t mask = WatchMask(path, file == known_.end() || file->second.isDirectory);
            if (mask != 0) {
                kept.push_back({path, mask});
                continue;
            }
            watches.push_back(current->first);
            if (file != known_.end()) {
                file->second.wd = 0;
            }
            paths_.erase(current);
        }
        ForEachAtOrBelow(known_, rule.path, [&](KnownFiles::iterator file) {
            const bool covered = std::any_of(rules_.begin(), rules_.end(), [&](const WatchingPtr& watching) {
                return Covers(watching->rule, file->first);
            });
            if (!covered) {
                records.push_back(file->first);
                known_.erase(file);
            }
        });
    }
    for (const int wd : watches) {
        watcher_.RmWatch(wd);
    }
    for (const auto& [path, mask] : kept) {
        watcher_.AddWatch(path, mask);
    }
    for (const std::string& path : records) {
        Monitor::RemoveRecord(path);
    }
}

// Takes up a rule's path if it is there, and watches for its coming and going. True if it is watched.
bool InotifySession::Settle(const WatchingPtr& watching, Mode mode)
{
    const std::string& path = watching->rule.path;
    while (path != "/" && !stopping_) {
        const bool exists = Exists(path);
        const std::string directory = NearestDirectory(Monitor::ParentOf(path));
        SetAncestor(watching, directory);
        if (exists) {
            break;
        }
        if (!Exists(NextOnTheWay(directory, path))) {  // otherwise it came before the watch
            return false;
        }
        if (directory == NearestDirectory(Monitor::ParentOf(path)) && !Exists(path)) {
            return false;  // what has come is no directory
        }
    }
    const bool taken = TakeUp(path, mode);
    TellLack();
    return taken;
}

void InotifySession::SetAncestor(const WatchingPtr& watching, const std::string& directory)
{
    std::string old;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        old = std::exchange(watching->ancestor, directory);
    }
    if (old == directory) {
        return;
    }
    EnsureWatch(directory, true);
    if (!old.empty()) {
        Rule none;
        none.path = old;
        DropUnneeded(none, old);
    }
}

void InotifySession::SettleAtOrBelow(const std::string& path)
{
    std::vector<WatchingPtr> concerned;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        std::copy_if(rules_.begin(), rules_.end(), std::back_inserter(concerned),
                     [&path](const WatchingPtr& watching) { return Monitor::IsAtOrBelow(watching->rule.path, path); });
    }
    for (const WatchingPtr& watching : concerned) {
        Settle(watching, kNews);
    }
}

// Walks over a path and all below it that rules cover. A directory is watched before it is read, so nothing
// is missed in between. True if the path itself is watched as far as it needs to be.
bool InotifySession::TakeUp(const std::string& top, Mode mode)
{
    bool topTaken = true;
    bool full = false;
    std::vector<std::string> waiting{top};
    while (!waiting.empty() && !stopping_) {
        const std::string path = std::move(waiting.back());
        waiting.pop_back();
        struct stat status = {};
        if (lstat(path.c_str(), &status) != 0 || Covering(path).empty()) {
            continue;
        }
        const bool isDirectory = S_ISDIR(status.st_mode);
        const Finding finding = TakeNote(path, status, mode);
        if (finding == kNew) {
            Monitor::RecordAttribute(path);
        }
        // Where one that may be read is refused there is no room, and no use in asking for each of the rest.
        const bool taken = full && isDirectory ? !IsLookedInto(path) : EnsureWatch(path, isDirectory);
        if (!taken) {
            full = full || access(path.c_str(), R_OK) == 0;
            topTaken = topTaken && path != top;
            CountLack(path);
        }
        if (finding == kNew && mode != kSilent) {
            Monitor::FileEvent event = {path, {}, IN_CREATE, isDirectory, {}};
            Report(event, mode == kMoved ? IN_CREATE | IN_MOVED_TO : IN_CREATE, kAll);
        } else if (finding == kDifferent) {
            OnChanged(path, IN_MODIFY | IN_ATTRIB, isDirectory, kAll);
        }
        if (isDirectory && IsLookedInto(path)) {
            std::vector<std::string> entries = Entries(path);
            waiting.insert(waiting.end(), std::make_move_iterator(entries.begin()),
                           std::make_move_iterator(entries.end()));
        }
    }
    return topTaken;
}

InotifySession::Finding InotifySession::TakeNote(const std::string& path, const struct stat& status, Mode mode)
{
    const bool isDirectory = S_ISDIR(status.st_mode);
    const std::lock_guard<std::mutex> lock(mutex_);
    if (stopping_) {
        return kSame;
    }
    const auto [entry, fresh] = known_.try_emplace(path);
    Known& file = entry->second;
    if (fresh || file.inode != status.st_ino || file.isDirectory != isDirectory) {
        file.inode = status.st_ino;
        file.changed = status.st_ctim;
        file.isDirectory = isDirectory;
        file.createTold = mode != kSilent;
        return kNew;
    }
    if (mode == kCompare &&
        (file.changed.tv_sec != status.st_ctim.tv_sec || file.changed.tv_nsec != status.st_ctim.tv_nsec)) {
        file.changed = status.st_ctim;
        return kDifferent;
    }
    return kSame;
}

// What the rules want to be told of a path by a watch of its own; 0: nothing.
std::uint32_t InotifySession::WatchMask(const std::string& path, bool isDirectory) const
{
    std::uint32_t mask = 0;
    for (const WatchingPtr& watching : rules_) {
        const Rule& rule = watching->rule;
        if (path == rule.path || (isDirectory && LooksInto(rule, path))) {
            mask |= rule.mask & IN_ALL_EVENTS;
        }
        if (path == watching->ancestor) {
            mask |= IN_CREATE;
        }
    }
    return mask;
}

// True if the path is watched or need not be.
bool InotifySession::EnsureWatch(const std::string& path, bool isDirectory)
{
    std::uint32_t mask = 0;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        mask = WatchMask(path, isDirectory);
    }
    if (mask == 0) {
        return true;
    }
    const int wd = watcher_.AddWatch(path, mask | IN_MASK_ADD);
    if (wd == 0) {
        return false;
    }
    bool needed = false;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        needed = WatchMask(path, isDirectory) != 0;  // a rule may have gone meanwhile
        if (needed) {
            const bool first = paths_.try_emplace(wd, path).first->second == path;  // of a file's several names
            if (const auto file = known_.find(path); first && file != known_.end()) {
                file->second.wd = wd;
            }
        } else {
            paths_.erase(wd);
        }
    }
    if (!needed) {
        watcher_.RmWatch(wd);
    }
    return true;
}

void InotifySession::CountLack(const std::string& path)
{
    const std::lock_guard<std::mutex> lock(mutex_);
    for (const WatchingPtr& watching : rules_) {
        watching->lacking += LooksInto(watching->rule, path) ? 1 : 0;
    }
}

void InotifySession::TellLack()
{
    std::vector<std::pair<std::string, std::size_t>> told;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        for (const WatchingPtr& watching : rules_) {
            if (watching->lacking > 0 && !std::exchange(watching->lackTold, true)) {
                told.emplace_back(watching->rule.path, watching->lacking);
            }
        }
    }
    for (const auto& [path, lacking] : told) {
        NE_LOG(WARN, "Watch rule cannot have all its directories.[path=%s lacking=%zu]", path.c_str(), lacking);
    }
}

// Forgets a path and all below it.
void InotifySession::TakeOut(const std::string& top, bool watchesToo)
{
    std::vector<std::string> gone;
    std::vector<int> watches;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        ForEachAtOrBelow(known_, top, [&](KnownFiles::iterator file) {
            gone.push_back(file->first);
            if (file->second.wd != 0) {
                watches.push_back(file->second.wd);
                paths_.erase(file->second.wd);
            }
            known_.erase(file);
        });
    }
    for (const std::string& path : gone) {
        Monitor::RemoveRecord(path);
    }
    for (const int wd : watches) {
        if (watchesToo) {
            watcher_.RmWatch(wd);
        }
    }
}

std::vector<InotifySession::WatchingPtr> InotifySession::Covering(const std::string& path)
{
    std::vector<WatchingPtr> covering;
    const std::lock_guard<std::mutex> lock(mutex_);
    std::copy_if(rules_.begin(), rules_.end(), std::back_inserter(covering),
                 [&path](const WatchingPtr& watching) { return Covers(watching->rule, path); });
    return covering;
}

bool InotifySession::IsLookedInto(const std::string& path)
{
    const std::lock_guard<std::mutex> lock(mutex_);
    return std::any_of(rules_.begin(), rules_.end(),
                       [&path](const WatchingPtr& watching) { return LooksInto(watching->rule, path); });
}

}  // namespace NEUtils
