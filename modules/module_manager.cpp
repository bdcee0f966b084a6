#include "module_manager.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "logger.h"
#include "util/unique_fd.h"

namespace NEUtils::Manager {

namespace {

bool IsFeatureName(const std::string& name)
{
    return !name.empty() && std::all_of(name.begin(), name.end(), [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' || c == '-';
    });
}

bool IsOwnedByUs(const struct stat& status)
{
    return status.st_uid == 0 || status.st_uid == geteuid();
}

bool MayOthersWrite(const struct stat& status)
{
    return (status.st_mode & (S_IWGRP | S_IWOTH)) != 0;
}

// Where something is missing there is no objection: the loader fails and logs why.
const char* ObjectionToError(int error, const char* otherwise)
{
    return error == ENOENT || error == ENOTDIR ? nullptr : otherwise;
}

const char* ObjectionToFile(int directory, const char* name)
{
    struct stat file = {};
    if (fstatat(directory, name, &file, AT_SYMLINK_NOFOLLOW) != 0) {
        return ObjectionToError(errno, "it cannot be looked at");
    }
    if (!S_ISREG(file.st_mode)) {
        return "it is no regular file";
    }
    if (!IsOwnedByUs(file)) {
        return "it belongs to another user";
    }
    return MayOthersWrite(file) ? "others may write it" : nullptr;
}

// Why a library must not be loaded; null if nothing speaks against it.
const char* ObjectionTo(const std::string& path)
{
    const std::size_t nameAt = path.rfind('/') + 1;
    if (nameAt == 0) {
        return "no directory is given";  // the loader would search the system's paths
    }
    const UniqueFd directory(open(path.substr(0, nameAt).c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    struct stat status = {};
    if (!directory.IsValid() || fstat(directory.Get(), &status) != 0) {
        return ObjectionToError(errno, "its directory cannot be looked at");
    }
    if (!IsOwnedByUs(status)) {
        return "its directory belongs to another user";
    }
    return MayOthersWrite(status) ? "others may write its directory" : ObjectionToFile(directory.Get(), &path[nameAt]);
}

void LogRefusal(const std::string& feature, const char* reason)
{
    NE_LOG(ERROR, "Library is refused.[feature=%s, reason=%s]", feature.c_str(), reason);
}

void LogAddFailure(const std::string& feature)
{
    NE_LOG(ERROR, "Add new feature failed.[feature=%s]", feature.c_str());
}

}  // namespace

// The right of one thread to work on a known module; null where the feature is unknown or must not be waited for.
class ModuleManager::Turn {
public:
    Turn(ModuleManager& manager, const std::string& feature) : manager_(manager)
    {
        bool busy = false;
        {
            std::unique_lock<std::mutex> lock(manager_.mutex_);
            const auto found = manager_.modules_.find(feature);
            busy = found != manager_.modules_.end() && !Take(lock, found->second);
        }
        if (busy) {
            NE_LOG(ERROR, "Module is being worked on.[feature=%s]", feature.c_str());
        }
    }
    ~Turn()
    {
        if (module_ != nullptr) {
            const std::lock_guard<std::mutex> lock(manager_.mutex_);
            manager_.working_.erase(module_);
            manager_.turnEnd_.notify_all();
        }
    }
    Turn(const Turn&) = delete;
    Turn& operator=(const Turn&) = delete;

    explicit operator bool() const { return module_ != nullptr; }
    Module& operator*() const { return *module_; }
    Module* operator->() const { return module_; }

private:
    // A thread that works on a module already must not wait for another: two could wait for each other.
    bool Take(std::unique_lock<std::mutex>& lock, Module& module)
    {
        auto& working = manager_.working_;
        const auto self = std::this_thread::get_id();
        const auto isFree = [&] { return working.count(&module) == 0; };
        if (std::none_of(working.begin(), working.end(), [&](const auto& entry) { return entry.second == self; })) {
            manager_.turnEnd_.wait(lock, isFree);
        } else if (!isFree()) {
            return false;
        }
        working.emplace(&module, self);
        module_ = &module;
        return true;
    }

    ModuleManager& manager_;
    Module* module_ = nullptr;
};

// Not left to the members: entry points may still call the manager.
ModuleManager::~ModuleManager()
{
    for (const std::string& feature : Features()) {
        DestroyModule(feature);
    }
}

void ModuleManager::SetModulePrefix(const std::string& prefix)
{
    const std::lock_guard<std::mutex> lock(mutex_);
    prefix_ = prefix;
}

std::string ModuleManager::Prefix() const
{
    const std::lock_guard<std::mutex> lock(mutex_);
    return prefix_;
}

std::vector<std::string> ModuleManager::Features() const
{
    std::vector<std::string> features;
    const std::lock_guard<std::mutex> lock(mutex_);
    for (const auto& entry : modules_) {
        features.push_back(entry.first);
    }
    return features;
}

// Makes a feature known. A name with a slash would lead out of the directory.
bool ModuleManager::AddFeature(const std::string& feature)
{
    if (!IsFeatureName(feature)) {
        LogRefusal(feature, "its name is not of letters, digits, '_' and '-'");
        LogAddFailure(feature);
        return false;
    }
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto [entry, added] = modules_.try_emplace(feature);
    if (added) {
        entry->second.SetFeature(feature);
    }
    return true;
}

// Loads a module where that is still to be done. False if it has failed, now or before.
bool ModuleManager::Load(Module& module, const std::string& feature) const
{
    if (module.GetStatus() == kNotLoaded) {
        const std::string prefix = Prefix();
        if (const char* objection = ObjectionTo(module.GetLibraryPath(prefix)); objection != nullptr) {
            LogRefusal(feature, objection);
            module.SetFailed();
        } else {
            module.LoadModule(prefix);
        }
    }
    return module.GetStatus() != kFailed;
}

// The same, and initialises it.
bool ModuleManager::Prepare(Module& module, const std::string& feature)
{
    const bool isNew = module.GetStatus() == kNotLoaded;
    if (Load(module, feature) && module.GetStatus() == kLoaded) {
        module.InitModule();
    }
    const bool failed = module.GetStatus() == kFailed;
    if (isNew && failed) {
        LogAddFailure(feature);
    }
    return !failed;
}

void ModuleManager::Adjust(Module& module, const std::string& feature, const Policy& policy)
{
    const bool isNew = module.GetStatus() == kNotLoaded;
    if (!Prepare(module, feature)) {
        return;
    }
    module.AdjustModule(Prefix(), policy.enable, policy);
    if (isNew && policy.enable && module.GetStatus() != kStarted) {
        NE_LOG(ERROR, "Start new module failed.[module=%s]", feature.c_str());
    }
}

bool ModuleManager::InitModule(const std::string& feature)
{
    if (!AddFeature(feature)) {
        return false;
    }
    const Turn turn(*this, feature);
    return turn && Prepare(*turn, feature);
}

bool ModuleManager::CheckPolicy(const std::string& feature, const std::string& policy)
{
    if (!AddFeature(feature)) {
        return false;
    }
    const Turn turn(*this, feature);
    return turn && Load(*turn, feature) && turn->CheckPolicy(policy) != 0;
}

bool ModuleManager::StartModule(const std::string& feature)
{
    const Turn turn(*this, feature);
    if (!turn) {
        return false;
    }
    if (turn->GetStatus() == kNotLoaded) {
        NE_LOG(INFO, "Module's status is not loaded, so won't start.[feature=%s]", feature.c_str());
        return false;
    }
    if (turn->GetStatus() == kStarted) {
        NE_LOG(INFO, "Module's status is not stopped, so won't start.[feature=%s]", feature.c_str());
        return false;
    }
    // Kept because operators restart features by hand: also a module that failed or is not initialised is started.
    return turn->StartModule() != 0;
}

void ModuleManager::StopModule(const std::string& feature, const std::string& policy)
{
    const Turn turn(*this, feature);
    if (!turn) {
        return;
    }
    if (turn->GetStatus() != kStarted) {
        NE_LOG(INFO, "Module's status is not started, so won't stop.[feature=%s]", feature.c_str());
        return;
    }
    turn->StopModule(policy);
}

void ModuleManager::StopAllModule(const std::string& policy)
{
    for (const std::string& feature : Features()) {
        if (const Turn turn(*this, feature); turn && turn->GetStatus() == kStarted) {
            turn->StopModule(policy);
        }
    }
}

void ModuleManager::StopAndDeinitAllModule()
{
    for (const std::string& feature : Features()) {
        if (const Turn turn(*this, feature); turn) {
            turn->StopAndDeinit();
        }
    }
}

void ModuleManager::DestroyModule(const std::string& feature)
{
    if (const Turn turn(*this, feature); turn) {
        turn->DestroyModule();
    }
}

void ModuleManager::UpdateModulePolicy(const std::map<std::string, Policy>& policies)
{
    for (const std::string& feature : Features()) {
        if (policies.count(feature) == 0 && IsRunable(feature)) {
            StopModule(feature, "");
        }
    }
    for (const auto& [feature, policy] : policies) {
        if ((!policy.enable && GetModuleStatus(feature) == kNotLoaded) || !AddFeature(feature)) {
            continue;
        }
        if (const Turn turn(*this, feature); turn) {
            Adjust(*turn, feature, policy);
        }
    }
}

bool ModuleManager::IsRunable(const std::string& feature) const
{
    return GetModuleStatus(feature) == kStarted;
}

ModuleStatus ModuleManager::GetModuleStatus(const std::string& feature) const
{
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto found = modules_.find(feature);
    return found == modules_.end()
               ? kNotLoaded
               : found->second.GetStatus();  // Kept because callers compare it with 0: unknown is 0 too
}

}  // namespace NEUtils::Manager
