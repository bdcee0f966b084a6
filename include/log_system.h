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
// Blocks   a roll runs gzip on the thread whose record found the file too large. It does so through
//          system(), so SIGINT and SIGQUIT are ignored in the whole process meanwhile: block them and
//          take them with sigwaitinfo. SIGCHLD must not be ignored, or no roll is seen to succeed.
// Errors   a refused registration is logged; failing writes are silent, and the next record tries again.
//          A formatter that throws, or is empty, ends the process.
class NEUTILS_API LogSystem {
public:
    // Renders a record into out, of size bytes; gives the bytes written, 0 on failure.
    using Formatter = std::function<unsigned int(const NENormalLog&, char* out, unsigned int size)>;

    class LogFile;

    // Puts a file in a free place and subscribes it; it is opened by its first record (or before, by
    // CheckLogInfo, to learn whether it can be). One object a path: two would roll each other away. False, with an
    // ERROR record: all five places are taken, kind and name are in use together, kind, name or file are missing, or
    // the path is empty, begins with '-' or holds a blank or a character special to the shell (it becomes part of a
    // command).
    static bool Register(std::shared_ptr<LogFile> file, const std::string& kind, const std::string& name,
                         Formatter formatter);

    // Sets the limits of the first registered file of that name.
    static bool UpdateLogConfig(const std::string& name, unsigned int minLevel, unsigned int maxFileSize,
                                unsigned int rollCount);

    // Lines that all files together may write in 86,400 seconds of the wall clock; 0: no budget.
    static void SetGlobalRecordLines(unsigned int lines);

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
    static const char* TakeSlot(std::shared_ptr<LogFile> file, const std::string& kind, const std::string& name,
                                Formatter formatter);
    static bool SpendLine();

    static std::atomic<unsigned int> maxLines_;
    static unsigned int recordLines_;
    static std::int64_t refreshPoint_;
    static std::mutex linesLock_;
};

// One log file: <path>, mode 0640, and up to rollCount copies <path>.1.gz (the newest) to
// <path>.<rollCount>.gz, mode 0440. A file found at open time is never appended to: it is rolled
// away first, or removed if it is a link, a directory, hard-linked or owned by somebody else.
//
// The functions below WriteLog are its steps. All but FlushLogStream expect the file to be used by
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

    const std::string filePath_;
    std::mutex fileMutex_;
    std::atomic<unsigned int> minLevel_;
    std::atomic<unsigned int> maxFileSize_;
    std::atomic<unsigned int> rollCount_;
    unsigned int writeCount_ = 0;
    std::uint64_t fileSize_ = 0;
    std::FILE* stream_ = nullptr;
    std::atomic<bool> retired_{false};  // taken out of service by CloseAllLogFile
};

}  // namespace NEUtils
