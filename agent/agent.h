#pragma once

#include <array>
#include <atomic>
#include <string>

#include "agent_config.h"
#include "agent_log.h"
#include "feature_commands.h"
#include "feature_host.h"
#include "last_run.h"
#include "pool_job.h"
#include "self_check.h"
#include "server_link.h"
#include "signals.h"
#include "status.h"
#include "status_socket.h"
#include "task_manager.h"

// The agent: owns its parts, starts them in their order and stops them in the reverse one.
//
// Threads  Run: the main thread. Stop: the main thread, or on a crash the thread that crashed.
class Agent {
public:
    // The configuration as it was loaded from the path.
    Agent(const std::string& root, const std::string& configPath, const AgentConfig& config);
    Agent(const Agent&) = delete;
    Agent& operator=(const Agent&) = delete;

    // The frame's main function: starts the parts and serves until a signal ends the process. Gives an exit
    // status only where the agent could not start.
    int Run();

    // The frame's stop function.
    void Stop();

private:
    // What starts and stops as one. A part whose start fails is not stopped.
    struct Part {
        const char* name;
        bool (*start)(Agent&);
        void (*stop)(Agent&);
    };
    static const std::array<Part, 13> kParts;  // in the order of their start

    bool Start();
    void StopParts();
    void Serve();
    void ServeStatus();
    void EndBy(const Signals::Stop& stop);
    void Reload();
    void ApplyLimits();
    bool OpenLog();
    void OpenEventFile();
    void AddProblems(Problems& problems) const;
    bool StartLink();
    std::uint32_t RunEvery(unsigned int seconds, void* (*function)(void*), void* argument, const char* name,
                           bool onPool);

    const std::string root_;
    const std::string configPath_;
    AgentConfig config_;  // of the reload once the parts run
    Signals signals_;
    LastRun lastRun_;
    AgentLog log_;
    NEUtils::TaskManager tasks_;
    ServerLink server_;
    FeatureHost features_;
    Status status_;
    FeatureCommands commands_;
    SelfCheck selfCheck_;
    StatusSocket socket_;
    NEUtils::PoolJob reload_;
    std::uint32_t usageTask_ = 0;
    std::atomic<std::size_t> started_{0};  // how many parts run
    std::atomic<bool> stopping_{false};
};
