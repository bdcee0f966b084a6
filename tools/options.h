#pragma once

#include <cstdint>
#include <vector>

#include "agents.h"
#include "endpoint.h"

enum ExitStatus {
    kExitDone = 0,
    kExitFailed = 1,
    kExitUsage = 2,
    kExitExpired = 3,
};

struct CollectorOptions {
    std::vector<Endpoint> endpoints;
    std::vector<Endpoint> controls;  // for commands
    bool takesInput = false;         // commands from standard input too
    bool json = false;
    AgentLimits agents;
    std::uint32_t seconds = 0;  // 0: no limit
};

// Reads the command line. Gives the exit status for an end right away, or -1 to go on.
int ParseOptions(int argc, char** argv, CollectorOptions& options);
