#pragma once

#include <sys/fanotify.h>
#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>

#include "neutils_api.h"

namespace NEUtils {

// Says which process touched a file, for files and directories that are marked. What the agent itself does to
// them is only logged (INFO): marking the directory of the agent's own log makes a loop of such logs.
// Ask for no permission events (FAN_OPEN_PERM and the like): nobody answers them, so the process that
// touches the file would hang.
//
// Source   fanotify of the kernel; Init needs CAP_SYS_ADMIN.
// Threads  Init, DeInit and the marks on the owner's thread, Poll and HandleEvent on one event thread, where
//          the callback runs too. There is no lock: end the event thread before Init, DeInit or the destructor.
// Blocks   HandleEvent() goes on while events come: up to 1,000 passes of 10 ms, so 10 s on a busy file
//          system. For a stop in less, poll GetFd() beside a stop descriptor, read up to 4,800 bytes from it
//          and pass them to HandleEvent(buffer, length).
//          Poll unblocks all signals of its thread while it waits, so their handlers may run on it.
// Owns     the descriptors of the events. They are not close-on-exec: a child that another thread starts
//          while events are handled inherits them.
// Limits   the kernel's queue, 16,384 events unless it is set up otherwise; what does not fit is lost and only counted.
// Errors   logged, but for those of Init, a path that does not exist and an event without a path. An event
//          whose file the kernel cannot open is lost, the read fails and later events wait for the next
//          call: no descriptors left, or on a 32-bit kernel a file above 2 GiB.
class NEUTILS_API FanotifyWatcher {
public:
    // Process id, path, FAN_ bits, whether these hold FAN_ONDIR. The kernel sets that bit only where events
    // carry file handles, so here directories come without it: look at the path. What the callback throws
    // leaves HandleEvent, and the events that were read together with that one are dropped.
    using Callback = std::function<void(int, const std::string&, std::uint64_t, bool)>;

    FanotifyWatcher() = default;
    ~FanotifyWatcher();
    FanotifyWatcher(const FanotifyWatcher&) = delete;
    FanotifyWatcher& operator=(const FanotifyWatcher&) = delete;

    // False for an empty callback, which changes nothing, and where the kernel refuses. Once more, it begins
    // anew without marks.
    bool Init(Callback callback);
    void DeInit();

    // Marks a file, or a directory with what is directly in it. Links are followed.
    bool AddWatch(const std::string& path, std::uint32_t mask) const;
    // Takes bits off a mark.
    void RmWatch(const std::string& path, std::uint32_t mask) const;

    // Waits 10 ms for events.
    bool Poll();
    void HandleEvent() const;
    // Handles the records of one read, in any alignment. False if it ended early, for a version other than 3
    // or for want of memory. All their descriptors are closed, in every case.
    bool HandleEvent(const void* buffer, ssize_t length) const;
    // False for a version other than 3; the record's descriptor is closed then.
    bool CheckMetaData(const fanotify_event_metadata& record) const;

    // To poll it for POLLIN; -1 while disabled.
    [[nodiscard]] int GetFd() const { return fd_; }

    // How often the kernel's queue was full. Events were lost each time.
    [[nodiscard]] std::uint64_t GetOverflowCount() const { return overflows_; }

private:
    void Dispatch(const fanotify_event_metadata& record, const char* path) const;
    void Close();

    int fd_ = -1;
    bool enabled_ = false;
    Callback callback_;
    mutable std::atomic<std::uint64_t> overflows_{0};
};

}  // namespace NEUtils
