#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "logger.h"
#include "neutils_api.h"

namespace NEUtils {

// Writes log records as lines into size-limited files with gzip-compressed rolled copies.
//
// A program makes a LogFile and registers it under a log kind (logger.h) and a name; from then on each
// record of that kind is a line in it. There are five places for files.
//
// Threads  any.
// Locks    one mutex a file, held while its line is written and while it rolls; the daily budget's and
//          the registration's (over a place's, over the registry's) are never held together with it.
//          Nothing is logged under any of them.
//          A fork waits for those of registered files and the others, so a child finds them free; do not fork in a
//          signal handler. Where a file rolls for longer than a second, the child drops its records to it.
// Blocks   a roll runs gzip, in the shell, on the thread whose record found the file too large. SIGCHLD must not be
//          ignored, and no other thread may wait for that child, or no roll is seen to succeed. A handler of SIGCHLD
//          on this thread runs after the roll.
// Errors   a refused registration is logged; failing writes are silent but counted, and the next record tries
//          again, gzip after a pause of a second that doubles up to a minute. A formatter that throws, or is empty,
//          ends the process.
class NEUTILS_API LogSystem {
public:
    // Renders a record into out, of size bytes; gives the bytes written, 0 on failure.
    using Formatter = std::function<unsigned int(const NENormalLog&, char* out, unsigned int size)>;

    class LogFile;

    // Puts a file in a free place and subscribes it; it is opened by its first record (or before, by
    // CheckLogInfo, to learn whether it can be). One object a path: two would roll each other away. False, with an
    // ERROR record: all five places are taken, kind and name are in use together, kind, name or file are missing, or
    // the path is empty, begins with '-', holds a blank or a character special to the shell (it becomes part of a
    // command), or ends in a name that gzip does not compress (.gz .z .taz .tgz -gz -z _z) or that is longer than 241
    // bytes.
    static bool Register(std::shared_ptr<LogFile> file, const std::string& kind, const std::string& name,
                         Formatter formatter);

    // Takes the first registered file of that name out of service: waits until no other thread writes to it or runs its
    // formatter, closes it and frees its place. Afterwards the library holds neither. False: no such file.
    static bool Unregister(const std::string& name);

    // Sets the limits of the first registered file of that name.
    static bool UpdateLogConfig(const std::string& name, unsigned int minLevel, unsigned int maxFileSize,
                                unsigned int rollCount);

    // Lines that all files together may write in 86,400 seconds of the wall clock; 0: no budget.
    static void SetGlobalRecordLines(unsigned int lines);

    // For a status. Since the process began: lines that could not be written, of all files together, and lines that the
    // daily budget did not allow. And whether the budget is used up now.
    static std::uint64_t GetFailedLineCount();
    static std::uint64_t GetLinesOverBudget();
    static bool IsBudgetUsedUp();

    // Unsubscribes and closes every file and frees its place. A record that arrives late is dropped;
    // registering a file again opens it again.
    static void CloseAllLogFile();

    // The default layout, "20260131 23:59:58 INFO [file.cpp:12] [thread] message", always ended by one
    // line feed. Gives 0 for a size below 2 and for a line that does not fit.
    static unsigned int GetDefaultLogContent(const NENormalLog& record, char* out, unsigned int size);

private:
    struct Slot;

    static std::array<Slot, 5>& Slots();
    static std::mutex& RegistrationMutex();
    static const char* AddToSlot(std::shared_ptr<LogFile> file, const std::string& kind, const std::string& name,
                                 Formatter formatter);
    static bool SpendLine();
    static void LockForFork();
    static void UnlockAfterFork(bool isChild);

    static std::atomic<std::uint64_t> failedLines_;
    static std::atomic<std::uint64_t> linesOverBudget_;
    static std::atomic<unsigned int> maxLines_;
    static unsigned int recordLines_;
    static std::int64_t refreshPoint_;
    static std::mutex linesLock_;
};

// One log file: <path>, mode 0640, and up to rollCount copies <path>.1.gz (the newest) to
// <path>.<rollCount>.gz, mode 0440. A file found at open time is never appended to: it is rolled
// away first, or removed if it is a link, a directory, hard-linked or owned by somebody else.
//
// The functions that follow WriteLog are its steps. All but FlushLogStream expect the file to be used by
// this thread alone: before it is registered, or from within FlushLogStream, which locks it.
class NEUTILS_API LogSystem::LogFile {
public:
    // maxFileSize is in bytes, 0: no limit. rollCount 0: an oversized file is emptied instead of rolled.
    LogFile(std::string filePath, unsigned int minLevel, unsigned int maxFileSize, unsigned int rollCount);
    ~LogFile();
    LogFile(const LogFile&) = delete;
    LogFile& operator=(const LogFile&) = delete;

    // The subscriber: level, daily budget, formatter, file. A failed conversion is written as such.
    void WriteLog(const Formatter& formatter, const NENormalLog& record);

    // Appends bytes and hands them to the kernel. The size is looked at with every 50th call, before it.
    bool FlushLogStream(const char* data, unsigned int length);

    // For a status; neither waits for the file. The number of lines that could not be written. And what is wrong now:
    // why the last line could not be written, or for how long one has been waiting for the disk or for gzip, from 10 s
    // on; empty if nothing is.
    std::uint64_t GetFailedLineCount() const;
    std::string GetFault() const;

    bool CheckLogInfo();             // opens the file where it is not open
    void CheckFileMaxSize();         // rolls or empties the file if it has grown too large
    void RollFilesDuringRetart();    // makes way for a new file
    bool IsFileStreamVaild() const;  // false: the open file has been deleted or its descriptor is broken
    bool IsLogFileValid() const;     // the path is a plain file of this process's user and group
    void RollFiles(const std::string& path, unsigned int count) const;  // compresses and shifts copies

private:
    friend class LogSystem;

    void SetLimits(unsigned int minLevel, unsigned int maxFileSize, unsigned int rollCount);
    void CloseRetired();
    void CloseStream();
    void AppendLine(const char* data, unsigned int length);
    void CountFailure(int error);
    void RollWhenDue();
    void LockForFork();
    void UnlockAfterFork(bool isChild);

    const std::string filePath_;
    std::mutex fileMutex_;
    std::atomic<unsigned int> minLevel_;
    std::atomic<unsigned int> maxFileSize_;
    std::atomic<unsigned int> rollCount_;
    unsigned int writeCount_ = 0;
    std::uint64_t fileSize_ = 0;
    std::FILE* stream_ = nullptr;
    std::uint64_t inode_ = 0;  // of the file that was opened, with the device it is on
    std::uint64_t device_ = 0;
    bool endsInPiece_ = false;  // the last line was not written whole
    std::int64_t rollPauseNs_ = 0;
    std::int64_t nextRollNs_ = 0;
    bool forkLocked_ = false;
    std::atomic<std::uint64_t> failedLines_{0};
    std::atomic<std::int64_t> busySinceNs_{0};  // when the write under way began; 0: none is
    std::atomic<int> lastError_{0};             // why the last line failed; 0: it was written
    std::atomic<bool> retired_{false};          // taken out of service
    std::atomic<bool> abandoned_{false};        // in a forked child: its lock was held elsewhere
};

}  // namespace NEUtils
