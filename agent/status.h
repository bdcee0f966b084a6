#pragma once

#include <chrono>
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
    Status(const FeatureHost& features, const ServerLink& server, NEUtils::TaskManager& tasks)
        : features_(features), server_(server), tasks_(tasks)
    {
    }

    std::string ToJson() const;

private:
    const FeatureHost& features_;
    const ServerLink& server_;
    NEUtils::TaskManager& tasks_;
    const std::chrono::steady_clock::time_point started_ = std::chrono::steady_clock::now();
};
