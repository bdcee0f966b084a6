#include "logger.h"

#include <pthread.h>

#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <memory>
#include <new>
#include <utility>
#include <vector>

#include "frame/leveled_subscriber.h"
#include "frame/stop_deferral.h"
#include "util/bounded.h"
#include "util/call_gate.h"

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

// A subscriber as the registry holds it. Its copies, one a record under way, share the callable, so that
// UnsubscribeAndWait can wait for their calls and destroy it before its code is unloaded.
struct GatedSubscriber {
    struct Shared {
        Shared(NEUtils::MessageBus::Subscriber subscriber, const std::atomic<unsigned int>* lowest)
            : call(std::move(subscriber)), minLevel(lowest)
        {
        }
        NEUtils::MessageBus::Subscriber call;
        const std::atomic<unsigned int>* const minLevel;  // read under the registry's lock; null: all levels
        NEUtils::CallGate gate;
    };

    void operator()(const NENormalLog& record) const
    {
        shared->gate.Call([&] { shared->call(record); });
    }

    std::shared_ptr<Shared> shared;
};

// Whether a subscriber of the registry takes records of a level.
bool Takes(const NEUtils::MessageBus::Subscriber& subscriber, LogLevel level)
{
    const auto* gated = subscriber.target<GatedSubscriber>();
    const auto* minLevel = gated == nullptr ? nullptr : gated->shared->minLevel;
    return minLevel == nullptr || static_cast<unsigned int>(level) >= *minLevel;
}

// The subscribers of one kind as they are now, but for those that do not take the level. Copying these alone shows
// callers the same as copying the whole registry would, and they run without the lock.
Subscribers CopySubscribers(const char* logKind, LogLevel level)
try {
    using NEUtils::MessageBus;
    Subscribers copies;
    const std::string kind(logKind);
    const NEUtils::FrameLock lock(MessageBus::GetSubMutex());
    if (!lock) {
        return copies;
    }
    const auto& list = MessageBus::GetSubList<const NENormalLog&>();
    const auto found = list.find(kind);
    if (found != list.end()) {
        for (const auto& [name, subscriber] : found->second) {
            if (Takes(subscriber, level)) {
                copies.push_back(subscriber);
            }
        }
    }
    return copies;
} catch (const std::bad_alloc&) {
    return {};  // the record is lost; the process is not
}

// localtime_r takes the time zone's lock, which a fork leaves as it is. A fork waits for this one instead.
std::mutex g_timeMutex;

// Breaks the time down once a second and thread.
bool LocalTime(struct tm& out)
{
    thread_local time_t second = 0;
    thread_local struct tm broken = {};
    thread_local bool known = false;
    const time_t now = std::time(nullptr);
    if (!known || now != second) {
        known = false;
        const NEUtils::FrameLock lock(g_timeMutex);
        known = lock && localtime_r(&now, &broken) != nullptr;
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

// For a subscriber that logs: the record that it was given stays in the outer buffer, since the new arguments may
// point into it. A function of its own, so that the common path has no second buffer on its stack.
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
    // Kept because the startup kind is a name to register files under and no more: its records are dropped.
    if (format == nullptr || logKind == nullptr || std::strcmp(logKind, NEUtils::kStartupLog) == 0 ||
        t_depth >= kMaxDepth || NEUtils::StopDeferral::IsInterrupted()) {
        return;
    }
    const NEUtils::StopDeferral untilWritten;
    const int error = errno;
    if (const Subscribers subscribers = CopySubscribers(logKind, level); !subscribers.empty()) {
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
    // Without a branch and to a known end, so that the compiler handles many characters at once.
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

namespace {

// Fork handlers. Without them a child that is forked while another thread logs would find the registry, or the time
// zone, locked for ever.
void LockForFork()
{
    StopDeferral::Begin();
    MessageBus::GetSubMutex().lock();
    g_timeMutex.lock();
}

void UnlockInParent()
{
    g_timeMutex.unlock();
    MessageBus::GetSubMutex().unlock();
    StopDeferral::End();
}

void UnlockInChild()
{
    for (auto& [kind, names] : MessageBus::GetSubList<const NENormalLog&>()) {
        for (auto& [name, subscriber] : names) {
            if (const auto* gated = subscriber.target<GatedSubscriber>()) {
                gated->shared->gate.ForgetOtherThreads();
            }
        }
    }
    UnlockInParent();
}

}  // namespace

std::mutex& MessageBus::GetSubMutex()
{
    // Never destroyed: threads may log until the process is gone.
    static std::mutex& subMtx = []() -> std::mutex& {
        pthread_atfork(&LockForFork, &UnlockInParent, &UnlockInChild);
        return *new std::mutex;
    }();
    return subMtx;
}

template <typename Record>
MessageBus::SubList<Record>& MessageBus::GetSubList()
{
    static auto& subList = *new SubList<Record>;
    return subList;
}

template NEUTILS_API MessageBus::SubList<const NENormalLog&>& MessageBus::GetSubList<const NENormalLog&>();

namespace {

bool Add(const std::string& kind, const std::string& name, MessageBus::Subscriber subscriber,
         const std::atomic<unsigned int>* minLevel)
{
    const StopDeferral untilAdded;
    GatedSubscriber gated{std::make_shared<GatedSubscriber::Shared>(std::move(subscriber), minLevel)};
    const FrameLock lock(MessageBus::GetSubMutex());
    auto& list = MessageBus::GetSubList<const NENormalLog&>();
    return lock && list[kind].try_emplace(name, std::move(gated)).second;
}

// Takes a subscriber out of the registry. The caller destroys it, without the lock: it may own a file, or log.
bool TakeOut(const std::string& kind, const std::string& name, MessageBus::Subscriber& removed)
{
    const FrameLock lock(MessageBus::GetSubMutex());
    if (!lock) {
        return false;
    }
    auto& list = MessageBus::GetSubList<const NENormalLog&>();
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

}  // namespace

bool MessageBus::Subscribe(const std::string& kind, const std::string& name, Subscriber subscriber)
{
    return Add(kind, name, std::move(subscriber), nullptr);
}

bool SubscribeFromLevel(const std::atomic<unsigned int>& minLevel, const std::string& kind, const std::string& name,
                        MessageBus::Subscriber subscriber)
{
    return Add(kind, name, std::move(subscriber), &minLevel);
}

bool MessageBus::Unsubscribe(const std::string& kind, const std::string& name)
{
    const StopDeferral untilDestroyed;
    Subscriber removed;
    return TakeOut(kind, name, removed);
}

bool MessageBus::UnsubscribeAndWait(const std::string& kind, const std::string& name)
{
    const StopDeferral untilDestroyed;
    Subscriber removed;
    if (!TakeOut(kind, name, removed)) {
        return false;
    }
    const auto* gated = removed.target<GatedSubscriber>();
    // Records under way elsewhere may still hold copies. The closed gate keeps them from the callable.
    if (gated != nullptr && gated->shared->gate.Close() == 0) {
        gated->shared->call = nullptr;
    }
    return true;
}

}  // namespace NEUtils
