#pragma once

#include <memory>

#include "agent_config.h"
#include "log_system.h"

// The agent's own log file.
//
// Threads  one.
class AgentLog {
public:
    // Whether the library would take the file; with an ERROR record if not. Nothing is opened.
    static bool IsAccepted(const AgentConfig& config);

    // Opens the file, which may roll an old one away, and registers it. False, with what is wrong on standard error.
    static bool Open(const AgentConfig& config);
    static void Close();
};
