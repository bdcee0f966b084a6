// sentrel-collector: a server that agents report to. Prints what they say and answers them.
#include <getopt.h>
#include <signal.h>
#include <sys/resource.h>

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
    "  --json                  print JSON objects, one a line, instead of text\n"
    "  --count N               end after N messages\n"
    "  --seconds N             end after N seconds\n"
    "  --version               print the version and exit\n"
    "  --help                  print this and exit\n"
    "\n"
    "--listen may be given several times. The first lines name the endpoints, as soon as all are open; the last\n"
    "line is a summary. Connections and refusals are told on standard error.\n"
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
        {"listen", required_argument, nullptr, 'l'},
        {"json", no_argument, nullptr, 'j'},
        {"count", required_argument, nullptr, 'c'},
        {"seconds", required_argument, nullptr, 's'},
        {"version", no_argument, nullptr, 'v'},
        {"help", no_argument, nullptr, 'h'},
        {nullptr, 0, nullptr, 0},
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
