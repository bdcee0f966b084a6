#include "feature.h"

#include <exception>

#include "logger.h"
#include "module_entry.h"
#include "policy_text.h"

int InitModule(void)
{
    return 1;
}

int StartModule(const char* policy)
{
    try {
        StopFeature();
        return StartFeature(policy) ? 1 : 0;
    } catch (const std::exception& error) {  // memory has run out
        NE_LOG(ERROR, "Feature has failed.[feature=%s what=%s]", kFeatureName, error.what());
        return 0;
    }
}

int CheckPolicy(const char* policy)
{
    try {
        const std::string fault = FindPolicyFault(policy);
        if (!fault.empty()) {
            LogRefusal(kFeatureName, fault);
        }
        return fault.empty() ? 1 : 0;
    } catch (const std::exception& error) {  // memory has run out
        NE_LOG(ERROR, "Policy cannot be checked.[feature=%s what=%s]", kFeatureName, error.what());
        return 0;
    }
}

int StopModule(const char*)
{
    StopFeature();
    return 1;
}

int DeinitModule(void)
{
    return 1;
}
