#pragma once

#include <dlfcn.h>

#include <atomic>
#include <string>

#include "neutils_api.h"

namespace NEUtils::Manager {

enum ModuleStatus {
    kNotLoaded = 0,
    kLoaded = 1,  // also deinitialised
    kStarted = 2,
    kStopped = 3,  // also initialised and not yet started
    kFailed = 4,
};

// What is wanted of a feature.
struct Policy {
    bool enable = false;
    std::string policy;  // the text its entry points get; may not hold a zero byte
    std::string extra;   // kept with it, for the owner's use
};

// One feature library: loads lib<feature>.so, finds its entry points (module_entry.h) and calls them.
//
// Threads  one at a time, entry points included; GetStatus any.
// Owns     the library: the destructor is DestroyModule.
// Blocks   as long as the entry points do.
// Errors   each failed step is one record and status 4. No step is refused for the status: its caller
//          (module_manager.h) decides that.
class NEUTILS_API Module {
public:
    Module() = default;
    ~Module();
    Module(const Module&) = delete;
    Module& operator=(const Module&) = delete;

    void SetFeature(const std::string& feature);
    void SetLoadFlags(int flags);  // of dlopen
    void SetFailed();              // for a reason outside
    ModuleStatus GetStatus() const;
    bool IsSamePolicy(const std::string& policy) const;

    // The directory's name ends in a slash; without any slash the loader would search the system's paths.
    std::string GetLibraryPath(const std::string& directory) const;

    // Closes first what was loaded before.
    bool LoadModule(const std::string& directory);

    // Give the entry point's result, and 0 where there is no entry point.
    int InitModule();
    int StartModule();                                                     // with the policy of the last start
    int StartModule(const std::string& policy, const std::string& extra);  // remembers both if it succeeds

    // The result of the library's CheckPolicy, and 1 where it has none.
    int CheckPolicy(const std::string& policy) const;

    void StopModule(const std::string& policy);
    void DeinitModule();

    // Loads and initialises it where that is not yet done, then starts, stops or restarts it, or leaves it as it
    // is. A failed module stays as it is.
    void AdjustModule(const std::string& directory, bool enable, const Policy& policy);

    // Stops it if it is started, with the policy of its start, and deinitialises it if it was initialised. A
    // failed module stays failed.
    void StopAndDeinit();

    // The same, then closes the library: status 0, failed or not. It can be loaded again.
    void DestroyModule();

private:
    template <typename Entry>
    bool FindEntry(const char* name, Entry& entry);
    int Start(const std::string& policy);
    void CloseLibrary();

    std::atomic<ModuleStatus> status_{kNotLoaded};
    std::string feature_;
    std::string policy_;
    std::string extra_;
    int loadFlags_ = RTLD_NOW;
    void* library_ = nullptr;
    int (*init_)() = nullptr;
    int (*start_)(const char* policy) = nullptr;
    int (*stop_)(const char* policy) = nullptr;
    int (*deinit_)() = nullptr;
    int (*check_)(const char* policy) = nullptr;  // optional
    bool initialised_ = false;                    // status 4 does not tell
};

}  // namespace NEUtils::Manager
