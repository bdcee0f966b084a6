#include "monitor/tracker_state.h"

#include <sys/inotify.h>

#include <algorithm>

#include "attribute.h"

namespace NEUtils {

void TrackerState::Suspect(const std::string& path, Suspicion how)
{
    Suspicion& suspicion = suspects[path];
    suspicion.isRemounted = suspicion.isRemounted || how.isRemounted;
    suspicion.compares = suspicion.compares || how.compares;
}

void TrackerState::Unplace(const WatchRuleList& changed)
{
    for (const WatchRulePtr& rule : changed) {
        if (std::find(unplaced.begin(), unplaced.end(), rule) == unplaced.end()) {
            unplaced.push_back(rule);
        }
    }
}

WatchRuleList TrackerState::Covering(const WatchedFile& file, const std::string& path) const
{
    if (file.parent == nullptr) {
        return rules.OwnersOf(path);
    }
    const WatchedFile::Entries& directory = *file.parent->entries;
    return rules.Covering(directory.inside, directory.holdsWay, path);
}

void TrackerState::NotifyCreated(const WatchRuleList& to, const std::string& path, bool isDirectory, const Look& look,
                                 bool isMoved)
{
    for (const WatchRulePtr& rule : to) {
        if ((rule->rule.mask & (IN_CREATE | (isMoved ? IN_MOVED_TO : 0U))) != 0) {
            notifications.push_back({rule, {path, {}, IN_CREATE, isDirectory, {}, look}});
        }
    }
}

void TrackerState::NotifyDeleted(const WatchRuleList& to, const std::string& path, const WatchedFile& file,
                                 bool isMoved)
{
    Look last;
    if (file.status.IsSeen()) {
        last = file.status.AsStat();
    }
    for (const WatchRulePtr& rule : to) {
        const std::uint32_t own = path == rule->rule.path ? IN_DELETE_SELF | IN_MOVE_SELF : 0;
        if ((rule->rule.mask & (IN_DELETE | own | (isMoved ? IN_MOVED_FROM : 0U))) != 0) {
            notifications.push_back({rule, {path, {}, IN_DELETE, file.isDirectory, {}, last}});
        }
    }
}

void TrackerState::NotifyChanged(const WatchRuleList& to, std::uint32_t mask, const Monitor::FileEvent& event)
{
    for (const WatchRulePtr& rule : to) {
        if ((rule->rule.mask & mask) != 0) {
            notifications.push_back({rule, event});
            notifications.back().event.mask = mask & rule->rule.mask;
        }
    }
}

void BeKnown(TrackerState& state, WatchedFile& file, const std::string& path, const TrackerState::Look& look)
{
    state.tree.SetStatus(file, look.has_value() ? FileStatus(*look) : FileStatus());
    file.isKnown = true;
    if (look.has_value()) {
        Monitor::RecordAttribute(path, Monitor::AttributeOf(*look));
    }
}

void BeUnknown(WatchedFile& file, const std::string& path)
{
    if (file.isKnown) {
        file.isKnown = false;
        Monitor::RemoveRecord(path);
    }
}

}  // namespace NEUtils
