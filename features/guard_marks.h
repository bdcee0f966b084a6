#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <tuple>
#include <vector>

#include "fanotify_watcher.h"
#include "feature_counters.h"
#include "file_rules.h"
#include "name_watch.h"
#include "own_files.h"
#include "util/rate_limiter.h"

// Keeps fanotify's marks on what guarded paths lead to. A mark belongs to a file, not to its name: where another file
// takes the name, as editors and passwd do it, that one is marked too, and the change is logged and reported.
//
// Threads  Start before the others; then one.
// Limits   a file that was moved away stays marked. Each mark holds a file in the kernel's memory, which whoever
//          replaces files could use up: HasManyOldMarks says when it is time for a watcher without them. A change that
//          NameWatch does not notice is found within a minute. A path's changes are logged once a second.
class GuardMarks {
public:
    explicit GuardMarks(NEUtils::FeatureCounters& counters) : counters_(counters) {}

    // Marks as many as it can. False, with records, if none can be guarded, now or when it is there.
    bool Start(const NEUtils::FanotifyWatcher& watcher, const std::vector<FileGuard>& guards);

    bool HasManyOldMarks() const { return marks_ > kMostOldMarks; }

    // Marks what is guarded now with another watcher, and goes on with that. The former one keeps its marks.
    void MoveTo(const NEUtils::FanotifyWatcher& watcher);

    const NameWatch& GetNames() const { return names_; }  // to poll

    void LookAtNames();  // after its descriptor has become readable
    void LookAtAll();    // after a mount
    void Tick();         // after each wait: what is due

    int GetWaitMs() const;  // until the next Tick, at most

private:
    static constexpr unsigned int kMostOldMarks = 256;

    enum State { kNew, kMarked, kMissing, kRefused };
    using Identity = std::tuple<dev_t, std::uint64_t, std::int64_t, std::uint32_t>;  // with the time of its birth

    struct Guard {
        FileGuard rule;
        State state = kNew;
        Identity identity = {};
        std::string reason = {};      // of kRefused
        State loggedState = kNew;     // as it was logged last
        std::int64_t loggedAtMs = 0;  // when
        std::uint64_t changes = 0;    // since then
    };

    void LookAt(std::size_t number);
    bool Mark(Guard& guard);
    State TryMark(Guard& guard, Identity& identity);
    void Count();
    static void LogStart(const Guard& guard);
    static void LogChange(Guard& guard, std::int64_t nowMs);

    const NEUtils::FanotifyWatcher* watcher_ = nullptr;
    NEUtils::FeatureCounters& counters_;
    OwnFiles ownFiles_;
    NameWatch names_;
    std::vector<Guard> guards_;
    unsigned int marks_ = 0;  // of files that took a name, with this watcher
    std::int64_t lookedAtMs_ = 0;
    NEUtils::RateLimiter faultLogs_{3600000};
};
