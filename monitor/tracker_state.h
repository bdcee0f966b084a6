#pragma once

#include <cstddef>
#include <cstdint>
#include <list>
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

// A list, since it is handed over without memory.
using Notifications = std::list<Notification>;

// Takes back what is notified from now on, unless that is kept: for what is notified and done whole, or not at all.
class NotificationDraft {
public:
    explicit NotificationDraft(Notifications& notifications)
        : notifications_(notifications), size_(notifications.size())
    {
    }
    ~NotificationDraft()
    {
        while (notifications_.size() > size_) {
            notifications_.pop_back();
        }
    }
    NotificationDraft(const NotificationDraft&) = delete;
    NotificationDraft& operator=(const NotificationDraft&) = delete;
    void Keep() { size_ = SIZE_MAX; }

private:
    Notifications& notifications_;
    std::size_t size_;
};

// What to look at again once all records are handled.
struct Suspicion {
    bool isRemounted = false;  // something was mounted or unmounted there
    bool compares = false;     // changes of content may have been missed
};

// What the parts of the tracker of files work on.
//
// Where memory runs out in the middle of a change, the comparison that follows puts right what is known. So whatever
// comes is notified first and then known; of what goes or moves both are done, or neither.
struct TrackerState {
    explicit TrackerState(WatchHost& system) : host(system) {}

    WatchHost& host;
    WatchRules rules;
    WatchedTree tree;
    Notifications notifications;
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
