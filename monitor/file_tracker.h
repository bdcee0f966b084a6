#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "monitor/record_handler.h"
#include "monitor/rule_placer.h"
#include "monitor/tracker_state.h"
#include "monitor/tree_reader.h"

namespace NEUtils {

// Follows files by the kernel's records: what is known of them, for whom, and what is to be notified. It reads no
// descriptor, calls nobody back and knows no clock, so that it can be tried without a kernel.
//
// Threads  one at a time.
class FileTracker {
public:
    explicit FileTracker(WatchHost& host)
        : state_(host), reader_(state_), placer_(state_, reader_), records_(state_, reader_)
    {
    }

    // Whether a rule holds now. It does not if its path is missing and it does not wait for it, if it is recursive on
    // a pseudo file system, or if there is no room for the watch of its path.
    enum class Added { kYes, kMissing, kPseudo, kNoRoom };
    Added AddRule(const WatchRulePtr& rule);
    void RemoveRule(const WatchRulePtr& rule);

    void Handle(const WatchRecord& record, std::int64_t nowNs);
    void EndMovesBefore(std::int64_t timeNs);
    [[nodiscard]] bool HasMoves() const { return records_.HasMoves(); }

    // Something was mounted or unmounted since the last call; the text is that of /proc/self/mountinfo by now. A mount
    // may have come and gone in between: what was looked at meanwhile is looked at again.
    void SetMounts(const std::string& text);
    void KeepMounts() { state_.tree.BeginRound(); }  // nothing was

    // Once no records wait any more: looks again where something may have been missed.
    void LookAgain();
    [[nodiscard]] bool HasSuspects() const { return !state_.suspects.empty(); }

    // Records have been lost, or one of the functions above has thrown for want of memory: everything is compared with
    // what is known of it.
    void Compare();

    [[nodiscard]] Notifications TakeNotifications() { return std::exchange(state_.notifications, {}); }

    // Directories, and files with rules of their own, that have no watch for want of room. By rule where a rule is
    // asked for.
    [[nodiscard]] std::size_t CountLacking() const { return state_.tree.Lacking().size(); }
    [[nodiscard]] std::size_t CountLacking(const WatchRule& rule) const;
    // Paths of rules and how many they lack, once for each rule until all rules have all.
    using Lack = std::pair<std::string, std::size_t>;
    [[nodiscard]] std::vector<Lack> TakeNewLacks();

    void Clear();  // forgets all, at the end
    [[nodiscard]] WatchedTree& Tree() { return state_.tree; }

private:
    void PlaceRules();

    TrackerState state_;
    TreeReader reader_;
    RulePlacer placer_;
    RecordHandler records_;
};

}  // namespace NEUtils
