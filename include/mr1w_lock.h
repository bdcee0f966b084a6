#pragma once

#include <cstdint>
#include <mutex>

#include "neutils_api.h"

namespace NEUtils {

// Guards a table that many threads read and one rebuilds now and then. A writer gives up after a timeout
// instead of waiting for ever. While it waits it keeps new readers out, so that readers cannot starve it.
//
// Threads  any. A reader must not ask for the write lock: it waits for itself and fails. It may nest read locks
//          only while no writer can come in between.
// Locks    writer mutex before count mutex.
// Units    milliseconds. The writer looks every 100, and never after the last wait: with a timeout of 150 it
//          looks once, waits once and fails.
// Blocks   a second writer waits for the first without limit, and that wait is not counted.
// Errors   LockForWrite false: timed out, not held. A failing mutex throws system_error.
class NEUTILS_API MR1WLock {
public:
    MR1WLock() = default;
    MR1WLock(const MR1WLock&) = delete;
    MR1WLock& operator=(const MR1WLock&) = delete;

    void LockForRead();
    void UnlockForRead();  // no effect without a matching lock
    bool LockForWrite(unsigned int timeoutMs);
    void UnlockForWrite();

private:
    bool HasReaders();

    std::mutex writerMutex_;
    std::mutex countMutex_;
    std::int32_t readers_ = 0;
};

}  // namespace NEUtils
