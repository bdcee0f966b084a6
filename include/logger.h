#pragma once

#include <ctime>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>

#include "neutils_api.h"

// The logger: one entry point for all log records of the process.
//
// LoggerWriteLog formats a record once and hands it to the subscribers of its log kind on an
// in-process message bus. Log files (log_system.h) are such subscribers.
//
// Threads  any. Records of one thread reach a subscriber in call order; between threads there is none.
// Locks    the registry's mutex only while subscribers are looked up, never while they run.
// Limits   4,096 characters a message; a longer one is cut and ends in "...".
// Errors   none to the caller; errno is preserved. Without memory a record is lost.

// A build may define macros of the levels' names, -DDEBUG above all. They are put aside here.
#pragma push_macro("DEBUG")
#pragma push_macro("INFO")
#pragma push_macro("WARN")
#pragma push_macro("ERROR")
#pragma push_macro("FATAL")
#pragma push_macro("UNKNOWN")
#undef DEBUG
#undef INFO
#undef WARN
#undef ERROR
#undef FATAL
#undef UNKNOWN

// The value is also the index of the level's name; pass no others. Where a macro has the name of a level, NE_LOG
// still means the level; elsewhere write the number, LogLevel(0).
enum LogLevel {
    DEBUG = 0,
    INFO = 1,
    WARN = 2,
    ERROR = 3,
    FATAL = 4,
    UNKNOWN = 5,
};

// One record as a subscriber sees it. All pointers are valid during the call only.
struct NENormalLog {
    LogLevel level;
    unsigned int line;      // source line
    const char* levelName;  // "DEBUG" to "UNKNOWN"
    const char* fileName;   // bare source file name, such as "my_program.cpp"
    const char* content;    // the message, on one line
    const struct tm* time;  // local time with the full year (2026) and the month from 1 to 12
};

// Writes one record. A null format and the kind "StartupLog" have no effect; a kind without
// subscribers gives no output. A subscriber may log: its own record is kept meanwhile; four records may
// be under way on one thread, the outermost included, and a fifth is dropped. An empty callable among
// the subscribers (std::bad_function_call), or one that throws, ends the process.
NEUTILS_API void LoggerWriteLog(const char* logKind, LogLevel level, const char* fileName, unsigned int line,
                                const char* format, ...) noexcept __attribute__((format(printf, 5, 6)));

// Replaces backspace, line feed, vertical tab, form feed, carriage return and delete by '_' in the
// calling thread's message buffer. LoggerWriteLog does so for each record.
NEUTILS_API void ReplaceEscapeChar();

// Writes a long text as DEBUG records of at most 4,000 characters each.
NEUTILS_API void PrintDebugLargeLog(const std::string& text);

namespace NEUtils {

// A text that others chose, such as a file name, for a record: control characters, those from 0x80 to 0x9f in both
// their forms, and bytes that are not UTF-8 become '?', so that it cannot steer a terminal.
NEUTILS_API std::string Printable(std::string text);

using ::DEBUG;
using ::ERROR;
using ::FATAL;
using ::INFO;
using ::LoggerWriteLog;
using ::LogLevel;
using ::NENormalLog;
using ::PrintDebugLargeLog;
using ::ReplaceEscapeChar;
using ::UNKNOWN;
using ::WARN;

// Log kinds. Records of the startup kind are always dropped; it is a registration name for files only.
inline constexpr char kStartupLog[] = "StartupLog";
inline constexpr char kNormalLog[] = "NormalLog";
inline constexpr char kDotLog[] = "DotLog";

// The process-wide registry of log subscribers, by kind and then by subscriber name.
class NEUTILS_API MessageBus {
public:
    using Subscriber = std::function<void(const NENormalLog&)>;
    template <typename Record>
    using SubList = std::map<std::string, std::unordered_map<std::string, std::function<void(Record)>>>;

    // Adds a subscriber, from the next record on. False, and nothing changed, if kind and name are taken.
    static bool Subscribe(const std::string& kind, const std::string& name, Subscriber subscriber);

    // Removes a subscriber; a call of it that is under way on another thread may still end later.
    static bool Unsubscribe(const std::string& kind, const std::string& name);

    // The same, and waits until no other thread is in a call of the subscriber. Afterwards it is neither called nor
    // held, so its code may be unloaded. A subscriber may remove itself in its own call: it waits for the calls of
    // other threads only, and is destroyed after its own. False, without a wait: it is not subscribed. Hold no lock
    // that the subscriber takes.
    static bool UnsubscribeAndWait(const std::string& kind, const std::string& name);

    // The registry itself and the mutex to hold while using it, but not over a fork. UnsubscribeAndWait does not wait
    // for a subscriber that was put here directly.
    static std::mutex& GetSubMutex();
    template <typename Record>
    static SubList<Record>& GetSubList();
};

extern template NEUTILS_API MessageBus::SubList<const NENormalLog&>& MessageBus::GetSubList<const NENormalLog&>();

// The level that a text names, otherwise the value.
constexpr LogLevel LevelOf(std::string_view text, int value)
{
    return text == "DEBUG"     ? DEBUG
           : text == "INFO"    ? INFO
           : text == "WARN"    ? WARN
           : text == "ERROR"   ? ERROR
           : text == "FATAL"   ? FATAL
           : text == "UNKNOWN" ? UNKNOWN
                               : static_cast<LogLevel>(value);
}

// The file name of a source path, for compilers that do not tell it themselves.
constexpr const char* BaseName(const char* path)
{
    const char* name = path;
    for (; *path != '\0'; ++path) {
        if (*path == '/') {
            name = path + 1;
        }
    }
    return name;
}

}  // namespace NEUtils

#ifdef __FILE_NAME__
#define NEUTILS_FILE_NAME __FILE_NAME__
#else
#define NEUTILS_FILE_NAME ::NEUtils::BaseName(__FILE__)
#endif

#pragma pop_macro("DEBUG")
#pragma pop_macro("INFO")
#pragma pop_macro("WARN")
#pragma pop_macro("ERROR")
#pragma pop_macro("FATAL")
#pragma pop_macro("UNKNOWN")

#define NEUTILS_LOG(level, ...) \
    ::LoggerWriteLog(::NEUtils::kNormalLog, level, NEUTILS_FILE_NAME, static_cast<unsigned int>(__LINE__), __VA_ARGS__)

// Logs to the normal log kind with the place it stands at: NE_LOG(WARN, "Disk is full.[path=%s]", path);
#if defined(DEBUG) || defined(INFO) || defined(WARN) || defined(ERROR) || defined(FATAL) || defined(UNKNOWN)
#define NE_LOG(level, ...) NEUTILS_LOG(::NEUtils::LevelOf(#level, level + 0), __VA_ARGS__)
#else
#define NE_LOG(level, ...) NEUTILS_LOG(level, __VA_ARGS__)
#endif
