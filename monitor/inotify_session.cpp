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
#include "hips_guard.h"
#include "logger.h"
#include "monitor/watch_scope.h"
#include "util/errno_text.h"

namespace NEUtils {

using Monitor::Covers;
using Monitor::LooksInto;

namespace {

constexpr std::size_t kStepsPerBeat = 1024;

bool Exists(const std::string& path)
{
    struct stat status = {};
    return lstat(path.c_str(), &status) == 0;
}

// The directories above a path, from the top down, as far as they are there.
std::vector<std::string> DirectoriesAbove(const std::string& path)
{
    std::vector<std::string> directories;
    for (std::size_t slash = path.find('/'); slash != std::string::npos && path != "/";
         slash = path.find('/', slash + 1)) {
        const std::string directory = slash == 0 ? "/" : path.substr(0, slash);
        struct stat status = {};
        if (stat(directory.c_str(), &status) != 0 || !S_ISDIR(status.st_mode)) {
            break;
        }
        directories.push_back(directory);
    }
    return directories;
}

bool IsEqual(const timespec& one, const timespec& other)
{
    return one.tv_sec == other.tv_sec && one.tv_nsec == other.tv_nsec;
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

InotifySession::Known::Known(const struct stat& seen)
    : status{seen.st_ino,   seen.st_mode, seen.st_uid,  seen.st_gid,
             seen.st_nlink, seen.st_size, seen.st_mtim, seen.st_ctim},
      isDirectory(S_ISDIR(seen.st_mode))
{
}

bool InotifySession::Known::IsSameFile(const struct stat& now) const
{
    return status.inode == now.st_ino && isDirectory == S_ISDIR(now.st_mode);
}

// A directory's size, links and times follow its entries, which are told themselves.
std::uint32_t InotifySession::Known::Differences(const struct stat& now) const
{
    std::uint32_t bits = 0;
    if (!isDirectory && (status.size != now.st_size || !IsEqual(status.written, now.st_mtim))) {
        bits |= IN_MODIFY | IN_CLOSE_WRITE;
    }
    if (status.mode != now.st_mode || status.uid != now.st_uid || status.gid != now.st_gid ||
        (!isDirectory && (status.links != now.st_nlink || (bits == 0 && !IsEqual(status.changed, now.st_ctim))))) {
        bits |= IN_ATTRIB;
    }
    return bits;
}

// One change of rules at a time, without holding a lock over it.
class InotifySession::Change {
public:
    explicit Change(InotifySession& session) : session_(session)
    {
        std::unique_lock<std::mutex> lock(session_.mutex_);
        session_.changed_.wait(lock, [this] { return !session_.changing_; });
        session_.changing_ = true;
    }
    ~Change()
    {
        const std::lock_guard<std::mutex> lock(session_.mutex_);
        session_.changing_ = false;
        session_.changed_.notify_one();
    }
    Change(const Change&) = delete;
    Change& operator=(const Change&) = delete;

private:
    InotifySession& session_;
};

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
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        rules = rules_;
    }
    for (const WatchingPtr& watching : rules) {  // still in their place for whoever removes one meanwhile
        watching->gate.Close();
    }
    KnownFiles known;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        rules_.clear();
        known.swap(known_);
    }
    for (const auto& [path, file] : known) {
        Monitor::RemoveRecord(path);
    }
    watcher_.Stop();
}

bool InotifySession::AddRule(const Rule& rule)
{
    const auto watching = std::make_shared<Watching>(rule);
    if (!rule.mayBeMissing && !Exists(rule.path)) {
        NE_LOG(ERROR, "Watch rule has no such path.[path=%s errorInfo=%s]", rule.path.c_str(), ErrnoText(errno).Get());
        return false;
    }
    bool added = false;
    bool settled = false;
    {
        const Change change(*this);
        {
            const std::lock_guard<std::mutex> lock(mutex_);
            added = !stopping_ && std::none_of(rules_.begin(), rules_.end(), [&rule](const WatchingPtr& other) {
                return Monitor::IsSame(other->given, rule);
            });
            if (added) {
                rules_.push_back(watching);
            }
        }
        settled = added && (Settle(watching, kSilent) || (rule.mayBeMissing && !Exists(rule.path)));
    }
    if (!added) {
        NE_LOG(ERROR, "Watch rule is there already.[path=%s]", rule.path.c_str());
    } else if (!settled) {
        RemoveRule(rule);
    }
    return settled;
}

Monitor::WatchState InotifySession::GetState(const Rule& rule)
{
    const std::lock_guard<std::mutex> lock(mutex_);
    for (const WatchingPtr& watching : rules_) {
        if (Monitor::IsSame(watching->given, rule)) {
            return known_.count(watching->rule.path) != 0 ? Monitor::kWatching : Monitor::kWaiting;
        }
    }
    return Monitor::kNotWatched;
}

std::size_t InotifySession::GetLackingCount()
{
    std::size_t lacking = 0;
    const std::lock_guard<std::mutex> lock(mutex_);
    for (const WatchingPtr& watching : rules_) {
        lacking += watching->lacking;
    }
    return lacking;
}

bool InotifySession::RemoveRule(const Rule& rule)
{
    WatchingPtr removed;
    {
        const Change change(*this);
        {
            const std::lock_guard<std::mutex> lock(mutex_);
            const auto found = std::find_if(rules_.begin(), rules_.end(), [&rule](const WatchingPtr& watching) {
                return Monitor::IsSame(watching->given, rule);
            });
            if (found != rules_.end()) {
                removed = *found;
                rules_.erase(found);
            }
        }
        if (removed != nullptr) {
            DropUnneeded(*removed);
        }
    }
    if (removed != nullptr) {
        removed->gate.Close();  // after the change, which a callback may wait for
    }
    return removed != nullptr;
}

// What no other rule needs goes; what others need is watched for them alone.
void InotifySession::DropUnneeded(const Watching& removed)
{
    struct Kept {
        std::string path;
        bool isDirectory;
        int wd;
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
            if (!Covers(removed.rule, path) &&
                std::find(removed.above.begin(), removed.above.end(), path) == removed.above.end()) {
                continue;
            }
            const auto file = known_.find(path);
            const bool isDirectory = file == known_.end() || file->second.isDirectory;
            const std::uint32_t mask = WatchMask(path, isDirectory);
            if (mask != 0) {
                kept.push_back({path, isDirectory, current->first, mask});
                continue;
            }
            watches.push_back(current->first);
            if (file != known_.end()) {
                file->second.wd = 0;
            }
            paths_.erase(current);
        }
        ForEachAtOrBelow(known_, removed.rule.path, [&](KnownFiles::iterator file) {
            if (!IsCovered(file->first)) {
                records.push_back(file->first);
                known_.erase(file);
            }
        });
    }
    for (const int wd : watches) {
        watcher_.RmWatch(wd);
    }
    for (const Kept& watch : kept) {
        SetMask(watch.path, watch.isDirectory, watch.wd, watch.mask);
    }
    for (const std::string& path : records) {
        Monitor::RemoveRecord(path);
    }
}

// Takes up a rule's path if it is there, and watches for its coming and going. True if it is watched.
bool InotifySession::Settle(const WatchingPtr& watching, Mode mode)
{
    const std::string& path = watching->rule.path;
    WatchAbove(watching);
    const bool taken = Exists(path) && TakeUp(path, mode);
    TellLack();
    return taken;
}

void InotifySession::WatchAbove(const WatchingPtr& watching)
{
    std::vector<std::string> above = DirectoriesAbove(watching->rule.path);
    std::vector<std::string> before;
    do {  // the next one down may have come before the watch on the last
        {
            const std::lock_guard<std::mutex> lock(mutex_);
            watching->above = above;
        }
        for (const std::string& directory : above) {
            EnsureWatch(directory, true);
        }
        before.swap(above);
        above = DirectoriesAbove(watching->rule.path);
    } while (above.size() > before.size() && !stopping_);
}

void InotifySession::SettleAtOrBelow(const std::string& path)
{
    for (const WatchingPtr& watching : RootsBelow(path)) {
        Settle(watching, kNews);
    }
}

// The rules whose paths are this one or below it.
std::vector<InotifySession::WatchingPtr> InotifySession::RootsBelow(const std::string& path)
{
    std::vector<WatchingPtr> roots;
    const std::lock_guard<std::mutex> lock(mutex_);
    std::copy_if(rules_.begin(), rules_.end(), std::back_inserter(roots),
                 [&path](const WatchingPtr& watching) { return Monitor::IsAtOrBelow(watching->rule.path, path); });
    return roots;
}

// Walks over a path and all below it that rules cover. A directory is watched before it is read, so nothing
// is missed in between. True if the path itself is watched as far as it needs to be.
bool InotifySession::TakeUp(const std::string& top, Mode mode)
{
    bool topTaken = true;
    bool full = false;
    std::size_t steps = 0;
    std::vector<std::string> waiting{top};
    while (!waiting.empty() && !stopping_) {
        if (++steps % kStepsPerBeat == 0) {
            KeepCurrentThreadAlive();
        }
        const std::string path = std::move(waiting.back());
        waiting.pop_back();
        struct stat status = {};
        if (lstat(path.c_str(), &status) != 0) {
            continue;
        }
        const bool isDirectory = S_ISDIR(status.st_mode);
        Finding finding = TakeNote(path, status, mode);
        if (finding.replaced) {  // with all that was below it
            TakeOut(path);
            finding = TakeNote(path, status, mode);
        }
        if (!finding.covered) {
            continue;
        }
        if (finding.isNew) {
            Monitor::RecordAttribute(path);
            DropUnknownRecord(path);
        }
        // Where one that may be read is refused there is no room, and no use in asking for each of the rest.
        const bool taken = full && isDirectory ? !IsLookedInto(path) : EnsureWatch(path, isDirectory);
        if (!taken && Exists(path)) {
            full = full || access(path.c_str(), R_OK) == 0;
            topTaken = topTaken && path != top;
            CountLack(path);
        }
        if (finding.isNew && mode != kSilent) {
            Monitor::FileEvent event = {path, {}, IN_CREATE, isDirectory, {}, {}};
            Report(event, mode == kMoved ? IN_CREATE | IN_MOVED_TO : IN_CREATE, kAll);
        } else if (finding.different != 0) {
            OnChanged(path, finding.different, isDirectory, kAll);
        }
        if (isDirectory && IsLookedInto(path)) {
            std::vector<std::string> entries = Entries(path);
            waiting.insert(waiting.end(), std::make_move_iterator(entries.begin()),
                           std::make_move_iterator(entries.end()));
        }
    }
    return topTaken;
}

// After a record was made: the removal of its file meanwhile holds.
void InotifySession::DropUnknownRecord(const std::string& path)
{
    bool known = false;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        known = known_.count(path) != 0;
    }
    if (!known) {
        Monitor::RemoveRecord(path);
    }
}

InotifySession::Finding InotifySession::TakeNote(const std::string& path, const struct stat& status, Mode mode)
{
    Finding finding;
    const std::lock_guard<std::mutex> lock(mutex_);
    finding.covered = !stopping_ && IsCovered(path);
    if (!finding.covered) {
        return finding;
    }
    const auto [entry, fresh] = known_.try_emplace(path, status);
    Known& file = entry->second;
    finding.replaced = !fresh && file.status.inode != 0 && !file.IsSameFile(status);
    if (finding.replaced) {
        return finding;
    }
    finding.isNew = fresh || file.status.inode == 0 || (mode != kSilent && file.untold);
    if (finding.isNew) {
        const auto covering = std::count_if(rules_.begin(), rules_.end(), [&path](const WatchingPtr& watching) {
            return Covers(watching->rule, path);
        });
        file.createTold = mode != kSilent;
        file.untold = mode == kSilent && covering > 1;
    } else if (mode == kCompare) {
        finding.different = file.Differences(status);
    }
    if (finding.isNew || mode == kCompare) {
        file.status = Known(status).status;
        file.isDirectory = S_ISDIR(status.st_mode);
    }
    return finding;
}

bool InotifySession::IsCovered(const std::string& path) const
{
    return std::any_of(rules_.begin(), rules_.end(),
                       [&path](const WatchingPtr& watching) { return Covers(watching->rule, path); });
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
        if (std::find(watching->above.begin(), watching->above.end(), path) != watching->above.end()) {
            mask |= IN_CREATE;
        }
    }
    return mask;
}

// Sets the mask of a watch that is there; false if the path is not that of the watch any more.
bool InotifySession::SetMask(const std::string& path, bool isDirectory, int wd, std::uint32_t mask)
{
    constexpr std::uint32_t kDirectoryMask = IN_MOVE | IN_CREATE | IN_DELETE | IN_DELETE_SELF | IN_MOVE_SELF;
    const int set =
        inotify_add_watch(watcher_.GetFd(), path.c_str(), mask | IN_DONT_FOLLOW | (isDirectory ? kDirectoryMask : 0U));
    if (set == -1 || set == wd) {
        return set == wd;
    }
    bool isOther = false;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        isOther = paths_.count(set) != 0;
    }
    if (!isOther) {  // a watch that nobody knows
        inotify_rm_watch(watcher_.GetFd(), set);
    }
    return false;
}

// True if the path is watched or need not be.
bool InotifySession::EnsureWatch(const std::string& path, bool isDirectory)
{
    std::uint32_t mask = 0;
    int known = 0;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        mask = WatchMask(path, isDirectory);
        const auto file = known_.find(path);
        known = file == known_.end() ? 0 : file->second.wd;
    }
    if (mask == 0 || (known != 0 && SetMask(path, isDirectory, known, mask | IN_MASK_ADD))) {
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
            Assign(wd, path, isDirectory);
        } else {
            paths_.erase(wd);
        }
    }
    if (!needed) {
        watcher_.RmWatch(wd);
    }
    return true;
}

// Says which path a watch stands for. A directory that was found elsewhere before has been moved.
void InotifySession::Assign(int wd, const std::string& path, bool isDirectory)
{
    const auto [entry, fresh] = paths_.try_emplace(wd, path);
    if (!fresh && entry->second != path) {
        if (!isDirectory) {
            return;
        }
        if (const auto old = known_.find(entry->second); old != known_.end() && old->second.wd == wd) {
            old->second.wd = 0;
        }
        entry->second = path;
    }
    if (const auto file = known_.find(path); file != known_.end()) {
        file->second.wd = wd;
    }
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

// Forgets a path and all below it. The kernel may have dropped the watches already.
void InotifySession::TakeOut(const std::string& top)
{
    std::vector<std::string> gone;
    std::vector<int> watches;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        ForEachAtOrBelow(known_, top, [&](KnownFiles::iterator file) {
            gone.push_back(file->first);
            const auto watch = paths_.find(file->second.wd);
            if (watch != paths_.end() && watch->second == file->first) {
                watches.push_back(watch->first);
                paths_.erase(watch);
            }
            known_.erase(file);
        });
    }
    for (const std::string& path : gone) {
        Monitor::RemoveRecord(path);
    }
    for (const int wd : watches) {
        inotify_rm_watch(watcher_.GetFd(), wd);
        watcher_.RmInvalidWatch(wd);
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
