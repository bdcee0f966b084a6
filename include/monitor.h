#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "neutils_api.h"

namespace NEUtils {

// Watching files: rules say which, the monitor calls back what happens to them.
namespace Monitor {

enum MonitorType {
    kAnyMonitor = 0,
    kInotifyMonitor = 1,
};

// What has happened to one path.
struct FileEvent {
    std::string path;
    std::string oldPath;     // of a rename within the rule; otherwise empty
    std::uint32_t mask = 0;  // IN_ bits of <sys/inotify.h>: IN_CREATE, IN_DELETE, IN_MOVED_TO with an oldPath,
                             // and whatever else the rule asks for
    bool isDirectory = false;
    std::string change;  // the path, a blank and the change text of GetDiff; empty where nothing of it changed
};

using FileEventCallback = void (*)(const FileEvent& event, void* userData);

struct FileWatchRule {
    std::string path;                   // absolute, and there; a link that leads somewhere is watched itself
    bool recursive = false;             // with all directories below, also those to come
    std::uint32_t mask = 0;             // which IN_ events are wanted; a rename is told for either half of IN_MOVE,
                                        // and the end of the path itself also for IN_DELETE_SELF and IN_MOVE_SELF
    std::vector<std::string> excludes;  // shell patterns for names below the path, whose trees are left out
    FileEventCallback callback = nullptr;
    void* userData = nullptr;
};

// Starts the monitor and its thread, which begins to look after 5 seconds; what happens to watched files
// until then is told then. Needs InitHipsGuard. True also where it runs already.
//
// Threads  InitFileMonitor and DeInitFileMonitor: one at a time. AddMonitor and RemoveMonitor: any.
//          Callbacks run on "FileMonitorThread", one at a time, without a lock.
// Blocks   DeInitFileMonitor: until the callback under way has returned, and up to 3 seconds for the thread.
NEUTILS_API bool InitFileMonitor();
NEUTILS_API void DeInitFileMonitor();

// Watches by a rule. False, with a record: not running, a wrong rule, one that is there already. Takes time
// with the number of directories and files below the path; what is there already is not called back.
NEUTILS_API bool AddMonitor(const FileWatchRule& rule, MonitorType type);

// Takes back a rule equal to this one. Afterwards no call of its callback for the rule runs, but for the one
// that this is called from. False if there is none.
NEUTILS_API bool RemoveMonitor(const FileWatchRule& rule, MonitorType type);

// The body of the monitor's thread: looks for events until the monitor stops. Always null.
NEUTILS_API void* WorkThread(void* unused);

}  // namespace Monitor

// A kind of monitor, as the manager drives it.
class NEUTILS_API MonitorObject {
public:
    virtual ~MonitorObject();
    virtual bool Init() = 0;
    virtual void DeInit() = 0;
    virtual bool AddRule(const Monitor::FileWatchRule& rule) = 0;
    virtual bool RemoveRule(const Monitor::FileWatchRule& rule) = 0;
    virtual void ReadEvent() = 0;
};

}  // namespace NEUtils
