#include "monitor/tree_reader.h"

#include <sys/inotify.h>

#include <algorithm>
#include <iterator>
#include <string_view>
#include <unordered_set>
#include <utility>

#include "attribute.h"
#include "monitor/watch_scope.h"

namespace NEUtils {

namespace {

constexpr std::size_t kStepsPerPause = 64;
constexpr std::size_t kMaxRestarts = 100;  // of one reading

TrackerState::Look LookAt(WatchHost& host, const std::string& path)
{
    struct stat status = {};
    return host.Look(path, status) ? TrackerState::Look(status) : std::nullopt;
}

std::string NameOf(const std::string& path)
{
    return path.substr(path.rfind('/') + 1);
}

}  // namespace

void TreeReader::Read(const std::string& top, const Manner& manner)
{
    restarts_ = 0;
    std::size_t steps = 0;
    Paths waiting{top};
    while (!waiting.empty()) {
        if (++steps % kStepsPerPause == 0 && !state_.host.Continue()) {
            return;
        }
        const std::string path = std::move(waiting.back());
        waiting.pop_back();
        Manner own = manner;
        if (path != top) {
            own.why.isRemounted = false;
        }
        WatchedFile* const file = Meet(path, LookAt(state_.host, path), own);
        if (file == nullptr) {
            continue;
        }
        if (file->isDirectory) {
            Enter(*file, path, own, waiting);
        } else {
            keeper_.Ensure(*file, path);
        }
    }
}

void TreeReader::Create(WatchedFile& directory, const std::string& name, const std::string& path,
                        const struct stat& status, bool isMoved)
{
    WatchedFile& file = state_.tree.Add(directory, name);
    state_.NotifyCreated(state_.Covering(file, path), path, S_ISDIR(status.st_mode), status, isMoved);
    BeKnown(state_, file, path, status);
    if (!file.isDirectory) {
        if (directory.entries->holdsWay) {
            keeper_.Ensure(file, path);
        }
        return;
    }
    Manner manner;
    manner.isMoved = isMoved;
    Paths waiting;
    Enter(file, path, manner, waiting);
    for (const std::string& entry : waiting) {
        Read(entry, manner);
    }
}

// Gives the file if it is known, or null.
WatchedFile* TreeReader::Meet(const std::string& path, const TrackerState::Look& look, const Manner& manner)
{
    WatchedFile* const directory = path == "/" ? nullptr : state_.tree.Find(Monitor::ParentOf(path));
    if (path != "/" && (directory == nullptr || directory->entries == nullptr)) {
        return nullptr;
    }
    if (directory != nullptr && directory->isKnown && !directory->isDirectory) {
        return nullptr;  // if a directory stands there by now, that is noticed first
    }
    WatchedFile* file = directory == nullptr ? &state_.tree.Root() : state_.tree.Entry(*directory, NameOf(path));
    if (file != nullptr && file->isKnown) {
        if (!look.has_value()) {
            Remove(*file, path, true);
            return nullptr;
        }
        const WatchRuleList covering = state_.Covering(*file, path);
        if (covering.empty()) {
            Uncover(path);
            return nullptr;
        }
        file = MeetKnown(*file, path, *look, covering, manner);
        if (file != nullptr) {
            return file;
        }
    }
    if (!look.has_value()) {
        return nullptr;
    }
    const bool isNew = directory != nullptr && state_.tree.Entry(*directory, NameOf(path)) == nullptr;
    file = directory == nullptr ? &state_.tree.Root() : &state_.tree.Add(*directory, NameOf(path));
    WatchRuleList covering = state_.Covering(*file, path);
    if (covering.empty()) {
        if (isNew) {
            state_.tree.Remove(*file);
        }
        return nullptr;
    }
    covering.erase(std::remove_if(covering.begin(), covering.end(),
                                  [&manner](const WatchRulePtr& rule) { return rule.get() == manner.silentFor; }),
                   covering.end());
    state_.NotifyCreated(covering, path, S_ISDIR(look->st_mode), look, manner.isMoved);
    BeKnown(state_, *file, path, look);
    file->wasRead = true;
    file->notHeardBy = manner.silentFor;
    return file;
}

// Null if another file stood there, which is forgotten by now.
WatchedFile* TreeReader::MeetKnown(WatchedFile& file, const std::string& path, const struct stat& status,
                                   const WatchRuleList& covering, const Manner& manner)
{
    const FileStatus now(status);
    if (!file.status.IsSeen()) {
        if (file.isDirectory != now.IsDirectory()) {
            Remove(file, path, false);
            return nullptr;
        }
        BeKnown(state_, file, path, status);
    } else if (!file.status.IsSameFile(now)) {
        if (!manner.why.isRemounted || !file.isDirectory || !now.IsDirectory()) {
            if (file.isDirectory) {
                Remove(file, path, false);
            } else {
                Forget(file);
            }
            return nullptr;
        }
        keeper_.Drop(file);
        BeKnown(state_, file, path, status);
    } else if (manner.why.compares) {
        Monitor::FileEvent event = {path, {}, 0, file.isDirectory, {}, status};
        const std::uint32_t differences = file.status.Differences(now);
        Monitor::UpdateAttrAndLog(path, Monitor::AttributeOf(status), event.change);
        state_.tree.SetStatus(file, now);
        state_.NotifyChanged(covering, differences, event);
    }
    if (manner.newFor != nullptr && manner.newFor->rule.path == path) {
        state_.NotifyCreated({manner.newFor}, path, file.isDirectory, status, manner.isMoved);
    }
    return &file;
}

void TreeReader::Enter(WatchedFile& directory, const std::string& path, const Manner& manner, Paths& waiting)
{
    WatchedTree::MakeDirectory(directory);
    state_.tree.See(directory);
    const WatchRuleList before = directory.entries->inside;
    const WatchRuleList inside = RulesInside(directory);
    JoinEntries(directory, before, inside, manner);
    LeaveEntries(directory, before, inside);
    if (!Watch(directory, path, manner) || directory.entries->inside.empty()) {
        return;
    }
    Paths names;
    const bool isRead = state_.host.ListDirectory(path, names);
    const TrackerState::Look after = LookAt(state_.host, path);
    if (!after.has_value() || !directory.status.IsSameFile(FileStatus(*after))) {
        if (++restarts_ <= kMaxRestarts) {
            waiting.push_back(path);
        } else {
            state_.Suspect(path);
        }
        return;
    }
    if (isRead) {
        RemoveMissing(directory, names);
    }
    for (const std::string& name : names) {
        waiting.push_back(Monitor::EntryOf(path, name));
    }
}

// False if the directory there is known by another path, from which it has been moved: that is for the record of the
// move to say, and this is not the directory whose creation was notified. Without a record to come the other path is
// looked at first.
bool TreeReader::Watch(WatchedFile& directory, const std::string& path, const Manner& manner)
{
    WatchedFile* other = keeper_.Ensure(directory, path);
    if (other == nullptr) {
        return true;
    }
    const std::string otherPath = other->Path();
    if (manner.isLast && !Monitor::IsAtOrBelow(path, otherPath)) {
        const TrackerState::Look look = LookAt(state_.host, otherPath);
        Meet(otherPath, look, manner);
        other = keeper_.Ensure(directory, path);
        if (other == nullptr) {
            return true;
        }
    }
    state_.tree.SetStatus(directory, {});
    state_.Suspect(path);
    state_.Suspect(otherPath);
    return false;
}

// Entries that are known for the sake of other rules are new to a rule that reaches them only now.
void TreeReader::JoinEntries(WatchedFile& directory, const WatchRuleList& before, const WatchRuleList& inside,
                             const Manner& manner)
{
    WatchRuleList joined;
    for (const WatchRulePtr& rule : inside) {
        if (rule.get() != manner.silentFor && std::find(before.begin(), before.end(), rule) == before.end()) {
            joined.push_back(rule);
        }
    }
    for (const auto& [name, file] : directory.entries->files) {
        if (!joined.empty() && file->isKnown) {
            const std::string path = file->Path();
            const TrackerState::Look look = LookAt(state_.host, path);
            const bool isSame = look.has_value() && file->status.IsSameFile(FileStatus(*look));
            if (manner.why.isRemounted && !isSame) {
                continue;  // it went with the mount
            }
            const TrackerState::Look last = isSame ? look : std::nullopt;
            state_.NotifyCreated(state_.rules.Covering(joined, false, path), path, file->isDirectory, last, true);
        }
    }
}

// After a mount: the entries that a rule does not reach any more are gone for it.
void TreeReader::LeaveEntries(WatchedFile& directory, const WatchRuleList& before, const WatchRuleList& inside)
{
    WatchRuleList left;
    std::copy_if(before.begin(), before.end(), std::back_inserter(left), [&inside](const WatchRulePtr& rule) {
        return std::find(inside.begin(), inside.end(), rule) == inside.end();
    });
    Paths paths;
    for (const auto& [name, file] : directory.entries->files) {
        if (!left.empty() && file->isKnown) {
            const std::string path = file->Path();
            state_.NotifyDeleted(state_.rules.Covering(left, false, path), path, *file, true);
            paths.push_back(path);
        }
    }
    FindRulesInside(directory);
    std::for_each(paths.begin(), paths.end(), [this](const std::string& path) { Uncover(path); });
}

void TreeReader::RemoveMissing(WatchedFile& directory, const Paths& names)
{
    const std::unordered_set<std::string_view> there(names.begin(), names.end());
    std::vector<WatchedFile*> missing;
    for (const auto& [name, file] : directory.entries->files) {
        if (file->isKnown && there.count(name) == 0) {
            missing.push_back(file.get());
        }
    }
    for (WatchedFile* file : missing) {
        Remove(*file, file->Path(), true);
    }
}

void TreeReader::Remove(WatchedFile& file, const std::string& path, bool isMoved, const WatchRuleList& knowing)
{
    WatchRuleList rules = state_.Covering(file, path);
    rules.erase(std::remove_if(rules.begin(), rules.end(),
                               [&knowing](const WatchRulePtr& rule) {
                                   return std::find(knowing.begin(), knowing.end(), rule) != knowing.end();
                               }),
                rules.end());
    NotificationDraft draft(state_.notifications);
    state_.NotifyDeleted(rules, path, file, isMoved);
    WatchedTree::ForEach(file, [&](WatchedFile& one) {  // for rules that only cover something below
        if (&one != &file && one.isKnown && one.parent->entries->holdsWay) {
            const std::string own = one.Path();
            state_.NotifyDeleted(state_.rules.OwnersOf(own), own, one, isMoved);
        }
    });
    Forget(file);
    draft.Keep();
}

void TreeReader::Forget(WatchedFile& file)
{
    WatchedFile* const directory = file.parent;
    if (file.isDirectory) {
        state_.Unplace(state_.rules.OnWayAtOrBelow(file.Path()));
    }
    std::vector<WatchedFile*> files;
    WatchedTree::ForEach(file, [&files](WatchedFile& one) { files.push_back(&one); });
    for (auto one = files.rbegin(); one != files.rend(); ++one) {  // the file itself last
        const std::string path = (*one)->isKnown ? (*one)->Path() : std::string();
        keeper_.Drop(**one);
        BeUnknown(**one, path);
        state_.tree.Remove(**one);
    }
    state_.tree.Prune(directory);
}

WatchRuleList TreeReader::RulesInside(const WatchedFile& directory) const
{
    static const WatchRuleList none;
    const WatchRuleList& above = directory.parent == nullptr ? none : directory.parent->entries->inside;
    return state_.rules.Inside(above, directory.entries->path);
}

void TreeReader::FindRulesInside(WatchedFile& directory)
{
    directory.entries->inside = RulesInside(directory);
    directory.entries->holdsWay = state_.rules.HoldsWay(directory.entries->path);
}

void TreeReader::Uncover(const std::string& top)
{
    WatchedFile* const file = state_.tree.Find(top);
    if (file == nullptr) {
        return;
    }
    std::vector<WatchedFile*> files;
    WatchedTree::ForEach(*file, [&files](WatchedFile& one) { files.push_back(&one); });
    for (WatchedFile* one : files) {
        const std::string path = one->Path();
        if (one->entries != nullptr) {
            FindRulesInside(*one);
        }
        if (state_.Covering(*one, path).empty()) {
            BeUnknown(*one, path);
        }
        keeper_.Narrow(*one, path);
    }
    WatchedFile* const directory = file->parent;
    for (auto one = files.rbegin(); one != files.rend(); ++one) {  // those below first
        const bool isEmpty =
            (*one)->entries == nullptr || ((*one)->entries->files.empty() && !(*one)->entries->holdsWay);
        if (isEmpty && !(*one)->isKnown && (*one)->watch == 0 && (*one)->parent != nullptr) {
            state_.tree.Remove(**one);
        }
    }
    state_.tree.Prune(directory);
}

}  // namespace NEUtils
