// sentrel-collector: a server that agents report to. Prints what they say and answers them.
#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <string>
#include <utility>

#include "collector.h"
#include "errors.h"
#include "options.h"

namespace {

constexpr rlim_t kOtherFiles = 100;  // than the agents' connections

// What is closed at the start would become a socket, which lines would then be written to.
void OpenStandardStreams()
{
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (fcntl(fd, F_GETFD) < 0) {
            open("/dev/null", fd == STDIN_FILENO ? O_RDONLY : O_WRONLY);  // takes the lowest number, which is fd
        }
    }
}

// The usual limit is a little less than all connections need. Gives how many there may be.
std::size_t RaiseFileLimit(std::size_t agents)
{
    const rlim_t wanted = agents + kOtherFiles;
    rlimit limit = {};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur >= wanted) {
        return agents;
    }
    const rlimit raised = {wanted, std::max(wanted, limit.rlim_max)};
    if (setrlimit(RLIMIT_NOFILE, &raised) == 0) {
        return agents;
    }
    limit.rlim_cur = std::min(wanted, limit.rlim_max);
    setrlimit(RLIMIT_NOFILE, &limit);
    return limit.rlim_cur >= wanted ? agents : std::max<rlim_t>(limit.rlim_cur, kOtherFiles + 1) - kOtherFiles;
}

ExitStatus Run(CollectorOptions options)
{
    const std::size_t possible = RaiseFileLimit(options.agents.count);
    if (possible < options.agents.count) {
        Complain("only " + std::to_string(possible) + " connections at once: the limit of open files allows no more");
        options.agents.count = possible;
    }
    return Collector(std::move(options)).Run();
}

}  // namespace

int main(int argc, char** argv)
{
    CollectorOptions options;
    signal(SIGPIPE, SIG_IGN);
    signal(SIGXFSZ, SIG_IGN);  // a file at its limit is a fault of writing
    const int ended = ParseOptions(argc, argv, options);
    if (ended >= 0) {
        return ended;
    }
    if (fcntl(STDOUT_FILENO, F_GETFD) < 0) {
        Complain("standard output is closed");
        return kExitFailed;
    }
    OpenStandardStreams();
    if (!StartErrorLog()) {
        Complain("no thread for standard error");
        return kExitFailed;
    }
    const ExitStatus status = Run(std::move(options));
    if (!StopErrorLog()) {
        _exit(status);
    }
    return status;
}
