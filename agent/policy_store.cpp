#include "policy_store.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>
#include <vector>

#include "text_file.h"
#include "util/errno_text.h"
#include "util/file.h"

using NEUtils::Manager::Policy;

namespace {

constexpr std::size_t kMaxFileSize = std::size_t{512} << 10U;
constexpr char kSuffix[] = ".policy";
constexpr std::size_t kSuffixSize = sizeof(kSuffix) - 1;
constexpr char kOn[] = "enable=on";
constexpr char kOff[] = "enable=off";

// The module manager loads no feature of another name.
std::string CheckName(const std::string& feature)
{
    const bool valid = std::all_of(feature.begin(), feature.end(), [](char byte) {
        return (byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z') || (byte >= '0' && byte <= '9') ||
               byte == '_' || byte == '-';
    });
    return valid ? "" : "its name is not made of letters, digits, '_' and '-'";
}

}  // namespace

std::string PolicyStore::FileOf(const std::string& feature)
{
    return feature + kSuffix;
}

std::string PolicyStore::Read(const std::string& name, Policy& policy) const
{
    std::string text;
    if (std::string fault = ReadTextFile(directory_ + "/" + name, kMaxFileSize, text); !fault.empty()) {
        return fault;
    }
    const std::size_t end = std::min(text.find('\n'), text.size());
    const std::string first = text.substr(0, end);
    if (first != kOn && first != kOff) {
        return "does not begin with enable=on or enable=off";
    }
    if (text.find('\0') != std::string::npos) {
        return "holds a zero byte";
    }
    policy.enable = first == kOn;
    policy.policy = text.substr(std::min(end + 1, text.size()));
    return {};
}

PolicyStore::Kept PolicyStore::Load() const
{
    Kept kept;
    std::vector<std::string> names;
    if (!NEUtils::FileOperation::ListDirectory(directory_, names)) {
        const int error = errno;
        kept.isMissing = error == ENOENT;
        kept.fault = directory_ + " cannot be read: " + NEUtils::ErrnoText(error).Get();
        return kept;
    }
    for (const std::string& name : names) {
        if (name.size() <= kSuffixSize || name.compare(name.size() - kSuffixSize, kSuffixSize, kSuffix) != 0) {
            continue;
        }
        const std::string feature = name.substr(0, name.size() - kSuffixSize);
        Policy policy;
        std::string fault = CheckName(feature);
        if (fault.empty()) {
            fault = Read(name, policy);
        }
        if (fault.empty()) {
            kept.policies[feature] = std::move(policy);
        } else {
            kept.unusable[name] = fault;
        }
    }
    return kept;
}

std::string PolicyStore::Load(const std::string& feature, Policy& policy) const
{
    std::string fault = Read(FileOf(feature), policy);
    return NEUtils::FileAttribute::AccessFile(PathOf(feature)) ? fault : std::string();
}

std::string PolicyStore::Save(const std::string& feature, const Policy& policy) const
{
    return ReplaceFile(directory_, FileOf(feature), std::string(policy.enable ? kOn : kOff) + "\n" + policy.policy);
}
