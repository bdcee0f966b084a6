#pragma once

#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "module_manager.h"
#include "policy_store.h"
#include "report_messages.h"

// The agent's features: which there are, what their policies are, and how one is changed.
//
// A policy that fails is undone: the feature is started again with the former one. What happens between its stop
// and that start it does not see. A feature that
// is switched off is unloaded, so that the file that is there by then comes into use with the next policy.
//
// Threads  Start, Apply and Stop: one at a time. The rest: any.
// Blocks   as long as the features' entry points do.
class FeatureHost {
public:
    struct Outcome {
        NEUtils::CommandResult result = NEUtils::kCommandDone;
        std::string reason;
    };
    struct State {
        std::string name;
        std::string status;  // off, starting, started, failed, and in passing loaded or stopped
    };

    // Libraries and policies: <root>/lib/features, <root>/conf/policies.
    explicit FeatureHost(const std::string& root);

    void Start();  // what the kept policies want
    void Stop();

    // Without a text the former one goes on to hold. What succeeds is kept for the next start.
    Outcome Apply(const std::string& feature, bool enable, const std::optional<std::string>& text);

    std::set<std::string> GetUnusable() const;  // files of kept policies

    // Of all that are installed, loaded or have a policy.
    std::vector<State> GetStates() const;

private:
    bool IsInstalled(const std::string& feature) const;
    Outcome Enable(const std::string& feature, const NEUtils::Manager::Policy& policy);
    void Disable(const std::string& feature, const NEUtils::Manager::Policy& policy);
    PolicyStore::Policies Policies() const;

    const std::string folder_;
    const PolicyStore store_;
    NEUtils::Manager::ModuleManager manager_;
    mutable std::mutex mutex_;
    PolicyStore::Policies policies_;  // that hold; under mutex_
    std::set<std::string> unusable_;
};
