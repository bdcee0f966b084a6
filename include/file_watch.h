#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "neutils_api.h"

namespace NEUtils {

// What a rule for watching files says, and what its callback is given.
namespace Monitor {

enum MonitorType {
    kAnyMonitor = 0,
    kInotifyMonitor = 1,
};

// What has happened to one path.
//
// A rename within the rule has both paths. A file that a rename replaces gets no event of its own. Of a directory
// that goes, or is renamed within the rule, only the directory itself is notified; of one that comes, everything below
// it. Two paths of a rule that exchange their files (RENAME_EXCHANGE) are notified as a rename of the first to the
// second and the creation of the first, with everything below it; a path that is exchanged with one outside of the
// rule as its creation, and if it was a directory as its deletion and creation. A link on the way to a rule's path
// that leads elsewhere now, a mount, and an unmount are notified as the deletion of what cannot be reached any more
// and the creation of what can. Whoever applies the events in their order knows what is there.
struct FileEvent {
    std::string path;
    std::string oldPath;     // of a rename within the rule; otherwise empty
    std::uint32_t mask = 0;  // IN_ bits of <sys/inotify.h>: IN_CREATE, IN_DELETE, IN_MOVED_TO with an oldPath,
                             // and whatever else the rule asks for
    bool isDirectory = false;
    std::string change;  // the path, a blank and the change text of GetDiff; empty where nothing of it changed

    // What lstat has said of the path on behalf of this event, so that nobody needs to look again; st_dev and st_ino
    // tell which file it is. Empty where nothing was there any more. Of a deletion it is the last known: only st_dev,
    // st_ino, st_mode, st_nlink, st_uid, st_gid, st_size, st_mtim and st_ctim are set then.
    std::optional<struct stat> status;
};

using FileEventCallback = void (*)(const FileEvent& event, void* userData);

struct FileWatchRule {
    // Absolute. A last link that leads to a directory is followed if the rule is recursive; otherwise the link itself
    // is watched. Links on the way are followed, also when they lead elsewhere later. Events name the real path.
    std::string path;
    bool recursive = false;  // with all directories below, also those to come
    std::uint32_t mask = 0;  // which IN_ events are wanted; a rename is notified for either half of IN_MOVE,
                             // and the end of the path itself also for IN_DELETE_SELF and IN_MOVE_SELF
    // Shell patterns for what is left out below the path, with the trees of it. One without a slash is for names. One
    // with a slash is for paths below the rule's path, each part for itself ("sub/*.tmp", "./cache"); if it begins with
    // one it is for absolute paths, real ones.
    std::vector<std::string> excludes;
    FileEventCallback callback = nullptr;
    void* userData = nullptr;
    // Also what is mounted below the path. Pseudo file systems (/proc, /sys and the like) are never read.
    bool crossMounts = false;
    bool mayBeMissing = false;  // a path that is not there yet is waited for; otherwise such a rule is refused
};

enum WatchState {
    kNotWatched = 0,  // there is no such rule
    kWaiting = 1,     // the rule's path is not there; its creation will be notified
    kWatching = 2,
};

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
