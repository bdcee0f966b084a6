#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <utility>
#include <vector>

#include "agent_config.h"
#include "feature_host.h"
#include "problems.h"
#include "server_link.h"
#include "task_manager.h"

// How the agent is, as one JSON object: for people at "sentrel-agent --status" and for the server. Its fields:
// docs/FORMATS.md.
//
// Threads  any, once its parts run.
class Status {
public:
    Status(const FeatureHost& features, const ServerLink& server, NEUtils::TaskManager& tasks)
        : features_(features), server_(server), tasks_(tasks)
    {
    }

    std::string ToJson() const;
    Problems FindProblems() const;

    // Looks for more problems whenever somebody asks. Before the first question.
    using Source = std::function<void(Problems&)>;
    void AddSource(Source source) { sources_.push_back(std::move(source)); }

    void SetLimits(const UseLimits& limits);

    // A problem that lasts until it is set to nothing.
    void SetProblem(const std::string& key, const std::string& text);

    // A problem that ends after an hour.
    void AddNews(const std::string& key, const std::string& text);

private:
    using Steady = std::chrono::steady_clock;

    // A count of losses, and when it was last seen to have grown.
    struct Loss {
        std::uint64_t count = 0;
        Steady::time_point since;
    };

    nlohmann::ordered_json Describe(Problems& problems) const;
    void AddOwn(Problems& problems) const;
    void AddLosses(Problems& problems) const;
    bool IsNews(const std::string& what, std::uint64_t count) const;

    const FeatureHost& features_;
    const ServerLink& server_;
    NEUtils::TaskManager& tasks_;
    std::vector<Source> sources_;
    const Steady::time_point started_ = Steady::now();

    mutable std::mutex mutex_;  // of all below
    mutable std::map<std::string, Loss> losses_;
    std::map<std::string, std::string> lasting_;
    std::map<std::string, std::string> news_;
    UseLimits limits_;
};
