#pragma once

#include <map>
#include <set>
#include <string>
#include <utility>

#include "module_manager.h"

// The policies that hold, one file a feature: <folder>/<feature>.policy, "enable=on" or "enable=off" in its first
// line and then the feature's policy as it stands. Administrators may edit them while the agent is down.
class PolicyStore {
public:
    using Policies = std::map<std::string, NEUtils::Manager::Policy>;

    explicit PolicyStore(std::string folder) : folder_(std::move(folder)) {}

    // A file that cannot be used is one ERROR record, and its name added.
    Policies Load(std::set<std::string>& unusable) const;

    // Replaces the file in one step; a crash leaves the old or the new one. Gives what went wrong, or nothing.
    std::string Save(const std::string& feature, const NEUtils::Manager::Policy& policy) const;

    static std::string FileOf(const std::string& feature);

private:
    const std::string folder_;
};
