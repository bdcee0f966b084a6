#include "monitor/renamer.h"

#include <sys/inotify.h>

#include <algorithm>
#include <unordered_map>
#include <utility>

#include "attribute.h"
#include "monitor/watch_scope.h"

namespace NEUtils {

namespace {

bool Holds(const WatchRuleList& rules, const WatchRulePtr& rule)
{
    return std::find(rules.begin(), rules.end(), rule) != rules.end();
}

TrackerState::Look LastLook(const WatchedFile& file)
{
    return file.status.IsSeen() ? TrackerState::Look(file.status.AsStat()) : std::nullopt;
}

}  // namespace

void Renamer::Rename(WatchedFile& file, const std::string& from, WatchedFile& directory, const std::string& name,
                     const TrackerState::Look& look)
{
    const std::string to = Monitor::EntryOf(directory.entries->path, name);
    const FileStatus now = look.has_value() ? FileStatus(*look) : FileStatus();
    const bool isDirectory = file.isDirectory || now.IsDirectory();
    const bool isSame = file.status.IsSeen() ? file.status.IsSameFile(now) : file.isDirectory == now.IsDirectory();
    WatchedFile* const target = WatchedTree::Entry(directory, name);
    const FileStatus replaced = target == nullptr || !target->isKnown ? FileStatus() : target->status;
    if (target != nullptr) {
        Replace(*target, to, state_.Covering(file, from));
    }
    if (now.IsSeen() && isSame) {
        state_.tree.SetStatus(file, now);
    }
    std::vector<Moved> all = ListMoved(file, directory, to);
    NotificationDraft draft(state_.notifications);
    for (const Moved& moved : all) {
        Notify(moved, all.front());
    }
    WatchedFile* const above = file.parent;
    state_.tree.Move(file, directory, name);
    draft.Keep();  // both are done, or neither
    for (Moved& moved : all) {
        if (moved.file->entries != nullptr) {
            moved.file->entries->inside.swap(moved.inside);
            moved.file->entries->holdsWay = moved.holdsWay;
        }
    }
    RecordAttributes(all);
    if (std::any_of(all.begin(), all.end(), [](const Moved& moved) { return moved.before != moved.after; })) {
        reader_.Uncover(to);
    }
    state_.tree.Prune(above);
    // What was looked at by a path while its directory was being renamed may have been another file.
    if (isDirectory) {
        state_.Unplace(state_.rules.OnWayAtOrBelow(from));
        state_.Unplace(state_.rules.OnWayAtOrBelow(to));
        state_.Suspect(from);
        state_.Suspect(to);
    }
    if (replaced.IsSeen()) {
        TreeReader::Manner manner;
        manner.isMoved = true;
        struct stat other = {};
        if (state_.host.Look(from, other) && replaced.IsSameFile(FileStatus(other))) {  // an exchange
            reader_.Read(from, manner);
        }
        state_.Suspect(from);
        state_.Suspect(to);
    }
}

// Nothing is notified of a replaced file. A directory is replaced in an exchange, or where the record of its end was
// lost; the rules that hear of the rename know of its end by that.
void Renamer::Replace(WatchedFile& target, const std::string& to, const WatchRuleList& before)
{
    if (target.isKnown && target.isDirectory) {
        reader_.Remove(target, to, true, before);
    } else {
        reader_.Forget(target);
    }
}

// The top first, and each directory before what is in it.
std::vector<Renamer::Moved> Renamer::ListMoved(WatchedFile& top, const WatchedFile& directory,
                                               const std::string& to) const
{
    const std::size_t length = top.Path().size();
    std::vector<Moved> all;
    std::unordered_map<const WatchedFile*, std::size_t> places;  // of directories
    WatchedTree::ForEach(top, [&](WatchedFile& file) {
        const std::string from = file.Path();
        Moved moved = {&file, from, to + from.substr(length)};
        const WatchRuleList& above = &file == &top ? directory.entries->inside : all[places.at(file.parent)].inside;
        if (file.isKnown) {
            moved.before = state_.Covering(file, from);
            moved.after = state_.rules.Covering(above, state_.rules.HoldsWay(Monitor::ParentOf(moved.to)), moved.to);
        }
        if (file.entries != nullptr) {
            moved.inside = state_.rules.Inside(above, moved.to);
            moved.holdsWay = state_.rules.HoldsWay(moved.to);
            places[&file] = all.size();
        }
        all.push_back(std::move(moved));
    });
    return all;
}

void Renamer::RecordAttributes(const std::vector<Moved>& all)
{
    for (const Moved& moved : all) {
        if (moved.file->isKnown) {
            Monitor::RemoveRecord(moved.from);
            if (!moved.after.empty() && moved.file->status.IsSeen()) {
                Monitor::RecordAttribute(moved.to, Monitor::AttributeOf(moved.file->status.AsStat()));
            }
        }
    }
}

// A rule that covers only one of the paths sees a file come or go. Of what is below the top, one that covers the top's
// both paths sees nothing but that.
void Renamer::Notify(const Moved& moved, const Moved& top)
{
    const bool isTop = &moved == &top;
    for (const WatchRulePtr& rule : moved.before) {
        if (!Holds(moved.after, rule)) {
            const bool topStays = Monitor::Covers(rule->rule, top.to);
            if (isTop || moved.from == rule->rule.path || topStays) {
                state_.NotifyDeleted({rule}, moved.from, *moved.file, true);
            }
        } else if (isTop && (rule->rule.mask & IN_MOVE) != 0) {
            state_.notifications.push_back(
                {rule, {moved.to, moved.from, IN_MOVED_TO, moved.file->isDirectory, {}, LastLook(*moved.file)}});
        }
    }
    for (const WatchRulePtr& rule : moved.after) {
        if (!Holds(moved.before, rule)) {
            state_.NotifyCreated({rule}, moved.to, moved.file->isDirectory, LastLook(*moved.file), true);
        }
    }
}

}  // namespace NEUtils
