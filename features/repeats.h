#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "report_messages.h"

// Sums up process events of one program by one parent that come faster than a rate, so that a loop of /bin/true
// cannot push all else out of the log. A process chooses its program's name: what comes from one parent under other and
// other names is summed up too, above ten times the rate. Nothing is lost from the count: each event has a record of
// its own or is counted in one sum.
//
// Threads  any.
// Limits   10,000 programs and parents at a time; each event beyond them has a record of its own.
class Repeats {
public:
    struct Sum {
        NEUtils::ProcessEvent event = NEUtils::kProcessExecuted;
        int parentPid = 0;
        std::string program;  // "(several)" in a parent's sum
        std::string user;     // of the first one
        std::uint64_t count = 0;
        std::int64_t lastMs = 0;  // when the last one happened
    };

    // The most of one program and parent that have records of their own in a second; 0: all have.
    explicit Repeats(std::uint64_t limit) : limit_(limit) {}

    // False: the event is counted. Once a second has brought too many, all are counted until one has not. Times are
    // the events' own.
    bool Admit(const Sum& event, std::int64_t timeNs);

    // Takes what was counted since the last call; to be called about once a second.
    std::vector<Sum> Take();

private:
    struct Entry {
        Sum sum;
        std::int64_t secondStart = 0;
        std::uint64_t inSecond = 0;
        bool isFlood = false;
        bool isIdle = false;  // nothing came since the last Take
    };

    using Key = std::tuple<int, int, std::optional<std::string>>;  // event, parent, program or all programs

    Entry* EntryOf(const Key& key, const Sum& first, std::int64_t timeNs);
    static bool Admit(Entry& entry, const Sum& event, std::uint64_t limit, std::int64_t timeNs);

    const std::uint64_t limit_;
    std::mutex mutex_;
    std::map<Key, Entry> entries_;
};
