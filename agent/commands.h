#pragma once

#include "command_line.h"

// What the program can be asked to do; each gives the exit status. A new one needs a function here, its option in
// command_line.cpp and a line in main.cpp.

int RunAgent(const Options& options);  // comes back only where the agent could not run
int CheckConfig(const Options& options);
int ShowStatus(const Options& options);  // of the agent that runs from the root
