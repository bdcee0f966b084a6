#pragma once

#include <memory>
#include <string>

#include "agent_config.h"
#include "log_system.h"

// The agent's own log file. A start rolls what it finds under the file's name; since restarts would soon roll away
// the whole history by that, a file below 64 KiB is carried over into the new one instead.
//
// Threads  one, but GetFault: any.
class AgentLog {
public:
    explicit AgentLog(const AgentConfig& config);

    // Gives why the file cannot be the agent's log, or nothing. Only logs of this agent's user are taken: a start
    // compresses what it finds under the name.
    static std::string Check(const AgentConfig& config);

    // Makes the new file; as slow as the disk and gzip. False where that fails.
    bool Prepare();

    bool Register();
    void SetLimits(const AgentConfig& config);
    std::string GetFault() const;  // why nothing can be written at the moment, or nothing
    void Close();

private:
    bool CarryAside() const;
    void CarryOver();

    const AgentConfig config_;
    const std::string carried_;  // what a small log is called until it is in the new one
    const std::shared_ptr<NEUtils::LogSystem::LogFile> file_;
};
