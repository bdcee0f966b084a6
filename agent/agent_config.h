#pragma once

#include <string>

// The agent's settings, from <root>/conf/agent.conf. Keys: docs/FORMATS.md.
struct AgentConfig {
    std::string logKind;
    std::string logFile;  // absolute
    unsigned int logLevel = 0;
    unsigned int logMaxSize = 0;
    unsigned int logCopies = 0;
    unsigned int logLinesPerDay = 0;
    unsigned int memoryLimitKiB = 0;
    unsigned int cpuLimitPercent = 0;
    unsigned int descriptorLimit = 0;
    unsigned int poolMaxThreads = 0;
    unsigned int reportSeconds = 0;
    bool reportsToServer = false;  // where to: Config has it for the channel
    unsigned int queueCount = 0;
    unsigned int queueBytes = 0;
};

// Reads and checks a configuration file. False with one line of text that names file, line and key.
bool LoadAgentConfig(const std::string& path, const std::string& root, AgentConfig& config, std::string& error);
