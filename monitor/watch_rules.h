#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "file_watch.h"
#include "monitor/mount_table.h"
#include "util/call_gate.h"

namespace NEUtils {

// A rule that holds.
struct WatchRule {
    explicit WatchRule(const Monitor::FileWatchRule& asGiven) : given(asGiven), rule(asGiven) {}

    const Monitor::FileWatchRule given;
    Monitor::FileWatchRule rule;   // with the links on the way to its path resolved
    std::vector<std::string> way;  // all names that are looked up on that way, as paths, with the path itself
    CallGate gate;                 // of its callback
    std::atomic<bool> isThere{false};
    bool hasLoggedLack = false;
    std::uint64_t placedIn = 0;  // the round of the tree in which its path was last resolved
    bool isElsewhere = false;    // it has left its former path and does not yet hear of the new one
    bool isLeaving = false;      // it is removed, maybe not with all that it has had
};
using WatchRulePtr = std::shared_ptr<WatchRule>;
using WatchRuleList = std::vector<WatchRulePtr>;

// Which path interests whom. Knows rules, their ways and mounts, and asks nobody.
class WatchRules {
public:
    [[nodiscard]] const WatchRuleList& All() const { return rules_; }
    [[nodiscard]] WatchRulePtr Find(const Monitor::FileWatchRule& given) const;
    void Add(const WatchRulePtr& rule);
    void Remove(const WatchRulePtr& rule);

    // Sets the real path of a rule and the names on the way to it. Gives the directories in which names were or are
    // on a way.
    std::vector<std::string> SetWay(const WatchRulePtr& rule, std::string path, std::vector<std::string> way);

    // The rules that need to learn of a directory's entries, given those of the directory above it.
    [[nodiscard]] WatchRuleList Inside(const WatchRuleList& above, const std::string& directory) const;

    // The rules that cover an entry of a directory, given those inside that directory.
    [[nodiscard]] WatchRuleList Covering(const WatchRuleList& inside, bool holdsWay, const std::string& path) const;

    // Rules whose own path this is, and those that have it on their way. HoldsWay: some entry of the directory is.
    [[nodiscard]] WatchRuleList OwnersOf(const std::string& path) const;
    [[nodiscard]] WatchRuleList OnWay(const std::string& path) const;
    [[nodiscard]] WatchRuleList OnWayAtOrBelow(const std::string& path) const;
    [[nodiscard]] bool HoldsWay(const std::string& directory) const;

    MountTable mounts;

private:
    void AddName(const WatchRulePtr& rule, const std::string& name);
    void RemoveName(const WatchRulePtr& rule, const std::string& name);
    [[nodiscard]] bool StopsAtMount(const WatchRule& rule, const std::string& directory) const;

    WatchRuleList rules_;
    std::unordered_map<std::string, WatchRuleList> onWay_;  // by path
    std::unordered_map<std::string, int> wayDirectories_;   // with the number of their names in onWay_
};

}  // namespace NEUtils
