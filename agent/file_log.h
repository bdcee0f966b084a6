#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

#include "fanotify_watcher.h"
#include "file_rules.h"
#include "monitor.h"

// Turns what happens to files into log records and reports: changes of watched ones, and who touches the
// guarded ones. What happens to the agent's own log file and its rolled copies is left out, since each record
// would make the next one.
//
// Threads  Start and Stop: the main thread. "FileMonitorThread" and "FileAccess", both guarded, do the rest.
class FileLog {
public:
    // Watches as far as it can, and tells what it cannot. Needs the guard.
    void Start(const std::vector<NEUtils::Monitor::FileWatchRule>& watches, const std::vector<FileGuard>& guards,
               const std::string& ownLog, bool report);
    void Stop();

private:
    static void OnChange(const NEUtils::Monitor::FileEvent& event, void* self);
    static int AccessThread(void* self);
    void StartGuards(const std::vector<FileGuard>& guards);
    void OnAccess(int pid, const std::string& path, std::uint64_t mask) const;
    bool IsOwn(const std::string& path) const;

    std::string ownLog_;
    bool report_ = false;
    bool watching_ = false;
    NEUtils::FanotifyWatcher watcher_;
    int stopEvent_ = -1;
    std::uintptr_t thread_ = 0;
};
