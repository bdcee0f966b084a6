#pragma once

#include <string>
#include <vector>

#include "agent_config.h"

// Looks for what the agent needs to run and could not report once it runs. Gives the first thing that is wrong, or
// nothing. With `create` it makes the file of the crash report.
std::string CheckStart(const std::string& root, const AgentConfig& config, bool create);

// Looks for policies that cannot be used and features that are not there. Loads the features, and starts none.
std::vector<std::string> CheckPolicies(const std::string& root);
