#pragma once

#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "module_manager.h"
#include "policy_store.h"
#include "problems.h"
#include "report_messages.h"

// The agent's features: which there are, what their policies are, and how one is changed.
//
// A change that fails is undone: the feature is started again with the former policy. It does not see what happens
// between its stop and that start. A feature that is switched off is unloaded, so that the file that is there by then
// comes into use with the next policy.
//
// Threads  Start, Apply, Reload and Stop: one at a time. The rest: any.
// Blocks   as long as the features' entry points do.
class FeatureHost {
public:
    struct Outcome {
        NEUtils::CommandResult result = NEUtils::kCommandDone;
        std::string reason;
    };
    struct State {
        std::string name;
        std::string status;  // off, starting, started, waiting, failed, and in passing loaded or stopped
        std::string reason;  // why it has failed, or does not take its changed policy
    };

    // Libraries and policies: R/lib/features, R/conf/policies.
    explicit FeatureHost(const std::string& root);

    void Start();   // what the kept policies want
    void Reload();  // what has changed in them, and features that are not as wanted
    void Stop();

    // What succeeds is kept for the next start. Without a text that of the policy's file holds.
    Outcome Apply(const std::string& feature, bool enable, const std::optional<std::string>& text);

    void AddProblems(Problems& problems) const;

    // Of all that are installed, loaded or have a policy.
    std::vector<State> GetStates() const;

private:
    using Policy = NEUtils::Manager::Policy;

    bool IsInstalled(const std::string& feature) const;
    bool IsAsWanted(const std::string& feature, const Policy& policy) const;
    bool LoadKept(PolicyStore::Policies& policies);
    std::string Try(const std::string& feature, const Policy& policy, PolicyStore::Policies beside);
    void ReloadOne(const std::string& feature, const Policy& policy);
    Outcome Change(const std::string& feature, const Policy& policy);
    void Adopt(const std::string& feature, const Policy& policy);
    void SetFault(const std::string& feature, const std::string& fault);
    Outcome Keep(const std::string& feature, const Policy& policy);
    PolicyStore::Policies Policies() const;

    const std::string directory_;
    const PolicyStore store_;
    NEUtils::Manager::ModuleManager manager_;

    mutable std::mutex mutex_;        // of all below
    PolicyStore::Policies policies_;  // that hold
    PolicyStore::Faults faults_;      // why a feature is not as its policy wants
    PolicyStore::Faults unusable_;    // files of kept policies
    PolicyStore::Faults unkept_;      // why a policy that holds is not in its file
    std::string directoryFault_;      // why the kept policies cannot be read
};
