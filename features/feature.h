#pragma once

#include <string>

// What each feature defines; feature.cpp makes the entry points of it.

extern const char kFeatureName[];

// Takes everything from the policy. False, with a record, for one that cannot be used, and then nothing is left.
bool StartFeature(const std::string& policy);

// What is wrong with a policy's text, or nothing. Starts nothing.
std::string FindPolicyFault(const std::string& policy);

// Leaves nothing behind; also of one that is not started.
void StopFeature();
