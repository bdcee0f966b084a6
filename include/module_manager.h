#pragma once

#include <condition_variable>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "module.h"
#include "neutils_api.h"

namespace NEUtils::Manager {

// Holds one module a feature and moves it through its states by policy.
//
// Use      SetModulePrefix, then UpdateModulePolicy whenever there is a new policy, StopAndDeinitAllModule last.
// Threads  any. One thread at a time works on a module; others wait. An entry point may call the manager, but
//          such a call never waits: a module that some thread works on, its own included, is left alone, with
//          an ERROR record. An entry point must not wait for another thread that works on modules.
// Locks    none is held while an entry point runs, a library is loaded or a record is written.
// Blocks   as long as the entry points do.
// Limits   feature names of letters, digits, '_' and '-'. A feature stays known once it was added.
// Errors   a library is loaded only if it is a regular file, and nobody but root and the own user may write it
//          or its directory. Otherwise there is one ERROR record with the reason, and the status is 4. Directories
//          above are not checked. Policies leave a failed module alone until DestroyModule. Out of memory:
//          std::bad_alloc.
class NEUTILS_API ModuleManager {
public:
    ModuleManager() = default;
    ~ModuleManager();  // destroys the modules
    ModuleManager(const ModuleManager&) = delete;
    ModuleManager& operator=(const ModuleManager&) = delete;

    // The directory of the libraries, with a slash at the end. What is loaded already stays.
    void SetModulePrefix(const std::string& prefix);

    // Makes the feature known, and loads and initialises it where that is not yet done. True if it is initialised.
    bool InitModule(const std::string& feature);

    // Whether a feature could use a policy: loads it where that is not yet done, and starts nothing. False, with the
    // reason in a record, if it is not loaded or its CheckPolicy refuses; a feature without one takes every policy.
    bool CheckPolicy(const std::string& feature, const std::string& policy);

    // Starts with the policy of the last start. False if the feature is unknown or it was not started by this.
    bool StartModule(const std::string& feature);

    void StopModule(const std::string& feature, const std::string& policy);
    void StopAllModule(const std::string& policy);
    void StopAndDeinitAllModule();  // libraries stay loaded

    // Closes the library and forgets a failure: the next InitModule or policy loads what is there by then.
    void DestroyModule(const std::string& feature);

    // One policy a feature: stops known features that have none, with an empty text, then adds, starts, restarts
    // or stops those that have one. What is neither loaded nor wanted is not loaded.
    void UpdateModulePolicy(const std::map<std::string, Policy>& policies);

    bool IsRunable(const std::string& feature) const;  // is started
    ModuleStatus GetModuleStatus(const std::string& feature) const;

private:
    class Turn;

    bool AddFeature(const std::string& feature);
    std::vector<std::string> Features() const;
    std::string Prefix() const;
    bool Load(Module& module, const std::string& feature) const;
    bool Prepare(Module& module, const std::string& feature);
    void Adjust(Module& module, const std::string& feature, const Policy& policy);

    mutable std::mutex mutex_;  // of all below, but not of what a module holds
    std::condition_variable turnEnd_;
    std::string prefix_;
    std::map<std::string, Module> modules_;             // none is ever taken out
    std::map<const Module*, std::thread::id> working_;  // the thread that works on it
};

}  // namespace NEUtils::Manager
