#pragma once

#include <mutex>
#include <set>

#include "file_watch.h"
#include "inotify_monitor.h"
#include "neutils_api.h"

namespace NEUtils {

// Holds the monitors and drives them together; the functions of namespace Monitor use the process's own.
//
// Threads  any. No lock is held over a monitor's operation.
class NEUTILS_API MonitorManager {
public:
    static MonitorManager& GetInstance();

    bool Init();
    void DeInit();
    InotifyMonitor& GetInotifyMonitor() { return inotify_; }
    MonitorObject* GetMonitor(Monitor::MonitorType type);  // null for every type but kInotifyMonitor
    bool AddWatch(const Monitor::FileWatchRule& rule, Monitor::MonitorType type);
    bool RemoveWatch(const Monitor::FileWatchRule& rule, Monitor::MonitorType type);
    void ReceiveEvent();  // one after the other looks for events

private:
    InotifyMonitor inotify_;
    std::mutex mutex_;
    std::set<MonitorObject*> monitors_;
};

}  // namespace NEUtils
