#include "feature_host.h"

#include <utility>

#include "feature_counters.h"
#include "hips_guard.h"
#include "logger.h"
#include "start_reasons.h"
#include "util/file.h"

using NEUtils::FeatureCounters;
using NEUtils::Manager::ModuleStatus;

namespace {

constexpr char kPrefix[] = "lib";
constexpr char kSuffix[] = ".so";
constexpr std::size_t kPrefixSize = sizeof(kPrefix) - 1;
constexpr std::size_t kSuffixSize = sizeof(kSuffix) - 1;

// The feature of a library's file name; empty where it is none.
std::string FeatureOf(const std::string& file)
{
    const bool isLibrary = file.size() > kPrefixSize + kSuffixSize && file.compare(0, kPrefixSize, kPrefix) == 0 &&
                           file.compare(file.size() - kSuffixSize, kSuffixSize, kSuffix) == 0;
    return isLibrary ? file.substr(kPrefixSize, file.size() - kPrefixSize - kSuffixSize) : std::string();
}

// A feature that runs, and has nothing to watch until a path is there.
bool IsWaiting(const std::string& feature)
{
    const FeatureCounters& counters = FeatureCounters::Of(feature);
    return counters.watches == 0 && counters.waiting > 0;
}

const char* NameOf(ModuleStatus status, bool wanted, bool failed)
{
    if (failed && status != NEUtils::Manager::kStarted) {
        return "failed";
    }
    if (wanted && status != NEUtils::Manager::kStarted && status != NEUtils::Manager::kFailed) {
        return "starting";
    }
    constexpr const char* kNames[] = {"off", "loaded", "started", "stopped", "failed"};
    return kNames[status];
}

// What stands in a map under a key; empty where there is nothing.
std::string Find(const PolicyStore::Faults& faults, const std::string& key)
{
    const auto found = faults.find(key);
    return found == faults.end() ? std::string() : found->second;
}

}  // namespace

FeatureHost::FeatureHost(const std::string& root) : directory_(root + "/lib/features/"), store_(root + "/conf/policies")
{
    manager_.SetModulePrefix(directory_);
}

// Reads the kept policies and remembers what is wrong with them. False where they cannot be read.
bool FeatureHost::LoadKept(PolicyStore::Policies& policies)
{
    PolicyStore::Kept kept = store_.Load();
    for (const auto& [file, reason] : kept.unusable) {
        NE_LOG(ERROR, "Kept policy cannot be used.[file=%s reason=%s]", NEUtils::Printable(file).c_str(),
               reason.c_str());
    }
    const std::lock_guard<std::mutex> lock(mutex_);
    directoryFault_ = kept.isMissing && policies_.empty() ? std::string() : kept.fault;  // a new install has none
    if (!kept.fault.empty()) {
        return false;
    }
    unusable_ = std::move(kept.unusable);
    policies = std::move(kept.policies);
    return true;
}

void FeatureHost::Start()
{
    StartReasons::Subscribe();
    PolicyStore::Policies kept;
    if (!LoadKept(kept)) {
        NE_LOG(WARN, "There are no kept policies.");
        return;
    }
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        policies_ = kept;
    }
    PolicyStore::Policies started;  // one at a time, so that it is known which one a reason belongs to
    for (const auto& [feature, policy] : kept) {
        KeepCurrentThreadAlive();
        const std::string fault = policy.enable ? Try(feature, policy, started) : std::string();
        started[feature] = policy;
        SetFault(feature, fault);
        if (!fault.empty()) {
            NE_LOG(ERROR, "Feature has failed.[feature=%s reason=%s]", feature.c_str(), fault.c_str());
        }
    }
}

void FeatureHost::Reload()
{
    PolicyStore::Policies kept;
    if (!LoadKept(kept)) {
        NE_LOG(ERROR, "Kept policies cannot be read, those that hold go on to.");
        return;
    }
    for (const auto& held : Policies()) {
        if (kept.count(held.first) == 0 && !NEUtils::FileAttribute::AccessFile(store_.PathOf(held.first))) {
            kept[held.first] = {};  // its file has been removed
        }
    }
    for (const auto& [feature, policy] : kept) {
        KeepCurrentThreadAlive();
        ReloadOne(feature, policy);
    }
}

void FeatureHost::ReloadOne(const std::string& feature, const Policy& policy)
{
    const Policy held = Policies()[feature];
    if (held.enable == policy.enable && held.policy == policy.policy && IsAsWanted(feature, policy)) {
        return;
    }
    const Outcome outcome = Change(feature, policy);
    if (outcome.result == NEUtils::kCommandDone) {
        NE_LOG(INFO, "Policy has been reloaded.[feature=%s enable=%d]", feature.c_str(), policy.enable ? 1 : 0);
    } else {
        SetFault(feature, outcome.reason);
        NE_LOG(ERROR, "Reloaded policy has failed.[feature=%s reason=%s]", feature.c_str(), outcome.reason.c_str());
    }
}

void FeatureHost::Stop()
{
    manager_.StopAndDeinitAllModule();
    StartReasons::Unsubscribe();
}

PolicyStore::Policies FeatureHost::Policies() const
{
    const std::lock_guard<std::mutex> lock(mutex_);
    return policies_;
}

// Also one whose file has gone meanwhile can be stopped. The name of a file that exists has no slash.
bool FeatureHost::IsInstalled(const std::string& feature) const
{
    return feature.find('/') == std::string::npos &&
           (manager_.GetModuleStatus(feature) != NEUtils::Manager::kNotLoaded ||
            NEUtils::FileAttribute::AccessFile(directory_ + kPrefix + feature + kSuffix));
}

bool FeatureHost::IsAsWanted(const std::string& feature, const Policy& policy) const
{
    if (!policy.enable) {
        return manager_.GetModuleStatus(feature) == NEUtils::Manager::kNotLoaded;
    }
    const FeatureCounters& counters = FeatureCounters::Of(feature);
    return manager_.IsRunable(feature) && counters.lacking == 0 && counters.waiting == 0;
}

FeatureHost::Outcome FeatureHost::Apply(const std::string& feature, bool enable, const std::optional<std::string>& text)
{
    if (!IsInstalled(feature)) {
        return {NEUtils::kCommandUnknown, "there is no such feature"};
    }
    Policy policy = Policies()[feature];
    std::string unusable;
    if (text) {
        policy.policy = *text;
    } else {
        unusable = store_.Load(feature, policy);  // an administrator may have edited it
    }
    policy.enable = enable;
    if (!unusable.empty() && enable) {
        return {NEUtils::kCommandRefused, "its kept policy " + unusable + "; it is not overwritten without a new one"};
    }
    Outcome outcome = Change(feature, policy);
    return outcome.result == NEUtils::kCommandDone && unusable.empty() ? Keep(feature, policy) : outcome;
}

// Starts a feature with a policy, beside those of others. Gives why it does not start, or nothing.
std::string FeatureHost::Try(const std::string& feature, const Policy& policy, PolicyStore::Policies beside)
{
    const StartReasons reasons;
    const bool isSame = beside.count(feature) != 0 && beside[feature].policy == policy.policy;
    if (manager_.GetModuleStatus(feature) == NEUtils::Manager::kFailed || (isSame && !IsAsWanted(feature, policy))) {
        manager_.DestroyModule(feature);  // the policy alone would leave it as it is
    }
    beside[feature] = policy;
    manager_.UpdateModulePolicy(beside);
    if (manager_.IsRunable(feature)) {
        return {};
    }
    return reasons.GetText().empty() ? "it does not start and logs nothing" : NEUtils::Printable(reasons.GetText());
}

// Has a policy hold. One that fails is undone.
FeatureHost::Outcome FeatureHost::Change(const std::string& feature, const Policy& policy)
{
    const auto former = Policies();
    if (!policy.enable) {
        Adopt(feature, policy);
        manager_.UpdateModulePolicy(Policies());
        manager_.DestroyModule(feature);
        return {};
    }
    std::string reason = Try(feature, policy, former);
    if (reason.empty()) {
        Adopt(feature, policy);
        return {};
    }
    manager_.DestroyModule(feature);
    manager_.UpdateModulePolicy(former);
    const auto before = former.find(feature);
    if (before != former.end() && before->second.enable) {
        const bool isBack = manager_.IsRunable(feature);
        reason += isBack ? "" : "; and with the former policy it does not start either";
        SetFault(feature, isBack ? "" : reason);
    }
    return {NEUtils::kCommandRefused, reason};
}

// Notes a policy that holds now.
void FeatureHost::Adopt(const std::string& feature, const Policy& policy)
{
    SetFault(feature, "");
    const std::lock_guard<std::mutex> lock(mutex_);
    policies_[feature] = policy;
}

void FeatureHost::SetFault(const std::string& feature, const std::string& fault)
{
    const std::lock_guard<std::mutex> lock(mutex_);
    faults_.erase(feature);
    if (!fault.empty()) {
        faults_[feature] = fault;
    }
}

FeatureHost::Outcome FeatureHost::Keep(const std::string& feature, const Policy& policy)
{
    const std::string fault = store_.Save(feature, policy);
    if (!fault.empty()) {
        NE_LOG(ERROR, "Policy cannot be kept.[feature=%s reason=%s]", feature.c_str(), fault.c_str());
    }
    const std::lock_guard<std::mutex> lock(mutex_);
    if (!fault.empty()) {
        unkept_[feature] = fault;
        return {NEUtils::kCommandFailed, "it holds, but is not kept for the next start: " + fault};
    }
    unkept_.erase(feature);
    unusable_.erase(PolicyStore::FileOf(feature));
    return {};
}

void FeatureHost::AddProblems(Problems& problems) const
{
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        problems.AddIf(!directoryFault_.empty(), "policies", "policies: " + directoryFault_);
        for (const auto& [file, reason] : unusable_) {
            problems.Add("policy " + file,
                         std::string("policy ").append(file).append(" cannot be used: ").append(reason));
        }
        for (const auto& [feature, reason] : unkept_) {
            problems.Add(
                "unkept " + feature,
                std::string("policy of ").append(feature).append(" is not kept for the next start: ").append(reason));
        }
    }
    for (const State& state : GetStates()) {
        const std::string what = state.status == "failed" ? " has failed: " : " has refused its new policy: ";
        problems.AddIf(state.status == "failed" || !state.reason.empty(), "feature " + state.name,
                       "feature " + state.name + what + (state.reason.empty() ? "see the log" : state.reason));
    }
}

std::vector<FeatureHost::State> FeatureHost::GetStates() const
{
    std::map<std::string, Policy> features;
    std::vector<std::string> files;
    NEUtils::FileOperation::ListDirectory(directory_, files);
    for (const std::string& file : files) {
        features[FeatureOf(file)];
    }
    features.erase("");
    PolicyStore::Faults faults;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        faults = faults_;
        for (const auto& [name, policy] : policies_) {
            features[name] = policy;
        }
    }
    std::vector<State> states;
    states.reserve(features.size());
    for (const auto& [name, policy] : features) {
        const std::string reason = Find(faults, name);
        const ModuleStatus status = manager_.GetModuleStatus(name);
        const bool isWaiting = status == NEUtils::Manager::kStarted && IsWaiting(name);
        states.push_back({name, isWaiting ? "waiting" : NameOf(status, policy.enable, !reason.empty()), reason});
    }
    return states;
}
