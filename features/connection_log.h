#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "connection_record.h"
#include "network_rules.h"
#include "repeats.h"

// Which connections are logged and reported.
struct ConnectionLogSettings {
    std::vector<NetworkRule> includes;  // none: all
    std::vector<NetworkRule> excludes;  // of those
    std::uint64_t repeats = 100;  // of one program, or from one address, in a second; more are summed up, 0: never
};

// Turns connections into log records and reports.
//
// The agent's own are left out: a report about one could make the next.
//
// Threads  Handle: one; all else: any.
class ConnectionLog {
public:
    explicit ConnectionLog(ConnectionLogSettings settings) : settings_(std::move(settings)), repeats_(settings_.repeats)
    {
    }

    void Handle(const NEUtils::ConnectionRecord& record);

    // Logs and reports what was only counted since the last call; to be called about once a second.
    void LogRepeats();

    std::uint64_t GetLeftOutCount() const { return leftOut_; }  // by policy, and of the agent itself

private:
    bool IsLeftOut(const NEUtils::ConnectionRecord& record) const;
    bool Admit(const NEUtils::ConnectionRecord& record);

    const ConnectionLogSettings settings_;
    Repeats repeats_;
    std::atomic<std::uint64_t> leftOut_{0};
};
