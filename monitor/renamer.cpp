#include "monitor/renamer.h"

#include <sys/inotify.h>

#include <algorithm>

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
    const std::vector<Moved> all = ListMoved(file);
    WatchedFile* const target = WatchedTree::Entry(directory, name);
    const FileStatus replaced = target == nullptr || !target->isKnown ? FileStatus() : target->status;
    if (target != nullptr) {
        Replace(*target, to, all.front().before);
    }
    WatchedFile* const above = file.parent;
    state_.tree.Move(file, directory, name);
    if (now.IsSeen() && isSame) {
        state_.tree.SetStatus(file, now);
    }
    const bool changesRules = FollowRules(all);
    if (changesRules) {
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

std::vector<Renamer::Moved> Renamer::ListMoved(WatchedFile& top) const
{
    std::vector<Moved> all;
    WatchedTree::ForEach(top, [&](WatchedFile& file) {
        if (file.isKnown) {
            const std::string path = file.Path();
            all.push_back({&file, path, state_.Covering(file, path)});
        }
    });
    return all;
}

// True if some rule covers less than before or more.
bool Renamer::FollowRules(const std::vector<Moved>& all)
{
    WatchedTree::ForEach(*all.front().file, [this](WatchedFile& file) {
        if (file.entries != nullptr) {
            reader_.FindRulesInside(file);
        }
    });
    bool changes = false;
    for (const Moved& moved : all) {
        const std::string to = moved.file->Path();
        const WatchRuleList after = state_.Covering(*moved.file, to);
        Monitor::RemoveRecord(moved.from);
        if (!after.empty() && moved.file->status.IsSeen()) {
            Monitor::RecordAttribute(to, Monitor::AttributeOf(moved.file->status.AsStat()));
        }
        Notify(moved, all.front(), to, after);
        changes = changes || moved.before != after;
    }
    return changes;
}

// A rule that covers only one of the paths sees a file come or go. Of what is below the top, one that covers the top's
// both paths sees nothing but that.
void Renamer::Notify(const Moved& moved, const Moved& top, const std::string& to, const WatchRuleList& after)
{
    const bool isTop = &moved == &top;
    for (const WatchRulePtr& rule : moved.before) {
        if (!Holds(after, rule)) {
            const bool topStays = Monitor::Covers(rule->rule, top.file->Path());
            if (isTop || moved.from == rule->rule.path || topStays) {
                state_.NotifyDeleted({rule}, moved.from, *moved.file, true);
            }
        } else if (isTop && (rule->rule.mask & IN_MOVE) != 0) {
            state_.notifications.push_back(
                {rule, {to, moved.from, IN_MOVED_TO, moved.file->isDirectory, {}, LastLook(*moved.file)}});
        }
    }
    for (const WatchRulePtr& rule : after) {
        if (!Holds(moved.before, rule)) {
            state_.NotifyCreated({rule}, to, moved.file->isDirectory, LastLook(*moved.file), true);
        }
    }
}

}  // namespace NEUtils
