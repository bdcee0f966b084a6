#include "start_checks.h"

#include <fcntl.h>
#include <sys/auxv.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <functional>
#include <string_view>

#include "agent_log.h"
#include "config.h"
#include "logger.h"
#include "module_manager.h"
#include "policy_store.h"
#include "start_reasons.h"
#include "util/errno_text.h"
#include "util/file.h"
#include "util/unique_fd.h"

using NEUtils::ErrnoText;
using NEUtils::UniqueFd;

namespace {

// The frame finds its install root in the environment.
std::string CheckPrivileges()
{
    return getauxval(AT_SECURE) == 0 ? ""
                                     : "runs set-user-id or with file capabilities, where the environment is "
                                       "ignored: start it as root";
}

// Without a report to write the frame swallows every signal, a stop too.
std::string CheckReport(const std::string& root, bool create)
{
    const std::string report = root + "/log/coredump.log";
    const int flags = O_WRONLY | O_CLOEXEC | O_NONBLOCK | (create ? O_CREAT : 0);
    const UniqueFd fd(open(report.c_str(), flags, 0600));
    const bool isMissing = !fd.IsValid() && errno == ENOENT && !create;
    if (fd.IsValid() || (isMissing && access((root + "/log").c_str(), W_OK | X_OK) == 0)) {
        return {};
    }
    const int error = errno;
    return "crash report " + report + " cannot be written: " + ErrnoText(error).Get();
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

std::string CheckDirectory(const AgentConfig& config)
{
    const std::string directory = config.logFile.substr(0, config.logFile.rfind('/') + 1);
    if (access(directory.c_str(), W_OK | X_OK) == 0) {
        return {};
    }
    const int error = errno;
    return "log directory " + directory + " cannot be written: " + ErrnoText(error).Get();
}

std::string CheckLog(const std::string& root, const AgentConfig& config)
{
    if (config.logFile == root + "/log/coredump.log") {
        return "log file " + config.logFile + " is the crash report";
    }
    return AgentLog::Check(config);
}

// It rolls, so a file of something else would be lost. What cannot be opened is found at the start.
std::string CheckEventFile(const AgentConfig& config)
{
    constexpr std::string_view kBegin = "{\"type\":";
    const UniqueFd fd(open(config.eventFile.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    char bytes[kBegin.size()] = {};
    const ssize_t count = fd.IsValid() ? read(fd.Get(), bytes, sizeof(bytes)) : 0;
    return count <= 0 || std::string_view(bytes, static_cast<std::size_t>(count)) == kBegin
               ? ""
               : "event file " + config.eventFile + " holds something else than events";
}

std::string CheckGzip(const AgentConfig& config)
{
    return config.logCopies == 0 || IsInPath("gzip")
               ? ""
               : "gzip is missing, and the log cannot roll without it: install gzip or set LOG_COPIES=0";
}

// What a feature's library says to its policy; it logs the reason.
std::string CheckText(NEUtils::Manager::ModuleManager& manager, const std::string& feature, const std::string& policy)
{
    const StartReasons reasons;
    const bool isUsable = manager.CheckPolicy(feature, policy);
    manager.DestroyModule(feature);
    return isUsable ? "" : NEUtils::Printable(reasons.GetText());
}

}  // namespace

std::string CheckStart(const std::string& root, const AgentConfig& config, bool create)
{
    std::string fault = CheckPrivileges();
    const std::function<std::string()> checks[] = {
        [&] { return CheckReport(root, create); }, [&] { return CheckDirectory(config); },
        [&] { return CheckLog(root, config); }, [&] { return CheckEventFile(config); },
        [&] { return CheckGzip(config); }};
    for (const auto& check : checks) {
        fault = fault.empty() ? check() : fault;
    }
    return fault;
}

std::vector<std::string> CheckPolicies(const std::string& root)
{
    StartReasons::Subscribe();
    NEUtils::Manager::ModuleManager manager;
    manager.SetModulePrefix(root + "/lib/features/");
    const PolicyStore::Kept kept = PolicyStore(root + "/conf/policies").Load();
    std::vector<std::string> faults;
    if (!kept.fault.empty() && !kept.isMissing) {
        faults.push_back("policies: " + kept.fault);
    }
    for (const auto& [file, reason] : kept.unusable) {
        faults.push_back(std::string("policy ").append(file).append(" ").append(reason));
    }
    for (const auto& [feature, policy] : kept.policies) {
        const std::string library = std::string(root).append("/lib/features/lib").append(feature).append(".so");
        if (!policy.enable) {
            continue;
        }
        const std::string fault = NEUtils::FileAttribute::AccessFile(library)
                                      ? CheckText(manager, feature, policy.policy)
                                      : "there is no " + library;
        if (!fault.empty()) {
            faults.push_back("policy " + PolicyStore::FileOf(feature) + ": " + fault);
        }
    }
    StartReasons::Unsubscribe();
    return faults;
}
