#include "log_system.h"

#include <cstring>
#include <utility>
#include <vector>

#include "util/clock.h"

namespace NEUtils {

namespace {

constexpr std::int64_t kPeriodSeconds = 86399;

const char* PathFault(const std::string& path)
{
    if (path.empty() || path[0] == '-') {
        return "the path is empty or begins with a minus";
    }
    for (const char byte : path) {
        const auto code = static_cast<unsigned char>(byte);
        if (code <= ' ' || code == 0x7f || std::strchr("|&;<>()$`\\\"'*?[]#~!{}^", byte) != nullptr) {
            return "the path holds a blank or a character special to the shell";
        }
    }
    return nullptr;
}

}  // namespace

struct LogSystem::Slot {
    std::mutex slotMutex;
    std::shared_ptr<LogFile> file;
    std::string name;
    std::string kind;

    [[nodiscard]] bool InUse() const { return !name.empty() && !kind.empty(); }
};

std::atomic<unsigned int> LogSystem::maxLines_{0};
unsigned int LogSystem::recordLines_ = 0;
std::int64_t LogSystem::refreshPoint_ = 0;
std::mutex LogSystem::linesLock_;

std::array<LogSystem::Slot, 5>& LogSystem::Slots()
{
    static auto& slots = *new std::array<Slot, 5>;  // never destroyed: threads log until the end
    return slots;
}

// Held while places are taken or given back together with their subscription, so that a pair of kind
// and name is taken once and never left subscribed without a place.
std::mutex& LogSystem::RegistrationMutex()
{
    static auto& mutex = *new std::mutex;
    return mutex;
}

// Gives the reason of a refusal, or null.
const char* LogSystem::TakeSlot(std::shared_ptr<LogFile> file, const std::string& kind, const std::string& name,
                                Formatter formatter)
{
    const std::lock_guard<std::mutex> registration(RegistrationMutex());
    Slot* free = nullptr;
    for (Slot& slot : Slots()) {
        const std::lock_guard<std::mutex> lock(slot.slotMutex);
        if (!slot.InUse()) {
            free = free == nullptr ? &slot : free;
        } else if (slot.kind == kind && slot.name == name) {
            return "the kind and the name are in use";
        }
    }
    if (free == nullptr) {
        return "all five places are taken";
    }
    const bool wasRetired = file->retired_.exchange(false);
    const bool subscribed = MessageBus::Subscribe(
        kind, name,
        [file, formatter = std::move(formatter)](const NENormalLog& record) { file->WriteLog(formatter, record); });
    if (!subscribed) {
        file->retired_ = wasRetired;
        return "the kind and the name are in use";
    }
    const std::lock_guard<std::mutex> lock(free->slotMutex);
    free->file = std::move(file);
    free->name = name;
    free->kind = kind;
    return nullptr;
}

bool LogSystem::Register(std::shared_ptr<LogFile> file, const std::string& kind, const std::string& name,
                         Formatter formatter)
{
    const std::string path = file == nullptr ? std::string() : file->filePath_;
    const char* fault = nullptr;
    if (file == nullptr) {
        fault = "no file is given";
    } else if (kind.empty() || name.empty()) {
        fault = "the kind or the name is empty";
    } else {
        fault = PathFault(path);
    }
    if (fault == nullptr) {
        fault = TakeSlot(std::move(file), kind, name, std::move(formatter));
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
        const std::lock_guard<std::mutex> lock(slot.slotMutex);
        if (slot.InUse() && slot.name == name) {
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

void LogSystem::CloseAllLogFile()
{
    std::vector<std::shared_ptr<LogFile>> files;
    {
        const std::lock_guard<std::mutex> registration(RegistrationMutex());
        for (Slot& slot : Slots()) {
            const std::lock_guard<std::mutex> lock(slot.slotMutex);
            if (slot.InUse()) {
                MessageBus::Unsubscribe(slot.kind, slot.name);
                slot.file->retired_ = true;
                files.push_back(std::move(slot.file));
                slot.name.clear();
                slot.kind.clear();
            }
        }
    }
    for (const auto& file : files) {
        file->CloseRetired();  // waits for a roll, so outside the locks
    }
}

bool LogSystem::SpendLine()
{
    const unsigned int limit = maxLines_;
    if (limit == 0) {
        return true;
    }
    const std::lock_guard<std::mutex> lock(linesLock_);
    const std::int64_t now = Clock::WallSeconds();
    if (refreshPoint_ == 0 || now - refreshPoint_ > kPeriodSeconds) {
        refreshPoint_ = now;
        recordLines_ = 0;
    }
    if (recordLines_ >= limit) {
        return false;
    }
    ++recordLines_;
    return true;
}

}  // namespace NEUtils
