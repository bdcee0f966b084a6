#include "policy_store.h"

#include <algorithm>
#include <utility>

#include "file_tools.h"
#include "logger.h"

namespace {

constexpr std::size_t kMaxFileSize = std::size_t{512} << 10U;
constexpr char kSuffix[] = ".policy";
constexpr char kOn[] = "enable=on";
constexpr char kOff[] = "enable=off";

// Gives what is wrong with the file, or nothing.
std::string Read(const std::string& path, NEUtils::Manager::Policy& policy)
{
    std::string text;
    if (std::string fault = ReadFile(path, kMaxFileSize, text); !fault.empty()) {
        return fault;
    }
    const std::size_t end = std::min(text.find('\n'), text.size());
    const std::string first = text.substr(0, end);
    policy.enable = first == kOn;
    policy.policy = text.substr(std::min(end + 1, text.size()));
    if (policy.policy.find('\0') != std::string::npos) {
        return "holds a zero byte";
    }
    return policy.enable || first == kOff ? std::string() : "does not begin with enable=on or enable=off";
}

}  // namespace

std::string PolicyStore::FileOf(const std::string& feature)
{
    return feature + kSuffix;
}

PolicyStore::Policies PolicyStore::Load(std::set<std::string>& unusable) const
{
    Policies policies;
    for (const std::string& name : ListFolder(folder_)) {
        const std::string feature = Between(name, "", kSuffix);
        if (feature.empty()) {
            continue;
        }
        NEUtils::Manager::Policy policy;
        const std::string fault = Read(folder_ + "/" + name, policy);
        if (fault.empty()) {
            policies[feature] = std::move(policy);
        } else {
            unusable.insert(name);
            NE_LOG(ERROR, "Kept policy cannot be used.[file=%s reason=%s]", name.c_str(), fault.c_str());
        }
    }
    return policies;
}

std::string PolicyStore::Save(const std::string& feature, const NEUtils::Manager::Policy& policy) const
{
    return ReplaceFile(folder_, FileOf(feature), std::string(policy.enable ? kOn : kOff) + "\n" + policy.policy);
}
