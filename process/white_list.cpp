// The white list of a process monitor: who is on it, and how it follows forks and exits.
#include <algorithm>
#include <array>
#include <cstdlib>
#include <memory>

#include "byte_buffer.h"
#include "logger.h"
#include "process_monitor.h"
#include "util/file.h"
#include "util/text.h"

namespace NEUtils {

namespace {

constexpr std::array<const char*, 8> kPatterns = {
    "/opt/omx/envs/DBAgent",
    "tools/pyscript/deployagent/DeployAgent.pyc",
    "/opt/omx/manager/agent/DeployAgent/tools/pyscript/watchdog.pyc",
    "/opt/omx/envs/NodeAgent",
    "/usr/bin/sysmonitor --daemon",
    "/bin/bash /opt/omx/envs/Product-Etcd",
    "/opt/omx/envs/ServiceAwareWatchAgent",
    "/usr/sbin/setroubleshootd",
};

int ToId(const std::string& text)
{
    return static_cast<int>(std::strtol(text.c_str(), nullptr, 10));
}

std::set<int> IdsOf(const std::map<std::string, std::vector<std::string>>& entries)
{
    std::set<int> ids;
    for (const auto& [pattern, texts] : entries) {
        for (const std::string& text : texts) {
            const int id = ToId(text);
            if (id > 0) {  // a ps of another layout gives no number
                ids.insert(id);
            }
        }
    }
    return ids;
}

}  // namespace

bool ProcessMonitor::FilterProcessEvent(const proc_event& event)
{
    const std::lock_guard<std::mutex> lock(whiteListMutex_);
    if (event.what == kForkEvent) {
        const auto& fork = event.event_data.fork;
        if (whiteSet_.count(fork.parent_tgid) == 0) {
            return false;
        }
        whiteSet_.insert(fork.child_tgid);
        whiteSet_.insert(fork.child_pid);
        return true;
    }
    // Every other kind begins with the id of the process that it is about.
    const int id = event.event_data.exec.process_pid;
    if (event.what != kExitEvent) {
        return whiteSet_.count(id) != 0;
    }
    if (whiteSet_.erase(id) == 0) {
        return false;
    }
    const std::string text = std::to_string(id);
    for (auto& [pattern, ids] : whiteEntries_) {
        ids.erase(std::remove(ids.begin(), ids.end(), text), ids.end());
    }
    return true;
}

void ProcessMonitor::ParseProcessWhiteList()
{
    std::map<std::string, std::vector<std::string>> entries;
    if (!SearchWhiteList(entries)) {
        return;
    }
    std::set<int> ids = IdsOf(entries);
    const std::lock_guard<std::mutex> lock(whiteListMutex_);
    whiteSet_.swap(ids);
    whiteEntries_.swap(entries);
}

void ProcessMonitor::UpdateProcessWhiteList()
{
    std::map<std::string, std::vector<std::string>> entries;
    if (!SearchWhiteList(entries)) {
        return;
    }
    const std::set<int> ids = IdsOf(entries);
    const std::lock_guard<std::mutex> lock(whiteListMutex_);
    // Only ids of a search disappear here: children that were followed leave with their exit.
    for (const int old : IdsOf(whiteEntries_)) {
        if (ids.count(old) == 0) {
            whiteSet_.erase(old);
        }
    }
    whiteSet_.insert(ids.begin(), ids.end());
    whiteEntries_ = std::move(entries);
}

// False if a stop came in between; the search runs several shell commands.
bool ProcessMonitor::SearchWhiteList(std::map<std::string, std::vector<std::string>>& entries)
{
    for (const char* pattern : kPatterns) {
        if (IsOwnThread() && !running_) {
            return false;
        }
        std::vector<std::string> pids;
        GetProcessPidsByPsCommand(pattern, pids);
        std::vector<std::string>& ids = entries[pattern];
        ids = pids;
        GetProcessTasks(pids, ids);
    }
    return true;
}

void ProcessMonitor::GetProcessPidsByPsCommand(const std::string& pattern, std::vector<std::string>& pids)
{
    const std::string command = "ps -ef | grep \"" + pattern + "\" | grep -v grep | awk '{print $2}'";
    const std::unique_ptr<std::FILE, decltype(&pclose)> output(File::RunCmdWithPopen(command), &pclose);
    if (output == nullptr) {
        LoggerWriteLog(kNormalLog, WARN, "process_monitor.cpp", __LINE__, "Can't popen.[cmdLine=%s]", command.c_str());
        return;
    }
    ByteBuffer content;
    FileOperation::ReadAllNosize(fileno(output.get()), content);
    for (std::string& line : StringProcess::StrSplit(content.ToString(), "\n")) {
        if (!line.empty()) {  // it would read as process 0
            pids.push_back(std::move(line));
        }
    }
}

void ProcessMonitor::GetProcessTaskList(const std::string& pid, std::vector<std::string>& tasks)
{
    FileOperation::ListDirectory("/proc/" + pid + "/task", tasks);
}

void ProcessMonitor::GetProcessTasks(const std::vector<std::string>& pids, std::vector<std::string>& tasks)
{
    for (const std::string& pid : pids) {
        GetProcessTaskList(pid, tasks);
    }
}

}  // namespace NEUtils
