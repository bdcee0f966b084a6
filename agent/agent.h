#pragma once

#include <array>
#include <atomic>
#include <string>

#include "agent_config.h"
#include "feature_commands.h"
#include "feature_host.h"
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
    Agent(const std::string& root, AgentConfig config);
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
    static const std::array<Part, 9> kParts;  // in the order of their start

    bool Start();
    void StopParts();
    void Serve();
    void OnSignal(int signo);

    void RunEvery(unsigned int seconds, void* (*function)(void*), void* argument, const char* name, bool onPool);

    const std::string root_;
    const AgentConfig config_;
    Signals signals_;
    NEUtils::TaskManager tasks_;
    ServerLink server_;
    FeatureHost features_;
    const Status status_;
    FeatureCommands commands_;
    StatusSocket socket_;
    std::atomic<std::size_t> started_{0};  // how many parts run
};
