#include "feature_host.h"

#include <unistd.h>

#include <cstring>
#include <utility>

#include "file_tools.h"
#include "logger.h"

using NEUtils::Manager::Policy;

namespace {

constexpr char kCollectorName[] = "AgentReasons";
constexpr char kPrefix[] = "lib";
constexpr char kSuffix[] = ".so";

thread_local std::string* t_reasons = nullptr;

// Collects what the log says on this thread about a policy that fails: an entry point gives no reason itself.
class Reasons {
public:
    Reasons() { t_reasons = &text_; }
    ~Reasons() { t_reasons = nullptr; }
    Reasons(const Reasons&) = delete;
    Reasons& operator=(const Reasons&) = delete;

    const std::string& GetText() const { return text_; }

    static void OnRecord(const NENormalLog& record)
    {
        constexpr std::size_t kMost = 4096;
        constexpr char kLoader[] = "Try load library.";
        if (t_reasons == nullptr || t_reasons->size() >= kMost) {
            return;
        }
        if (record.level >= WARN || std::strncmp(record.content, kLoader, sizeof(kLoader) - 1) == 0) {
            t_reasons->append(t_reasons->empty() ? "" : "; ").append(record.content);
        }
    }

private:
    std::string text_;
};

const char* NameOf(NEUtils::Manager::ModuleStatus status, bool wanted)
{
    if (wanted && status != NEUtils::Manager::kStarted && status != NEUtils::Manager::kFailed) {
        return "starting";
    }
    constexpr const char* kNames[] = {"off", "loaded", "started", "stopped", "failed"};
    return kNames[status];
}

}  // namespace

FeatureHost::FeatureHost(const std::string& root) : folder_(root + "/lib/features/"), store_(root + "/conf/policies")
{
    manager_.SetModulePrefix(folder_);
}

void FeatureHost::Start()
{
    NEUtils::MessageBus::Subscribe(NEUtils::kNormalLog, kCollectorName, &Reasons::OnRecord);
    std::set<std::string> unusable;
    auto policies = store_.Load(unusable);
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        policies_ = policies;
        unusable_ = std::move(unusable);
    }
    manager_.UpdateModulePolicy(policies);
}

void FeatureHost::Stop()
{
    manager_.StopAndDeinitAllModule();
    NEUtils::MessageBus::Unsubscribe(NEUtils::kNormalLog, kCollectorName);
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
            access((folder_ + kPrefix + feature + kSuffix).c_str(), F_OK) == 0);
}

FeatureHost::Outcome FeatureHost::Apply(const std::string& feature, bool enable, const std::optional<std::string>& text)
{
    if (!IsInstalled(feature)) {
        return {NEUtils::kCommandUnknown, "there is no such feature"};
    }
    Policy policy = Policies()[feature];
    policy.enable = enable;
    if (text) {
        policy.policy = *text;
    }
    if (enable) {
        Outcome outcome = Enable(feature, policy);
        if (outcome.result != NEUtils::kCommandDone) {
            return outcome;
        }
    } else {
        Disable(feature, policy);
    }
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        policies_[feature] = policy;
    }
    const std::string fault = store_.Save(feature, policy);
    if (!fault.empty()) {
        NE_LOG(ERROR, "Policy cannot be kept.[feature=%s reason=%s]", feature.c_str(), fault.c_str());
        return {NEUtils::kCommandFailed, "it holds, but is not kept for the next start: " + fault};
    }
    const std::lock_guard<std::mutex> lock(mutex_);
    unusable_.erase(PolicyStore::FileOf(feature));
    return {};
}

FeatureHost::Outcome FeatureHost::Enable(const std::string& feature, const Policy& policy)
{
    const Reasons reasons;
    const auto former = Policies();
    auto wanted = former;
    wanted[feature] = policy;
    if (manager_.GetModuleStatus(feature) == NEUtils::Manager::kFailed) {
        manager_.DestroyModule(feature);  // policies alone would leave it so
    }
    manager_.UpdateModulePolicy(wanted);
    if (manager_.IsRunable(feature)) {
        return {};
    }
    Outcome refused = {NEUtils::kCommandRefused, reasons.GetText()};
    if (refused.reason.empty()) {
        refused.reason = "it does not start and says nothing";
    }
    manager_.DestroyModule(feature);
    manager_.UpdateModulePolicy(former);
    const auto before = former.find(feature);
    if (before != former.end() && before->second.enable && !manager_.IsRunable(feature)) {
        refused.reason += "; and with the former policy it does not start either";
    }
    return refused;
}

void FeatureHost::Disable(const std::string& feature, const Policy& policy)
{
    auto wanted = Policies();
    wanted[feature] = policy;
    manager_.UpdateModulePolicy(wanted);
    manager_.DestroyModule(feature);
}

std::set<std::string> FeatureHost::GetUnusable() const
{
    const std::lock_guard<std::mutex> lock(mutex_);
    return unusable_;
}

std::vector<FeatureHost::State> FeatureHost::GetStates() const
{
    std::set<std::string> names;
    for (const std::string& file : ListFolder(folder_)) {
        names.insert(Between(file, kPrefix, kSuffix));
    }
    names.erase("");
    const auto policies = Policies();
    for (const auto& policy : policies) {
        names.insert(policy.first);
    }
    std::vector<State> states;
    states.reserve(names.size());
    for (const std::string& name : names) {
        const auto policy = policies.find(name);
        const bool wanted = policy != policies.end() && policy->second.enable;
        states.push_back({name, NameOf(manager_.GetModuleStatus(name), wanted)});
    }
    return states;
}
