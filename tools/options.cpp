#include "options.h"

#include <fcntl.h>
#include <getopt.h>
#include <unistd.h>

#include <charconv>
#include <cstdio>
#include <string>

#include "command.h"
#include "errors.h"

namespace {

constexpr std::uint32_t kMostAgents = 100000;
constexpr std::uint32_t kMostSeconds = 86400;

constexpr char kHelpBegin[] =
    "Usage: sentrel-collector --listen ENDPOINT... [OPTION]...\n"
    "Takes the reports of agents, answers them and prints one line per message.\n"
    "\n"
    "  --listen unix:PATH      listen on a UNIX socket, which only this user may reach\n"
    "  --listen tcp:ADDR:PORT  listen on a numeric address, IPv6 also as tcp:[ADDR]:PORT; port 0: any free one\n"
    "  --control -             take commands for the agents from standard input\n"
    "  --control unix:PATH     take commands on a UNIX socket, which only this user may reach\n"
    "  --json                  print JSON objects, one a line, instead of text\n"
    "  --agents N              take N connections at once; 1024 without this\n"
    "  --patience N            give a message, or an agent that reads slowly, N seconds; 60 without this\n"
    "  --count N               end after N messages\n"
    "  --seconds N             end after N seconds\n"
    "  --version               print the version and exit\n"
    "  --help                  print this and exit\n"
    "\n"
    "--listen and --control may be given several times. The first lines name the endpoints, as soon as all are\n"
    "open; the last line is a summary. Standard error has what goes wrong, and connections where --json is not\n"
    "given. A report is answered once standard output has taken its line: while it is blocked or its disk is\n"
    "full, the agents keep their reports. A file that is removed ends the program.\n"
    "Commands, one a line, go to every agent that is connected; what the agents answer is printed, too:\n";

constexpr char kHelpEnd[] =
    "Whoever gave a command gets the answers and, after 10 seconds at most, how many agents got and answered it;\n"
    "on standard error, where it came from standard input.\n"
    "Malformed messages end their connection, and so do a message that is not whole and answers that are not read\n"
    "after the time of --patience. Where all connections are in use, one that was silent for that long makes room\n"
    "for a new one. SIGINT and SIGTERM end the program within 2 seconds, with a summary; a second one, at once.\n"
    "Exit status: 0 done, 1 an endpoint could not be opened or standard output did not take all lines, 2 wrong\n"
    "options, 3 the time of --seconds passed before the messages of --count came.\n";

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

int ReadNumber(const char* name, const std::string& text, std::uint32_t most, std::uint32_t& number)
{
    const char* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, number);
    if (error != std::errc() || stop != end || number == 0 || number > most) {
        return UsageFault(std::string(name) + " '" + text + "' is not a number from 1 to " + std::to_string(most));
    }
    return -1;
}

int Show(const std::string& text)
{
    return std::fputs(text.c_str(), stdout) < 0 || std::fflush(stdout) != 0 ? kExitFailed : kExitDone;
}

int ShowHelp()
{
    std::string text = kHelpBegin;
    for (const char* line : kCommandHelp) {
        text.append("  ").append(line).append("\n");
    }
    return Show(text + kHelpEnd);
}

int ReadLimit(int name, const char* text, CollectorOptions& options)
{
    std::uint32_t number = 0;
    int ended = -1;
    if (name == 'a') {
        ended = ReadNumber("--agents", text, kMostAgents, number);
        options.agents.count = number;
    } else if (name == 'p') {
        ended = ReadNumber("--patience", text, kMostSeconds, number);
        options.agents.patience = std::chrono::seconds(number);
    } else {
        ended = ReadNumber("--count", text, UINT32_MAX, number);
        options.agents.messages = number;
    }
    return ended;
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
    case 'a':
    case 'p':
        return ReadLimit(name, optarg, options);
    case 's':
        return ReadNumber("--seconds", optarg, UINT32_MAX, options.seconds);
    case 'v':
        return Show("sentrel-collector " COLLECTOR_VERSION "\n");
    case 'h':
        return ShowHelp();
    default:  // getopt has said what is wrong
        return kExitUsage;
    }
}

}  // namespace

int ParseOptions(int argc, char** argv, CollectorOptions& options)
{
    static const option known[] = {
        {"listen", required_argument, nullptr, 'l'},  {"control", required_argument, nullptr, 'o'},
        {"agents", required_argument, nullptr, 'a'},  {"patience", required_argument, nullptr, 'p'},
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
