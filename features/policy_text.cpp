#include "policy_text.h"

#include "logger.h"
#include "util/key_lines.h"

std::string ReadPolicy(const std::string& text, const PolicyKeys& keys)
{
    const auto take = [&keys](const std::string& key, const std::string& value) {
        const auto known = keys.find(key);
        if (known == keys.end()) {
            return "unknown key " + NEUtils::Excerpt(key);
        }
        const std::string fault = known->second(value);
        return fault.empty() ? fault : key + ": " + NEUtils::Excerpt(value) + " " + fault;
    };
    const NEUtils::KeyLineFault fault = NEUtils::ReadKeyLines(text, take);
    return fault.reason.empty() ? std::string() : "line " + std::to_string(fault.line) + ": " + fault.reason;
}

void LogRefusal(const char* feature, const std::string& reason)
{
    NE_LOG(ERROR, "Policy is refused.[feature=%s reason=%s]", feature, NEUtils::Printable(reason).c_str());
}
