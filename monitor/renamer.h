#pragma once

#include <string>
#include <vector>

#include "monitor/tracker_state.h"
#include "monitor/tree_reader.h"

namespace NEUtils {

// Takes a known file, with all below it, to another path.
class Renamer {
public:
    Renamer(TrackerState& state, TreeReader& reader) : state_(state), reader_(reader) {}

    // Both paths are entries of directories that are looked into, and the look is one at the new path.
    void Rename(WatchedFile& file, const std::string& from, WatchedFile& directory, const std::string& name,
                const TrackerState::Look& look);

private:
    // One of the files whose path changes: the rules that cover it before and after, and for a directory what it will
    // have inside.
    struct Moved {
        WatchedFile* file;
        std::string from;
        std::string to;
        WatchRuleList before = {};
        WatchRuleList after = {};
        WatchRuleList inside = {};
        bool holdsWay = false;
    };
    void Replace(WatchedFile& target, const std::string& to, const WatchRuleList& before);
    [[nodiscard]] std::vector<Moved> ListMoved(WatchedFile& top, const WatchedFile& directory,
                                               const std::string& to) const;
    void Notify(const Moved& moved, const Moved& top);
    static void RecordAttributes(const std::vector<Moved>& all);

    TrackerState& state_;
    TreeReader& reader_;
};

}  // namespace NEUtils
