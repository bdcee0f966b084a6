#include "command_line.h"

#include <getopt.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>

#include "config.h"
#include "console.h"

namespace {

constexpr char kRootVariable[] = "RUNTIME_CENTER_PATH";

constexpr char kHelp[] =
    "Usage: sentrel-agent [OPTION]...\n"
    "Runs the features that policies ask for (processes, changes of files, use of files), logs what they see,\n"
    "and reports it to a server where the configuration names one.\n"
    "\n"
    "  --root DIR      install root; otherwise the environment variable RUNTIME_CENTER_PATH\n"
    "  --config FILE   configuration, instead of conf/agent.conf below the root\n"
    "  --daemon        run in the background\n"
    "  --check-config  check the configuration, the policies and what else a start needs, and exit\n"
    "  --status        tell how the agent that runs from the root is, and exit\n"
    "  --json          with --status: one JSON object instead of text\n"
    "  --version       print the version and exit\n"
    "  --help          print this and exit\n"
    "\n"
    "Signals: SIGTERM, SIGINT, SIGQUIT and SIGTSTP stop the agent. SIGHUP reads the policies and the configuration\n"
    "again; what holds only from the next start on is logged. SIGUSR1 writes a report to log/coredump.log.\n"
    "Exit status: 0 success, 1 the agent could not run or, for --status, does not answer, 2 wrong options, root\n"
    "or configuration, 3 --status names problems. A stopped agent ends by SIGTERM.\n";

constexpr option kOptions[] = {
    {"root", required_argument, nullptr, 'r'},
    {"config", required_argument, nullptr, 'c'},
    {"daemon", no_argument, nullptr, 'd'},
    {"check-config", no_argument, nullptr, 'k'},
    {"status", no_argument, nullptr, 's'},
    {"json", no_argument, nullptr, 'j'},
    {"version", no_argument, nullptr, 'v'},
    {"help", no_argument, nullptr, 'h'},
    {nullptr, 0, nullptr, 0},
};

// Gives the exit status, or -1 to go on.
int TakeOption(int name, Options& options)
{
    switch (name) {
    case 'r':
        options.root = optarg;
        break;
    case 'c':
        options.config = optarg;
        break;
    case 'd':
        options.daemon = true;
        break;
    case 'k':
        options.command = Command::kCheckConfig;
        break;
    case 's':
        options.command = Command::kStatus;
        break;
    case 'j':
        options.json = true;
        break;
    case 'v':
        std::puts("sentrel-agent " AGENT_VERSION);
        return 0;
    case 'h':
        std::fputs(kHelp, stdout);
        return 0;
    default:  // getopt has said what is wrong
        return kExitUsage;
    }
    return -1;
}

// Makes the root absolute and free of links: the library finds it in the environment, and knows the executable
// by its resolved path.
bool ResolveRoot(std::string& root)
{
    if (root.empty()) {
        root = NEUtils::Env::GetEnvString(kRootVariable);
    }
    if (root.empty()) {
        Complain(std::string("no install root: give --root DIR or set ") + kRootVariable);
        return false;
    }
    const std::unique_ptr<char, decltype(&std::free)> resolved(realpath(root.c_str(), nullptr), &std::free);
    if (resolved == nullptr) {
        Complain("install root " + root + ": " + std::strerror(errno));
        return false;
    }
    root = resolved.get();
    return setenv(kRootVariable, root.c_str(), 1) == 0;
}

}  // namespace

int ParseOptions(int argc, char** argv, Options& options)
{
    for (int name; (name = getopt_long(argc, argv, "", kOptions, nullptr)) != -1;) {
        if (const int ended = TakeOption(name, options); ended >= 0) {
            return ended;
        }
    }
    if (optind < argc) {
        Complain(std::string("unexpected argument '") + argv[optind] + "'; --help lists the options");
        return kExitUsage;
    }
    if (options.json && options.command != Command::kStatus) {
        Complain("--json goes with --status");
        return kExitUsage;
    }
    if (!ResolveRoot(options.root)) {
        return kExitUsage;
    }
    if (options.config.empty()) {
        options.config = options.root + "/conf/agent.conf";
    } else if (options.config[0] != '/') {
        std::error_code error;
        options.config = std::filesystem::absolute(options.config, error).string();  // it is read again at a SIGHUP
    }
    return -1;
}
