#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>

#include "file_watch.h"
#include "neutils_api.h"

namespace NEUtils {

class InotifySession;

// Watches files and directory trees with inotify and keeps their records in the attribute table. A tree rule
// follows its tree: directories that are created, moved in, out or about, and a watched file that is deleted
// or replaced and comes back. Where the kernel's queue overflows, the watched files are compared with what is
// known of them, and what has really changed is notified.
//
// Threads  ReadEvent: one, the callbacks run on it. The others: any.
// Blocks   ReadEvent: until DeInit. RemoveRule and DeInit: until the callback under way has returned, where
//          they are not called from it.
// Limits   those of InotifyWatcher; a rule that cannot have all its directories says how many it lacks, once,
//          and goes on with the rest. Each known file takes some 200 bytes; what is beyond the attribute table's
//          limit has no change texts. Of a file's several names only the first has a watch of its own.
class NEUTILS_API InotifyMonitor : public MonitorObject {
public:
    bool Init() override;  // true also where it is
    void DeInit() override;
    bool AddRule(const Monitor::FileWatchRule& rule) override;
    bool RemoveRule(const Monitor::FileWatchRule& rule) override;
    Monitor::WatchState GetWatchState(const Monitor::FileWatchRule& rule);
    void ReadEvent() override;  // returns at once where there was no Init

    std::size_t GetWatchCount();    // of the kernel's watches
    std::size_t GetLackingCount();  // of directories that rules lack a watch for

    // How often events were lost since Init, nobody knows how many: the kernel's queue overflowed, or memory ran out.
    // What has really changed is found by comparing.
    std::uint64_t GetOverflowCount();

private:
    std::shared_ptr<InotifySession> Session();

    std::mutex mutex_;
    std::shared_ptr<InotifySession> session_;
};

}  // namespace NEUtils
