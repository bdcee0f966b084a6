#pragma once

#include <pthread.h>

#include <array>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <mutex>

#include "guard/guard_log.h"
#include "logger.h"

namespace NEUtils {

// Writes the checker's records on a thread of its own, which is named "CheckManager" as well. A log can hang:
// its disk stalls, or the thread that holds its file's lock hangs. The checker must go on counting heartbeats
// then, and still end the process.
//
// Threads  any. Without a running thread a record is written by the caller.
// Blocks   Write and WaitUntilWritten wait at most two seconds for a log that hangs, and no longer at all
//          until it moves again.
// Limits   32 records wait; those above are dropped, counted, and logged as a number once the log moves.
class CheckLog {
public:
    static CheckLog& Get();

    bool Start(int& error);  // an error number on failure
    void Stop();             // writes what waits, and joins

    [[gnu::format(printf, 5, 6)]] void Write(LogLevel level, const char* file, unsigned int line, const char* format,
                                             ...);

    // Waits until every record is written. False if the log hangs.
    bool WaitUntilWritten();

private:
    struct Record {
        LogLevel level;
        const char* file;
        unsigned int line;
        char text[512];
    };

    static void* Run(void* log);
    void WriteRecords();
    bool Wait(std::unique_lock<std::mutex>& lock, bool (CheckLog::*reached)() const);
    bool HasSpace() const { return count_ < ring_.size(); }
    bool IsWritten() const { return count_ == 0; }

    std::mutex mutex_;               // guards all below; nothing is logged under it
    std::condition_variable wake_;   // the thread: there is a record, or an end
    std::condition_variable moved_;  // the others: a record is written
    std::array<Record, 32> ring_{};
    std::size_t first_ = 0;
    std::size_t count_ = 0;  // with the one that is being written
    std::size_t dropped_ = 0;
    bool running_ = false;
    bool hangs_ = false;  // the last wait was in vain, and nothing has been written since
    pthread_t thread_{};
};

// A record of the checker, in the form of NE_LOG; the second one under the guard's name.
#define CHECK_LOG(level, ...) CHECK_LOG_AS(NEUTILS_FILE_NAME, level, __VA_ARGS__)
#define GUARD_CHECK_LOG(level, ...) CHECK_LOG_AS(NEUtils::kGuardFile, level, __VA_ARGS__)
#define CHECK_LOG_AS(file, level, ...) \
    NEUtils::CheckLog::Get().Write((level), (file), static_cast<unsigned int>(__LINE__), __VA_ARGS__)

}  // namespace NEUtils
