#pragma once

#include <cstdint>
#include <mutex>

#include "neutils_api.h"

namespace NEUtils {

// Guards a table that many threads read and one rebuilds now and then. A writer gives up after a
// timeout instead of waiting for ever, and while it waits it holds new readers back, so that readers
// cannot starve it.
//
// Threads  any; a reader must not ask for the write lock (it waits for itself and fails), and may nest
//          read locks only while no writer can come in between.
// Locks    writer mutex before count mutex.
// Units    milliseconds; readers are polled every 100, so a budget of 150 looks once, waits once, fails.
// Blocks   a second writer waits for the first without limit, and that wait is not counted.
// Errors   LockForWrite false: timed out, not held. A failing mutex throws system_error.
class NEUTILS_API MR1WLock {
public:
    MR1WLock() = default;
    MR1WLock(const MR1WLock&) = delete;
    MR1WLock& operator=(const MR1WLock&) = delete;

    void LockForRead();
    void UnlockForRead();  // without a matching lock it has no effect
    bool LockForWrite(unsigned int timeoutMs);
    void UnlockForWrite();

private:
    bool HasReaders();

    std::mutex writerMutex_;
    std::mutex countMutex_;
    std::int32_t readers_ = 0;
};

}  // namespace NEUtils
