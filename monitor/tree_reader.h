#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "monitor/tracker_state.h"
#include "monitor/watch_keeper.h"

namespace NEUtils {

// Brings what is known of a path, and of all below it, to what is there: looks, reads directories, watches them, and
// notifies what is new, gone or another file.
//
// A directory is watched and then read, so nothing is missed in between. If another directory stands at the path
// after that, it is read once more.
class TreeReader {
public:
    explicit TreeReader(TrackerState& state) : state_(state), keeper_(state) {}

    struct Manner {
        const WatchRule* silentFor = nullptr;  // a rule that is being added does not hear of what is there already
        WatchRulePtr newFor;                   // a rule whose path leads elsewhere now hears of everything
        bool isMoved = false;                  // what is found has come by a move
        bool isLast = false;                   // no records are waiting: what the kernel has not told is lost
        Suspicion why;
    };
    void Read(const std::string& top, const Manner& manner);

    // One that stands at the path by the record of its creation, or of a move there. Reads what is below.
    void Create(WatchedFile& directory, const std::string& name, const std::string& path, const struct stat& status,
                bool isMoved);

    // Notifies the end of a file, but for rules that know of it otherwise, and forgets it and all below it.
    void Remove(WatchedFile& file, const std::string& path, bool isMoved, const WatchRuleList& knowing = {});
    void Forget(WatchedFile& file);

    // Forgets what no rule covers any more at a path and below it, without a word, and narrows the watches.
    void Uncover(const std::string& top);

    // Finds out anew which rules need to learn of a directory's entries.
    void FindRulesInside(WatchedFile& directory);

    WatchKeeper& Keeper() { return keeper_; }

private:
    using Paths = std::vector<std::string>;
    WatchedFile* Meet(const std::string& path, const TrackerState::Look& look, const Manner& manner);
    WatchedFile* MeetKnown(WatchedFile& file, const std::string& path, const struct stat& status,
                           const WatchRuleList& covering, const Manner& manner);
    void Enter(WatchedFile& directory, const std::string& path, const Manner& manner, Paths& waiting);
    bool Watch(WatchedFile& directory, const std::string& path, const Manner& manner);
    [[nodiscard]] WatchRuleList RulesInside(const WatchedFile& directory) const;
    void JoinEntries(WatchedFile& directory, const WatchRuleList& before, const WatchRuleList& inside,
                     const Manner& manner);
    void LeaveEntries(WatchedFile& directory, const WatchRuleList& before, const WatchRuleList& inside);
    void RemoveMissing(WatchedFile& directory, const Paths& names);

    TrackerState& state_;
    WatchKeeper keeper_;
    std::size_t restarts_ = 0;
};

}  // namespace NEUtils
