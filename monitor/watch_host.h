#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <string>
#include <vector>

namespace NEUtils {

// A kernel watch, of whichever watcher. 0: none.
using WatchId = std::uint64_t;

// One record of the kernel's. It is about the watched file itself where it has no name, else about an entry.
struct WatchRecord {
    WatchId watch = 0;
    std::uint32_t mask = 0;
    std::uint32_t cookie = 0;
    std::string name;
};

// What the tracker of files asks of the system. The tests have one of their own, so that every order of changes,
// records and looks can be tried in no time.
class WatchHost {
public:
    virtual ~WatchHost() = default;

    // lstat and readlink. False if there is nothing.
    virtual bool Look(const std::string& path, struct stat& status) = 0;
    virtual bool ReadLink(const std::string& path, std::string& target) = 0;
    // The names in a directory.
    virtual bool ListDirectory(const std::string& path, std::vector<std::string>& names) = 0;

    // Watches a path, a link itself. Where a watch of the same file is believed to be there it is given as like. 0 if
    // there is no room or no such path.
    virtual WatchId AddWatch(const std::string& path, std::uint32_t mask, bool isDirectory, WatchId like) = 0;
    virtual void RemoveWatch(WatchId watch) = 0;
    virtual void ForgetWatch(WatchId watch) = 0;  // the kernel has ended it
    virtual bool HasRoom() const = 0;             // false since a watch was refused for want of room

    // Called now and then during long work. False: it should end, since the monitor stops.
    virtual bool Continue() = 0;
};

}  // namespace NEUtils
