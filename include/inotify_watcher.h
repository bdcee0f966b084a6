#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "neutils_api.h"

namespace NEUtils {

// One inotify descriptor: a capped table of watches with their paths, and the kernel's records as events.
//
// Threads  Poll and ReadEvent: one. Watches may come and go from any thread meanwhile. Init: before all else.
// Locks    the table's mutex; nothing is logged while it is held.
// Owns     the table. The descriptor is never closed here, also not by a second Init or the destructor: its
//          owner closes GetFd(), after the last call.
// Limits   10,240 watches, or 70 percent of the kernel's allowance for a user where that is lower, and one
//          more. A ReadEvent ends once 300 events are together. Names of at most 255 bytes.
// Blocks   Poll at most 10 ms, with every signal unblocked.
// Errors   false, or 0 where said, and an ERROR record.
// Source   the kernel: records of wd, mask, cookie, len (4 bytes each, host order) and len bytes of a name
//          padded with NULs. No length is believed: a record that is longer than what was read waits for more.
class NEUTILS_API InotifyWatcher {
public:
    static constexpr std::uint32_t kBufferSize = 1024;
    static constexpr std::uint32_t kMaxLimit = 10240;

    struct Event {
        int wd = -1;
        std::uint32_t mask = 0;
        std::uint32_t cookie = 0;  // the same for both halves of a rename
        std::string name;          // of an entry, or the whole path of the watch for an event on itself
    };

    InotifyWatcher() = default;
    ~InotifyWatcher() = default;
    InotifyWatcher(const InotifyWatcher&) = delete;
    InotifyWatcher& operator=(const InotifyWatcher&) = delete;

    // Opens the descriptor and sets the limit. Where only that fails or throws, the descriptor stays open.
    bool Init();

    // Lowers the limit to what the kernel allows. Throws std::invalid_argument or std::out_of_range if the
    // kernel's file holds no number.
    bool SetLimit();

    // Watches a path. Directories also for entries created, deleted and renamed, and for their own end, at
    // any mask. A link that leads somewhere is watched itself, with the mask for what it leads to. Gives the
    // watch descriptor, or 0: there is no such file (without a record), the path is empty or the table full
    // (a record at most every 15 minutes of the wall clock in the process), or the kernel refused.
    // A file that is watched already, under whatever path, gives its descriptor again and keeps the path
    // that it had; the kernel takes the new mask instead of the old one.
    int AddWatch(const std::string& path, std::uint32_t mask);

    // Ends a watch; also forgotten here if the kernel has none. Nothing happens for an unknown one.
    void RmWatch(int wd);

    // Forgets a watch that the kernel has dropped (IN_IGNORED).
    void RmInvalidWatch(int wd);

    // True if there is something to read.
    bool Poll() const;

    // Appends what is pending to events. A record without a name whose watch is not in the table is dropped.
    bool ReadEvent(std::vector<Event>& events) const;

    // Decodes the bytes from start to end (at most the size of the buffer; false beyond). A record that they
    // cut is moved to the start of the buffer and its length so far stored in carry, which is left alone
    // otherwise.
    bool GenerateEvent(std::uint32_t start, std::uint32_t& carry, std::uint32_t end, char (&buffer)[kBufferSize],
                       std::vector<Event>& events) const;

    // Empty for an unknown watch.
    std::string GetPathByWatch(int wd) const;

    std::size_t GetWatchCount() const;
    std::uint32_t GetLimit() const;

    // Ends all watches; new ones may be added afterwards.
    void Stop();

    // -1 before Init.
    int GetFd() const { return fd_; }

    // How often the kernel's queue was full, as far as its records have been read. Events were lost each time.
    std::uint64_t GetOverflowCount() const { return overflows_; }

private:
    void AppendEvent(const char* record, std::uint32_t length, std::vector<Event>& events) const;

    int fd_ = -1;
    std::uint32_t limit_ = kMaxLimit;
    mutable std::mutex mutex_;
    std::map<int, std::string> paths_;  // by watch descriptor
    mutable std::atomic<std::uint64_t> overflows_{0};
};

}  // namespace NEUtils
