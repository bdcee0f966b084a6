// The white list of a process monitor: which processes are on it, and how it follows their forks and exits.
#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <utility>

#include "process/platform_patterns.h"
#include "process/process_search.h"
#include "process_monitor.h"
#include "util/clock.h"
#include "util/file.h"

namespace NEUtils {

namespace {

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
            // A new process or thread: who had the id before is gone. An event from before the search is about one
            // that the search may have found.
            if (event.timestamp_ns > whiteListNs_) {
                whiteSet_.erase(fork.child_pid);
            }
            return false;
        }
        whiteSet_.insert(fork.child_tgid);
        whiteSet_.insert(fork.child_pid);
        return true;
    }
    // Every other kind begins with the ids of its thread and its process.
    const auto& ids = event.event_data.exec;
    const int id = processesOnly_ ? ids.process_tgid : ids.process_pid;
    if (event.what != kExitEvent) {
        return whiteSet_.count(id) != 0;
    }
    if (whiteSet_.erase(id) == 0) {
        return false;
    }
    const std::string text = std::to_string(id);
    for (auto& [pattern, texts] : whiteEntries_) {
        texts.erase(std::remove(texts.begin(), texts.end(), text), texts.end());
    }
    return true;
}

void ProcessMonitor::ParseProcessWhiteList()
{
    RefreshWhiteList(true);
}

void ProcessMonitor::UpdateProcessWhiteList()
{
    RefreshWhiteList(false);
}

// False: the search has failed, and the list stays as it is.
bool ProcessMonitor::RefreshWhiteList(bool anew)
{
    std::map<std::string, std::vector<std::string>> entries;
    if (!SearchWhiteList(entries)) {
        for (const char* pattern : kPlatformPatterns) {
            LogFailedSearch(pattern);
        }
        return false;
    }
    const auto searchedNs = static_cast<std::uint64_t>(Clock::MonotonicNs());
    std::set<int> ids = IdsOf(entries);
    const std::lock_guard<std::mutex> lock(whiteListMutex_);
    if (anew) {
        whiteSet_.swap(ids);
    } else {
        // Only ids of a former search are erased here; a child that was followed leaves the list with its exit.
        for (const int old : IdsOf(whiteEntries_)) {
            if (ids.count(old) == 0) {
                whiteSet_.erase(old);
            }
        }
        whiteSet_.insert(ids.begin(), ids.end());
    }
    whiteEntries_ = std::move(entries);
    whiteListNs_ = searchedNs;
    return true;
}

// One look at /proc instead of a shell command for each pattern: the commands held the thread for a second on a
// host with many processes, while the events of that time waited.
bool ProcessMonitor::SearchWhiteList(std::map<std::string, std::vector<std::string>>& entries)
{
    const ProcessSearch search;
    bool complete = search.IsComplete();
    for (const char* pattern : kPlatformPatterns) {
        std::vector<std::string>& ids = entries[pattern];
        ids = search.Find(pattern);
        if (!processesOnly_) {  // which get no event of a thread, so they would not see when its id is free again
            for (const std::string& pid : std::vector<std::string>(ids)) {
                errno = 0;
                GetProcessTaskList(pid, ids);
                complete = complete && !ProcessSearch::IsOutOfResources(errno);
            }
        }
    }
    return complete;
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
