#include "module.h"

#include "logger.h"

namespace NEUtils::Manager {

namespace {

std::string LoadError()
{
    const char* error = dlerror();
    return error == nullptr ? "" : error;
}

}  // namespace

Module::~Module()
{
    DestroyModule();
}

void Module::SetFeature(const std::string& feature)
{
    feature_ = feature;
}

void Module::SetLoadFlags(int flags)
{
    loadFlags_ = flags;
}

void Module::SetFailed()
{
    status_ = kFailed;
}

ModuleStatus Module::GetStatus() const
{
    return status_;
}

bool Module::IsSamePolicy(const std::string& policy) const
{
    return policy == policy_;
}

std::string Module::GetLibraryPath(const std::string& directory) const
{
    return directory + "lib" + feature_ + ".so";
}

template <typename Entry>
bool Module::FindEntry(const char* name, Entry& entry)
{
    entry = reinterpret_cast<Entry>(dlsym(library_, name));
    if (entry == nullptr) {
        NE_LOG(ERROR, "Get address of %s failed.[feature=%s, error=%s]", name, feature_.c_str(), LoadError().c_str());
    }
    return entry != nullptr;
}

bool Module::LoadModule(const std::string& directory)
{
    DestroyModule();
    library_ = dlopen(GetLibraryPath(directory).c_str(), loadFlags_);
    if (library_ == nullptr) {
        // Kept at INFO because a feature that is not installed is no fault.
        NE_LOG(INFO, "Try load library.[feature=%s, reason=%s]", feature_.c_str(), LoadError().c_str());
        status_ = kFailed;
        return false;
    }
    if (!FindEntry("InitModule", init_) || !FindEntry("StartModule", start_) || !FindEntry("StopModule", stop_) ||
        !FindEntry("DeinitModule", deinit_)) {
        CloseLibrary();
        status_ = kFailed;
        return false;
    }
    check_ = reinterpret_cast<decltype(check_)>(dlsym(library_, "CheckPolicy"));
    status_ = kLoaded;
    return true;
}

int Module::InitModule()
{
    if (init_ == nullptr) {
        NE_LOG(ERROR, "Init nullptr module.[feature=%s].", feature_.c_str());
        status_ = kFailed;
        return 0;
    }
    const int result = init_();
    if (result == 0) {
        NE_LOG(INFO, "Init module failed.[feature=%s].", feature_.c_str());
        status_ = kFailed;
        return 0;
    }
    initialised_ = true;
    status_ = kStopped;
    NE_LOG(INFO, "Init module succeed.[feature=%s].", feature_.c_str());
    return result;
}

int Module::StartModule()
{
    return Start(policy_);
}

int Module::StartModule(const std::string& policy, const std::string& extra)
{
    const int result = Start(policy);
    if (result != 0) {
        policy_ = policy;
        extra_ = extra;
    }
    return result;
}

int Module::Start(const std::string& policy)
{
    NE_LOG(INFO, "Start module.[feature=%s].", feature_.c_str());
    if (start_ == nullptr) {
        status_ = kFailed;
        return 0;
    }
    const int result = start_(policy.c_str());
    if (result == 0) {
        NE_LOG(INFO, "Start module failed.[feature=%s].", feature_.c_str());
        status_ = kFailed;
        return 0;
    }
    status_ = kStarted;
    NE_LOG(INFO, "Start module succeed.[feature=%s].", feature_.c_str());
    return result;
}

int Module::CheckPolicy(const std::string& policy) const
{
    return check_ == nullptr ? 1 : check_(policy.c_str());
}

void Module::StopModule(const std::string& policy)
{
    NE_LOG(INFO, "Stop module.[feature=%s].", feature_.c_str());
    if (stop_ == nullptr) {
        status_ = kFailed;
        return;
    }
    stop_(policy.c_str());  // Kept unexamined because a module that cannot stop counts as stopped
    status_ = kStopped;
}

void Module::DeinitModule()
{
    NE_LOG(INFO, "Deinit module.[feature=%s].", feature_.c_str());
    if (deinit_ == nullptr) {
        status_ = kFailed;
        return;
    }
    deinit_();
    initialised_ = false;
    status_ = kLoaded;
}

void Module::AdjustModule(const std::string& directory, bool enable, const Policy& policy)
{
    if (status_ == kNotLoaded) {
        LoadModule(directory);
    }
    if (status_ == kLoaded) {
        InitModule();
    }
    if (status_ == kStarted && (!enable || !IsSamePolicy(policy.policy))) {
        StopModule(policy.policy);
    }
    if (status_ == kStopped && enable) {
        StartModule(policy.policy, policy.extra);
    }
}

void Module::StopAndDeinit()
{
    if (status_ == kStarted) {
        StopModule(policy_);
    }
    if (initialised_) {
        const bool failed = status_ == kFailed;
        DeinitModule();
        if (failed) {
            SetFailed();  // policies still leave it alone
        }
    }
}

void Module::DestroyModule()
{
    StopAndDeinit();
    CloseLibrary();
    status_ = kNotLoaded;
}

void Module::CloseLibrary()
{
    init_ = nullptr;
    start_ = nullptr;
    stop_ = nullptr;
    deinit_ = nullptr;
    check_ = nullptr;
    if (library_ != nullptr) {
        dlclose(library_);
        library_ = nullptr;
    }
}

}  // namespace NEUtils::Manager
