#pragma once

#include <map>
#include <string>

// The agent's settings, from R/conf/agent.conf. Keys and values: docs/FORMATS.md.
struct AgentConfig {
    std::string logKind = "NormalLog";
    std::string logFile = "log/agent.log";  // absolute once it is loaded
    unsigned int logLevel = 1;
    unsigned int logMaxSize = 10 << 20;
    unsigned int logCopies = 5;
    unsigned int logLinesPerDay = 0;
    unsigned int memoryLimitKiB = 66560;
    unsigned int cpuLimitPercent = 5;
    unsigned int descriptorLimit = 0;
    unsigned int poolMaxThreads = 4;
    unsigned int reportSeconds = 3600;
    unsigned int queueCount = 10000;
    unsigned int queueBytes = 8 << 20;
    bool reportsToServer = false;
    std::string eventFile;  // absolute; empty: there is none
    unsigned int eventMaxSize = 10 << 20;
    unsigned int eventCopies = 5;

    // What the library and the features read themselves, from NEUtils::Config.
    std::map<std::string, std::string> shared;
};

// Reads and checks a configuration file. Gives what is wrong, one line that names file, line and key, or nothing.
std::string LoadAgentConfig(const std::string& path, const std::string& root, AgentConfig& config);

// Hands the shared settings to NEUtils::Config.
void PublishConfig(const AgentConfig& config);

// Takes over what can change while the agent runs. Gives the other keys that differ, with commas.
std::string TakeChanges(const AgentConfig& loaded, AgentConfig& running);

// Limits of the agent's own use, as the guard applies them; 0 for none.
struct UseLimits {
    long memoryKiB = 0;
    double cpuPercent = 0;
    int descriptors = 0;
};

UseLimits LimitsOf(const AgentConfig& config);
