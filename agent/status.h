#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>

#include "feature_host.h"
#include "server_link.h"
#include "task_manager.h"

// How the agent is, as one JSON object: for people at "sentrel-agent --status" and for the server. Its fields:
// docs/FORMATS.md.
//
// Threads  any, once its parts run.
class Status {
public:
    // The limits of its own use, 0 for none.
    Status(const FeatureHost& features, const ServerLink& server, NEUtils::TaskManager& tasks, long memoryLimitKiB,
           double cpuLimitPercent)
        : features_(features),
          server_(server),
          tasks_(tasks),
          memoryLimitKiB_(memoryLimitKiB),
          cpuLimitPercent_(cpuLimitPercent)
    {
    }

    std::string ToJson() const;

private:
    using Steady = std::chrono::steady_clock;

    // A count of losses, and when it was last seen to have grown.
    struct Loss {
        std::uint64_t count = 0;
        Steady::time_point since;
    };

    bool IsNews(const std::string& what, std::uint64_t count) const;

    const FeatureHost& features_;
    const ServerLink& server_;
    NEUtils::TaskManager& tasks_;
    const long memoryLimitKiB_;
    const double cpuLimitPercent_;
    const Steady::time_point started_ = Steady::now();
    mutable std::mutex mutex_;
    mutable std::map<std::string, Loss> losses_;
};
