#include "log_system.h"

#include <pthread.h>

#include <algorithm>
#include <tuple>
#include <utility>
#include <vector>

#include "frame/leveled_subscriber.h"
#include "frame/log_roll.h"
#include "frame/stop_deferral.h"
#include "util/clock.h"

namespace NEUtils {

namespace {

constexpr std::int64_t kPeriodSeconds = 86399;
constexpr char kStopping[] = "the program stops";

// The files that a fork has locked, each once: one may be registered in several places. Guarded by the registration's
// mutex.
std::array<LogSystem::LogFile*, 5> g_forkFiles;

}  // namespace

struct LogSystem::Slot {
    std::mutex slotMutex;
    std::shared_ptr<LogFile> file;
    std::string name;
    std::string kind;

    [[nodiscard]] bool InUse() const { return !name.empty() && !kind.empty(); }
};

std::atomic<unsigned int> LogSystem::maxLines_{0};
std::atomic<std::uint64_t> LogSystem::failedLines_{0};
std::atomic<std::uint64_t> LogSystem::linesOverBudget_{0};
unsigned int LogSystem::recordLines_ = 0;
std::int64_t LogSystem::refreshPoint_ = 0;
std::mutex LogSystem::linesLock_;

std::array<LogSystem::Slot, 5>& LogSystem::Slots()
{
    static auto& slots = *new std::array<Slot, 5>;  // never destroyed: threads log until the end
    return slots;
}

// Held while a place and its subscription are taken or given back together. So a pair of kind and name is taken once
// and is never subscribed without a place.
std::mutex& LogSystem::RegistrationMutex()
{
    static auto& mutex = []() -> std::mutex& {
        // A fork runs the handlers that were added last first. The registry's lock is taken last, so its handler is
        // added first.
        MessageBus::GetSubMutex();
        pthread_atfork(
            &LockForFork, [] { UnlockAfterFork(false); }, [] { UnlockAfterFork(true); });
        return *new std::mutex;
    }();
    return mutex;
}

// Fork handlers. Without them a child that is forked while another thread logs would find these locks held for ever.
void LogSystem::LockForFork()
{
    StopDeferral::Begin();
    RegistrationMutex().lock();
    auto* end = g_forkFiles.begin();
    for (Slot& slot : Slots()) {
        slot.slotMutex.lock();
        if (slot.InUse() && std::find(g_forkFiles.begin(), end, slot.file.get()) == end) {
            slot.file->LockForFork();
            *end++ = slot.file.get();
        }
    }
    std::fill(end, g_forkFiles.end(), nullptr);
    linesLock_.lock();
}

void LogSystem::UnlockAfterFork(bool isChild)
{
    linesLock_.unlock();
    for (LogFile* file : g_forkFiles) {
        if (file != nullptr) {
            file->UnlockAfterFork(isChild);
        }
    }
    for (Slot& slot : Slots()) {
        slot.slotMutex.unlock();
    }
    RegistrationMutex().unlock();
    StopDeferral::End();
}

// Gives the reason of a refusal, or null.
const char* LogSystem::AddToSlot(std::shared_ptr<LogFile> file, const std::string& kind, const std::string& name,
                                 Formatter formatter)
{
    const FrameLock registration(RegistrationMutex());
    if (!registration) {
        return kStopping;
    }
    if (file->abandoned_) {
        return "the file was in use elsewhere when this process was forked";
    }
    Slot* free = nullptr;
    for (Slot& slot : Slots()) {
        const FrameLock lock(slot.slotMutex);
        if (!lock) {
            return kStopping;
        }
        if (!slot.InUse()) {
            free = free == nullptr ? &slot : free;
        } else if (slot.kind == kind && slot.name == name) {
            return "the kind and the name are in use";
        }
    }
    if (free == nullptr) {
        return "all five places are taken";
    }
    const FrameLock lock(free->slotMutex);
    if (!lock) {
        return kStopping;
    }
    const bool wasRetired = file->retired_.exchange(false);
    const bool subscribed = SubscribeFromLevel(
        file->minLevel_, kind, name,
        [file, formatter = std::move(formatter)](const NENormalLog& record) { file->WriteLog(formatter, record); });
    if (!subscribed) {
        file->retired_ = wasRetired;
        return "the kind and the name are in use";
    }
    free->file = std::move(file);
    free->name = name;
    free->kind = kind;
    return nullptr;
}

bool LogSystem::Register(std::shared_ptr<LogFile> file, const std::string& kind, const std::string& name,
                         Formatter formatter)
{
    if (StopDeferral::IsInterrupted()) {
        return false;
    }
    const StopDeferral untilRegistered;
    const std::string path = file == nullptr ? std::string() : file->filePath_;
    const char* fault = nullptr;
    if (file == nullptr) {
        fault = "no file is given";
    } else if (kind.empty() || name.empty()) {
        fault = "the kind or the name is empty";
    } else {
        fault = LogRoll::PathFault(path);
    }
    if (fault == nullptr) {
        fault = AddToSlot(std::move(file), kind, name, std::move(formatter));
    }
    if (fault != nullptr) {
        NE_LOG(ERROR, "Unable to register log file.[kind=%s name=%s filePath=%s reason=%s]", kind.c_str(), name.c_str(),
               path.c_str(), fault);
    }
    return fault == nullptr;
}

bool LogSystem::UpdateLogConfig(const std::string& name, unsigned int minLevel, unsigned int maxFileSize,
                                unsigned int rollCount)
{
    for (Slot& slot : Slots()) {
        const FrameLock lock(slot.slotMutex);
        if (lock && slot.InUse() && slot.name == name) {
            slot.file->SetLimits(minLevel, maxFileSize, rollCount);
            return true;
        }
    }
    return false;
}

void LogSystem::SetGlobalRecordLines(unsigned int lines)
{
    maxLines_ = lines;
    NE_LOG(INFO, "Configure the maximum number of rows.[maxLogLines = %zu]", static_cast<std::size_t>(lines));
}

bool LogSystem::Unregister(const std::string& name)
{
    const StopDeferral untilClosed;
    std::shared_ptr<LogFile> file;
    std::string kind;
    if (const FrameLock registration(RegistrationMutex()); registration) {
        for (Slot& slot : Slots()) {
            const FrameLock lock(slot.slotMutex);
            if (lock && file == nullptr && slot.InUse() && slot.name == name) {
                file = std::move(slot.file);
                kind = std::move(slot.kind);
                slot.name.clear();
                slot.kind.clear();
            }
        }
    }
    if (file == nullptr) {
        return false;
    }
    // Without the locks, since both wait: for the lines under way, and for a roll.
    MessageBus::UnsubscribeAndWait(kind, name);
    file->retired_ = true;
    file->CloseRetired();
    return true;
}

void LogSystem::CloseAllLogFile()
{
    const StopDeferral untilClosed;
    std::vector<std::tuple<std::string, std::string, std::shared_ptr<LogFile>>> closed;
    if (const FrameLock registration(RegistrationMutex()); registration) {
        for (Slot& slot : Slots()) {
            const FrameLock lock(slot.slotMutex);
            if (lock && slot.InUse()) {
                slot.file->retired_ = true;
                closed.emplace_back(std::move(slot.kind), std::move(slot.name), std::move(slot.file));
                slot.name.clear();
                slot.kind.clear();
            }
        }
    }
    // Without the locks, since the first destroys the formatter with what it captured, and the second waits for a roll.
    for (const auto& [kind, name, file] : closed) {
        MessageBus::Unsubscribe(kind, name);
        file->CloseRetired();
    }
}

bool LogSystem::SpendLine()
{
    const unsigned int limit = maxLines_;
    if (limit == 0) {
        return true;
    }
    const FrameLock lock(linesLock_);
    if (!lock) {
        return false;
    }
    const std::int64_t now = Clock::WallSeconds();
    if (refreshPoint_ == 0 || now - refreshPoint_ > kPeriodSeconds) {
        refreshPoint_ = now;
        recordLines_ = 0;
    }
    if (recordLines_ >= limit) {
        ++linesOverBudget_;
        return false;
    }
    ++recordLines_;
    return true;
}

std::uint64_t LogSystem::GetFailedLineCount()
{
    return failedLines_;
}

std::uint64_t LogSystem::GetLinesOverBudget()
{
    return linesOverBudget_;
}

bool LogSystem::IsBudgetUsedUp()
{
    const unsigned int limit = maxLines_;
    const FrameLock lock(linesLock_);
    return lock && limit != 0 && recordLines_ >= limit && Clock::WallSeconds() - refreshPoint_ <= kPeriodSeconds;
}

}  // namespace NEUtils
