// sentrel-agent: the reference agent. Runs the features that policies ask for, logs and reports.
#include "command_line.h"
#include "commands.h"

int main(int argc, char** argv)
{
    Options options;
    if (const int ended = ParseOptions(argc, argv, options); ended >= 0) {
        return ended;
    }
    switch (options.command) {
    case Command::kCheckConfig:
        return CheckConfig(options);
    case Command::kStatus:
        return ShowStatus(options);
    default:
        return RunAgent(options);
    }
}
