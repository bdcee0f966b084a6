#pragma once

#include <string>
#include <vector>

#include "monitor/tracker_state.h"
#include "monitor/tree_reader.h"

namespace NEUtils {

// Finds the real path of each rule, and watches the way to it: every directory in which a name on the way is looked
// up, those of links included. So the path is seen to go and to come, and a link to lead elsewhere.
class RulePlacer {
public:
    RulePlacer(TrackerState& state, TreeReader& reader) : state_(state), reader_(reader) {}

    // Places a rule that is new (isNew: it does not hear of what is there), or whose way may have changed. What it
    // covered by its former path is gone for it.
    void Place(const WatchRulePtr& rule, bool isNew);
    void TakeOut(const WatchRulePtr& rule);

    // Where a path leads.
    struct Way {
        std::string path;                // the real one, as far as it is there
        std::vector<std::string> names;  // all that were looked up, as paths
        bool isDirectory = false;
        bool isThere = false;
    };
    [[nodiscard]] Way Resolve(const Monitor::FileWatchRule& given) const;

private:
    [[nodiscard]] Way Follow(const std::string& path, bool followsLast) const;
    void SetWay(const WatchRulePtr& rule, Way way);
    void WatchWay(const std::string& directory);

    TrackerState& state_;
    TreeReader& reader_;
};

}  // namespace NEUtils
