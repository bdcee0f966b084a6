// sentrel-collector: a server that agents report to. Prints what they say and answers them.
#include <fcntl.h>
#include <getopt.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <string>
#include <utility>

#include "collector.h"

namespace {

constexpr rlim_t kMaxFiles = 1200;  // for all connections that are allowed

constexpr char kHelp[] =
    "Usage: sentrel-collector --listen ENDPOINT... [OPTION]...\n"
    "Takes the reports of agents, answers them and prints one line per message.\n"
    "\n"
    "  --listen unix:PATH      listen on a UNIX socket, which only this user may reach\n"
    "  --listen tcp:ADDR:PORT  listen on a numeric address, IPv6 also as tcp:[ADDR]:PORT; port 0: any free one\n"
    "  --control -             take commands for the agents from standard input\n"
    "  --control unix:PATH     take commands on a UNIX socket, which only this user may reach\n"
    "  --json                  print JSON objects, one a line, instead of text\n"
    "  --count N               end after N messages\n"
    "  --seconds N             end after N seconds\n"
    "  --version               print the version and exit\n"
    "  --help                  print this and exit\n"
    "\n"
    "--listen and --control may be given several times. The first lines name the endpoints, as soon as all are\n"
    "open; the last line is a summary. Connections and refusals are told on standard error.\n"
    "Commands, one a line, go to every agent that is connected; what the agents answer is printed, too:\n"
    "  policy FEATURE on|off [FILE]  start or stop a feature, with the policy that the file holds\n"
    "  status                        how the agents and their features are\n"
    "  help                          list the commands\n"
    "Who gave a command is told the answers and, after 10 seconds at most, how many agents got and answered it;\n"
    "on standard error, where it came from standard input.\n"
    "Malformed messages, and a message that stays incomplete for 60 seconds, end their connection; more than\n"
    "1024 connections at once are refused. SIGINT and SIGTERM end the program, with a summary.\n"
    "Exit status: 0 done, 1 an endpoint could not be opened or standard output failed, 2 wrong options,\n"
    "3 the time of --seconds passed before the messages of --count came.\n";

// Gives an exit status, like its callers.
int UsageFault(const std::string& text)
{
    Complain(text + "; --help lists the options");
    return kExitUsage;
}

int AddEndpoint(const char* text, CollectorOptions& options)
{
    const std::string fault = ParseEndpoint(text, options.endpoints.emplace_back());
    return fault.empty() ? -1 : UsageFault(std::string("--listen '") + text + "' " + fault);
}

// Commands change what the host does, so they are not taken from a network.
int AddControl(const std::string& text, CollectorOptions& options)
{
    if (text == "-") {
        options.takesInput = true;
        if (fcntl(STDIN_FILENO, F_GETFD) >= 0) {
            return -1;
        }
        Complain("--control -: standard input is closed");
        return kExitFailed;
    }
    const std::string fault = text.starts_with("unix:") ? ParseEndpoint(text, options.controls.emplace_back())
                                                        : "is neither - nor unix:PATH, and commands come no other way";
    return fault.empty() ? -1 : UsageFault("--control '" + text + "' " + fault);
}

int ReadNumber(const char* name, const std::string& text, std::uint32_t& number)
{
    const char* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, number);
    if (error != std::errc() || stop != end || number == 0) {
        return UsageFault(std::string(name) + " '" + text + "' is not a number from 1 to 4294967295");
    }
    return -1;
}

int ShowHelp(const char* text)
{
    return std::fputs(text, stdout) < 0 || std::fflush(stdout) != 0 ? kExitFailed : kExitDone;
}

// Gives the exit status for an end right away, or -1 to go on.
int TakeOption(int name, CollectorOptions& options)
{
    switch (name) {
    case 'l':
        return AddEndpoint(optarg, options);
    case 'o':
        return AddControl(optarg, options);
    case 'j':
        options.json = true;
        return -1;
    case 'c':
        return ReadNumber("--count", optarg, options.count);
    case 's':
        return ReadNumber("--seconds", optarg, options.seconds);
    case 'v':
        return ShowHelp("sentrel-collector " COLLECTOR_VERSION "\n");
    case 'h':
        return ShowHelp(kHelp);
    default:  // getopt has said what is wrong
        return kExitUsage;
    }
}

int ParseOptions(int argc, char** argv, CollectorOptions& options)
{
    static const option known[] = {
        {"listen", required_argument, nullptr, 'l'},  {"control", required_argument, nullptr, 'o'},
        {"json", no_argument, nullptr, 'j'},          {"count", required_argument, nullptr, 'c'},
        {"seconds", required_argument, nullptr, 's'}, {"version", no_argument, nullptr, 'v'},
        {"help", no_argument, nullptr, 'h'},          {nullptr, 0, nullptr, 0},
    };
    for (int name; (name = getopt_long(argc, argv, "", known, nullptr)) != -1;) {
        const int ended = TakeOption(name, options);
        if (ended >= 0) {
            return ended;
        }
    }
    if (optind < argc) {
        return UsageFault(std::string("unexpected argument '") + argv[optind] + "'");
    }
    return options.endpoints.empty() ? UsageFault("no --listen") : -1;
}

// The usual limit is a little less than all the connections need.
void RaiseFileLimit()
{
    rlimit limit = {};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < kMaxFiles) {
        limit.rlim_cur = std::min(kMaxFiles, limit.rlim_max);
        setrlimit(RLIMIT_NOFILE, &limit);
    }
}

}  // namespace

int main(int argc, char** argv)
{
    CollectorOptions options;
    signal(SIGPIPE, SIG_IGN);
    const int ended = ParseOptions(argc, argv, options);
    if (ended >= 0) {
        return ended;
    }
    RaiseFileLimit();
    // Large enough that a batch of messages usually goes out in one piece.
    static_cast<void>(std::setvbuf(stdout, nullptr, _IOFBF, std::size_t{64} << 10U));
    Collector collector(std::move(options));
    return collector.Start() ? collector.Run() : kExitFailed;
}
