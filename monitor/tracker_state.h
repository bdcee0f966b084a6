#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "file_watch.h"
#include "monitor/watch_host.h"
#include "monitor/watch_rules.h"
#include "monitor/watched_tree.h"

namespace NEUtils {

// An event on its way to the callback of a rule.
struct Notification {
    WatchRulePtr rule;
    Monitor::FileEvent event;
};

// What to look at again once all records are handled.
struct Suspicion {
    bool isRemounted = false;  // something was mounted or unmounted there
    bool compares = false;     // changes of content may have been missed
};

// What the parts of the tracker of files work on.
struct TrackerState {
    explicit TrackerState(WatchHost& system) : host(system) {}

    WatchHost& host;
    WatchRules rules;
    WatchedTree tree;
    std::vector<Notification> notifications;
    std::map<std::string, Suspicion> suspects;  // by path
    WatchRuleList unplaced;                     // rules whose way may have changed

    void Suspect(const std::string& path, Suspicion how = {});
    void Unplace(const WatchRuleList& changed);

    [[nodiscard]] WatchRuleList Covering(const WatchedFile& file, const std::string& path) const;

    using Look = std::optional<struct stat>;
    void NotifyCreated(const WatchRuleList& to, const std::string& path, bool isDirectory, const Look& look,
                       bool isMoved = false);
    // Also for what came by a move or went by one, which rules for moves want to know.
    void NotifyDeleted(const WatchRuleList& to, const std::string& path, const WatchedFile& file, bool isMoved);
    void NotifyChanged(const WatchRuleList& to, std::uint32_t mask, const Monitor::FileEvent& event);
};

// Files that begin and cease to be known, with their records in the attribute table.
void BeKnown(TrackerState& state, WatchedFile& file, const std::string& path, const TrackerState::Look& look);
void BeUnknown(WatchedFile& file, const std::string& path);

}  // namespace NEUtils
