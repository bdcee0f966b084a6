#pragma once

#include "file_watch.h"
#include "neutils_api.h"

// Watching files: rules say which (file_watch.h), and the monitor calls back what happens to them.
namespace NEUtils::Monitor {

// Starts the monitor and its thread, which begins to look after 5 seconds; what happens to watched files
// until then is notified then. Needs InitHipsGuard. True also where it runs already. False without a thread, and where
// the monitor failed while its thread runs: no rule is accepted then, and DeInitFileMonitor ends the thread.
//
// Threads  InitFileMonitor and DeInitFileMonitor: one at a time. AddMonitor and RemoveMonitor: any.
//          Callbacks run on "FileMonitorThread", one at a time, without a lock.
// Blocks   DeInitFileMonitor: until the callback under way has returned, and up to 3 seconds for a thread that has
//          not begun to look yet.
NEUTILS_API bool InitFileMonitor();
NEUTILS_API void DeInitFileMonitor();

// Watches by a rule. False, with a record: not running, a wrong rule, a missing path that the rule does not wait for,
// one that is there already. Takes time with the number of directories and files below the path; what is there
// already is not called back.
NEUTILS_API bool AddMonitor(const FileWatchRule& rule, MonitorType type);

// Takes back a rule equal to this one. Afterwards no call of its callback for the rule runs, but for the one
// that this is called from. False if there is none.
NEUTILS_API bool RemoveMonitor(const FileWatchRule& rule, MonitorType type);

// How it is with a rule equal to this one.
NEUTILS_API WatchState GetWatchState(const FileWatchRule& rule);

// The body of the monitor's thread: looks for events until the monitor stops. Always null.
NEUTILS_API void* WorkThread(void* unused);

}  // namespace NEUtils::Monitor
