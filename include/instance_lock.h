#pragma once

#include <sys/types.h>

#include <string>

#include "neutils_api.h"

namespace NEUtils {

// Lets one process at a time hold a file, so that a program runs once however it was started. The kernel releases
// the lock when the process ends, whatever ended it.
//
// Order of use: Take() first of all, WritePid() once the process has the id that it keeps, and no more.
//
// Threads  one at a time.
// Owns     the open file. A forked child shares the lock, so a daemon keeps it; it is free once the last of them has
//          closed it or ended. A program that replaces the process (exec) does not inherit it.
// Limits   whoever may open the file can hold it: keep it in a directory that only its user may write to. Where
//          somebody deletes or replaces the file meanwhile, a second process gets a lock on the new one; IsInPlace()
//          notices that. On a network file system the lock is as good as that system's flock.
// Errors   kFailed with errno set. The file is never removed.
class NEUTILS_API InstanceLock {
public:
    enum class Result { kTaken, kHeld, kFailed };

    InstanceLock() = default;
    ~InstanceLock() { Release(); }
    InstanceLock(const InstanceLock&) = delete;
    InstanceLock& operator=(const InstanceLock&) = delete;

    // Takes the lock on a file, which is made with mode 0640 where it is missing, and empties it. What this object held
    // before is released first. A link, a hard link or anything but a regular file fails.
    Result Take(const std::string& path);

    // After kHeld: the process id that the holder wrote; 0 if it has written none (yet).
    pid_t Holder() const { return holder_; }

    // Writes the own process id into the file. False: no lock is held, or the disk is full.
    bool WritePid();

    // The path still leads to the file that is held.
    bool IsInPlace() const;

    bool IsHeld() const { return fd_ >= 0; }

    // Closes the file; of a forked child only its share in it.
    void Release();

private:
    std::string path_;
    int fd_ = -1;
    pid_t holder_ = 0;
};

}  // namespace NEUtils
