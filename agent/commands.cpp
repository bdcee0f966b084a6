#include "commands.h"

#include <unistd.h>

#include <cstdio>
#include <string>

#include "agent.h"
#include "agent_config.h"
#include "console.h"
#include "my_program.h"
#include "signals.h"
#include "start_checks.h"
#include "status_socket.h"
#include "status_text.h"

namespace {

Agent* g_agent = nullptr;  // never destroyed: a stop may come until the very end of the process

bool LoadConfig(const Options& options, AgentConfig& config)
{
    const std::string fault = LoadAgentConfig(options.config, options.root, config);
    if (!fault.empty()) {
        Complain(fault);
    }
    return fault.empty();
}

}  // namespace

int RunAgent(const Options& options)
{
    AgentConfig config;
    if (!LoadConfig(options, config)) {
        return kExitUsage;
    }
    SubscribeConsole();
    if (const std::string fault = CheckStart(options.root, config, true); !fault.empty()) {
        Complain(fault);
        return kExitFailed;
    }
    PublishConfig(config);
    Signals::Block();
    g_agent = new Agent(options.root, options.config, config);
    auto& program = NEUtils::MyProgram::GetInstance();
    program.SetLogPath(options.root + "/log");
    const auto run = [] { return g_agent->Run(); };
    const auto stop = [] {
        g_agent->Stop();
        return 0;
    };
    const auto detach = [] { return chdir("/"); };  // a daemon holds no file system but its root
    return program.RunProgram(options.daemon, true, run, stop, detach, nullptr, nullptr) ? 0 : kExitFailed;
}

int ShowStatus(const Options& options)
{
    std::string answer;
    std::string text;
    const std::string fault = StatusSocket::Ask(options.root + "/conf", answer);
    const StatusResult result = fault.empty() ? StatusText(answer, text) : kNoStatus;
    if (result == kNoStatus) {
        Complain("--status: " + (fault.empty() ? "the answer is no status" : fault));
        return kExitFailed;
    }
    std::fputs((options.json ? answer + "\n" : text).c_str(), stdout);
    return result == kWell ? 0 : kExitNotWell;
}

int CheckConfig(const Options& options)
{
    AgentConfig config;
    if (!LoadConfig(options, config)) {
        return kExitUsage;
    }
    auto faults = CheckPolicies(options.root);  // with the reasons that the features log
    SubscribeConsole();
    if (const std::string fault = CheckStart(options.root, config, false); !fault.empty()) {
        faults.push_back(fault);
    }
    for (const std::string& fault : faults) {
        Complain(fault);
    }
    if (!faults.empty()) {
        return kExitUsage;
    }
    std::printf("%s: correct\n", options.config.c_str());
    return 0;
}
