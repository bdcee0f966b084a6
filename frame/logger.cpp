#include "logger.h"

#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <utility>
#include <vector>

#include "util/bounded.h"

namespace {

constexpr std::size_t kMessageSize = 4097;
constexpr unsigned kMaxDepth = 4;
constexpr std::size_t kLargeLogChunk = 4000;
constexpr const char* kLevelNames[] = {"DEBUG", "INFO", "WARN", "ERROR", "FATAL", "UNKNOWN"};

using Subscribers = std::vector<NEUtils::MessageBus::Subscriber>;

thread_local char t_message[kMessageSize];
thread_local char* t_nested = nullptr;  // the buffer of a record written by a subscriber
thread_local unsigned t_depth = 0;

char* CurrentMessage()
{
    return t_nested == nullptr ? t_message : t_nested;
}

// The subscribers of one kind as they are now. Copying these alone shows callers the same as copying
// the whole registry would, and they run without the lock.
Subscribers CopySubscribers(const char* logKind)
{
    using NEUtils::MessageBus;
    Subscribers copies;
    const std::string kind(logKind);
    const std::lock_guard<std::mutex> lock(MessageBus::GetSubMutex());
    const auto& list = MessageBus::GetSubList<const NENormalLog&>();
    const auto found = list.find(kind);
    if (found != list.end()) {
        copies.reserve(found->second.size());
        for (const auto& [name, subscriber] : found->second) {
            copies.push_back(subscriber);
        }
    }
    return copies;
}

// Breaks the time down once a second and thread; localtime_r takes the time zone's lock.
bool LocalTime(struct tm& out)
{
    thread_local time_t second = 0;
    thread_local struct tm broken = {};
    thread_local bool known = false;
    const time_t now = std::time(nullptr);
    if (!known || now != second) {
        known = localtime_r(&now, &broken) != nullptr;
        if (!known) {
            return false;
        }
        second = now;
        broken.tm_year += 1900;
        broken.tm_mon += 1;
    }
    out = broken;
    return true;
}

// Formats into the current buffer; false if a cut message could not be marked.
[[gnu::format(printf, 1, 0)]] bool FormatMessage(const char* format, va_list args)
{
    char* message = CurrentMessage();
    message[0] = '\0';
    if (NEUtils::vsnprintf_s(message, kMessageSize, format, args) >= 0) {
        return true;
    }
    if (message[0] == '\0') {
        return NEUtils::snprintf_s(message, kMessageSize, "Failed to format log content.") >= 0;
    }
    constexpr std::size_t kDots = 3;
    constexpr std::size_t kDotsAt = kMessageSize - 1 - kDots;
    return NEUtils::memset_s(message + kDotsAt, kMessageSize - kDotsAt, '.', kDots) == 0;
}

[[gnu::format(printf, 5, 0)]] void Dispatch(const Subscribers& subscribers, LogLevel level, const char* fileName,
                                            unsigned int line, const char* format, va_list args)
{
    const int error = errno;
    struct tm time;
    const bool timed = LocalTime(time);
    errno = error;  // for a %m among the arguments
    if (!timed || !FormatMessage(format, args)) {
        return;
    }
    ReplaceEscapeChar();
    const NENormalLog record{level, line, kLevelNames[level], fileName, CurrentMessage(), &time};
    for (const auto& subscriber : subscribers) {
        // Kept because an empty callable is a fault of the program: it ends the process here.
        subscriber(record);
    }
}

// A subscriber logs: its record stays in the outer buffer, which the new arguments may point into.
// Apart from the common path, which then needs no second buffer on the stack.
[[gnu::noinline, gnu::format(printf, 5, 0)]] void DispatchNested(const Subscribers& subscribers, LogLevel level,
                                                                 const char* fileName, unsigned int line,
                                                                 const char* format, va_list args)
{
    char inner[kMessageSize];
    char* outer = std::exchange(t_nested, inner);
    Dispatch(subscribers, level, fileName, line, format, args);
    t_nested = outer;
}

}  // namespace

void LoggerWriteLog(const char* logKind, LogLevel level, const char* fileName, unsigned int line, const char* format,
                    ...) noexcept
{
    // Kept because the startup kind exists only as a registration name: its records are dropped.
    if (format == nullptr || logKind == nullptr || std::strcmp(logKind, NEUtils::kStartupLog) == 0 ||
        t_depth >= kMaxDepth) {
        return;
    }
    const int error = errno;
    if (const Subscribers subscribers = CopySubscribers(logKind); !subscribers.empty()) {
        errno = error;
        va_list args;
        va_start(args, format);
        (t_depth++ == 0 ? Dispatch : DispatchNested)(subscribers, level, fileName, line, format, args);
        --t_depth;
        va_end(args);
    }
    errno = error;
}

void ReplaceEscapeChar()
{
    char* message = CurrentMessage();
    const std::size_t length = std::strlen(message);
    // Without a branch and to a known end, so that the compiler takes many characters at once.
    for (std::size_t i = 0; i < length; ++i) {
        const char byte = message[i];
        const bool breaksTheLine = (byte >= '\n' && byte <= '\r') || byte == '\b' || byte == '\x7f';
        message[i] = breaksTheLine ? '_' : byte;
    }
}

void PrintDebugLargeLog(const std::string& text)
{
    for (std::size_t at = 0; at < text.size(); at += kLargeLogChunk) {
        const std::string chunk = text.substr(at, kLargeLogChunk);
        const bool more = text.size() - at > kLargeLogChunk;
        // Kept because the startup kind is written too wherever a large log is; the logger drops it.
        for (const char* kind : {NEUtils::kNormalLog, NEUtils::kStartupLog}) {
            LoggerWriteLog(kind, DEBUG, NEUTILS_FILE_NAME, __LINE__,
                           more ? "Send part largeLog.[largeLog=%s]" : "Send largeLog over.[largeLog=%s]",
                           chunk.c_str());
        }
    }
}

namespace NEUtils {

std::mutex& MessageBus::GetSubMutex()
{
    // Never destroyed: threads may log until the process is gone.
    static std::mutex& subMtx = *new std::mutex;
    return subMtx;
}

template <typename Record>
MessageBus::SubList<Record>& MessageBus::GetSubList()
{
    static auto& subList = *new SubList<Record>;
    return subList;
}

template NEUTILS_API MessageBus::SubList<const NENormalLog&>& MessageBus::GetSubList<const NENormalLog&>();

bool MessageBus::Subscribe(const std::string& kind, const std::string& name, Subscriber subscriber)
{
    const std::lock_guard<std::mutex> lock(GetSubMutex());
    auto& names = GetSubList<const NENormalLog&>()[kind];
    const bool isNew = names.count(name) == 0;
    if (isNew) {
        names[name] = std::move(subscriber);
    }
    return isNew;
}

bool MessageBus::Unsubscribe(const std::string& kind, const std::string& name)
{
    Subscriber removed;  // destroyed after the lock is gone: it may own a file or log
    const std::lock_guard<std::mutex> lock(GetSubMutex());
    auto& list = GetSubList<const NENormalLog&>();
    const auto found = list.find(kind);
    if (found == list.end()) {
        return false;
    }
    const auto entry = found->second.find(name);
    if (entry == found->second.end()) {
        return false;
    }
    removed = std::move(entry->second);
    found->second.erase(entry);
    if (found->second.empty()) {
        list.erase(found);
    }
    return true;
}

}  // namespace NEUtils
