#pragma once

#include <map>
#include <string>
#include <utility>

#include "module_manager.h"

// The kept policies, one file a feature: R/conf/policies/<feature>.policy, "enable=on" or "enable=off" in its first
// line and then the feature's policy as it stands. Administrators may edit the files.
//
// Threads  any; of two that save one file, either text may be left.
class PolicyStore {
public:
    using Policies = std::map<std::string, NEUtils::Manager::Policy>;
    using Faults = std::map<std::string, std::string>;

    struct Kept {
        Policies policies;
        Faults unusable;    // files, and what is wrong with each
        std::string fault;  // why the directory cannot be read; a missing one is empty
        bool isMissing = false;
    };

    explicit PolicyStore(std::string directory) : directory_(std::move(directory)) {}

    Kept Load() const;

    // One policy. Gives what is wrong with its file, or nothing; a missing file leaves the policy as it is.
    std::string Load(const std::string& feature, NEUtils::Manager::Policy& policy) const;

    // Replaces the file in one step; a crash leaves the old or the new one. Gives what went wrong, or nothing.
    std::string Save(const std::string& feature, const NEUtils::Manager::Policy& policy) const;

    static std::string FileOf(const std::string& feature);
    std::string PathOf(const std::string& feature) const { return directory_ + "/" + FileOf(feature); }

private:
    std::string Read(const std::string& name, NEUtils::Manager::Policy& policy) const;

    const std::string directory_;
};
