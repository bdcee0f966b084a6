#include "start_checks.h"

#include <fcntl.h>
#include <sys/auxv.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "agent_log.h"
#include "config.h"
#include "console.h"
#include "util/unique_fd.h"

namespace {

// The frame finds its install root in the environment.
bool CheckPrivileges()
{
    if (getauxval(AT_SECURE) == 0) {
        return true;
    }
    Complain("runs set-user-id or with file capabilities, where the environment is ignored: start it as root");
    return false;
}

// Without a report to write the frame swallows every signal, a stop too.
bool CheckReport(const std::string& root)
{
    const std::string report = root + "/log/coredump.log";
    const NEUtils::UniqueFd fd(open(report.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | O_NONBLOCK, 0600));
    if (!fd.IsValid()) {
        Complain("crash report " + report + " cannot be written: " + std::strerror(errno));
    }
    return fd.IsValid();
}

bool IsInPath(const std::string& program)
{
    std::string path = NEUtils::Env::GetEnvString("PATH");
    if (path.empty()) {  // what the shell takes then
        char standard[256] = {};
        confstr(_CS_PATH, standard, sizeof(standard));
        path = standard;
    }
    for (std::size_t start = 0; start <= path.size();) {
        const std::size_t end = std::min(path.find(':', start), path.size());
        std::string candidate = end == start ? "." : path.substr(start, end - start);
        candidate.append("/").append(program);
        if (access(candidate.c_str(), X_OK) == 0) {
            return true;
        }
        start = end + 1;
    }
    return false;
}

bool CheckLog(const AgentConfig& config)
{
    const std::string directory = config.logFile.substr(0, config.logFile.rfind('/') + 1);
    if (access(directory.c_str(), W_OK | X_OK) != 0) {
        Complain("log folder " + directory + " cannot be written: " + std::strerror(errno));
        return false;
    }
    struct stat status = {};
    if (lstat(config.logFile.c_str(), &status) == 0 && !S_ISREG(status.st_mode) && !S_ISLNK(status.st_mode)) {
        Complain("log file " + config.logFile + " is a directory or a special file");
        return false;
    }
    if (config.logCopies > 0 && !IsInPath("gzip")) {
        Complain("gzip is missing, and the log cannot roll without it: install gzip or set LOG_COPIES=0");
        return false;
    }
    return AgentLog::IsAccepted(config);
}

}  // namespace

bool CheckStart(const std::string& root, const AgentConfig& config)
{
    return CheckPrivileges() && CheckReport(root) && CheckLog(config);
}
