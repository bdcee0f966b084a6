#pragma once

#include <string>

#include "agent_config.h"

// Looks for what the agent needs to run and could not report once it runs. False, with one line on standard error.
bool CheckStart(const std::string& root, const AgentConfig& config);
