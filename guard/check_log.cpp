#include "guard/check_log.h"

#include <cstdarg>
#include <new>

#include "util/bounded.h"
#include "util/stop_signals.h"
#include "util/thread_name.h"

namespace NEUtils {

namespace {

constexpr std::chrono::seconds kPatience{2};

}  // namespace

CheckLog& CheckLog::Get()
{
    alignas(CheckLog) static unsigned char memory[sizeof(CheckLog)];
    static auto& log = *new (memory) CheckLog;  // never destroyed: threads may log until the end
    return log;
}

bool CheckLog::Start(int& error)
{
    const StopSignalsBlocked blocked;
    const std::lock_guard<std::mutex> lock(mutex_);
    error = pthread_create(&thread_, nullptr, &CheckLog::Run, this);
    running_ = error == 0;
    return running_;
}

void CheckLog::Stop()
{
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (!running_) {
            return;
        }
        running_ = false;
    }
    wake_.notify_all();
    pthread_join(thread_, nullptr);
}

void CheckLog::Write(LogLevel level, const char* file, unsigned int line, const char* format, ...)
{
    Record record = {level, file, line, {}};
    va_list args;
    va_start(args, format);
    vsnprintf_s(record.text, std::size(record.text), format, args);
    va_end(args);
    {
        std::unique_lock<std::mutex> lock(mutex_);
        if (running_) {
            if (!Wait(lock, &CheckLog::HasSpace)) {
                ++dropped_;
                return;
            }
            ring_[(first_ + count_++) % ring_.size()] = record;
            wake_.notify_all();
            return;
        }
    }
    LoggerWriteLog(kNormalLog, level, file, line, "%s", record.text);
}

bool CheckLog::WaitUntilWritten()
{
    std::unique_lock<std::mutex> lock(mutex_);
    return Wait(lock, &CheckLog::IsWritten);
}

bool CheckLog::Wait(std::unique_lock<std::mutex>& lock, bool (CheckLog::*reached)() const)
{
    if (!(this->*reached)() && !hangs_) {
        hangs_ = !moved_.wait_for(lock, kPatience, [&] { return (this->*reached)(); });
    }
    return (this->*reached)();
}

void* CheckLog::Run(void* log)
{
    // Kept because log readers know the checker's records by this name, which each line of a log file shows.
    SetThreadName("CheckManager");
    static_cast<CheckLog*>(log)->WriteRecords();
    return nullptr;
}

void CheckLog::WriteRecords()
{
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
        wake_.wait(lock, [this] { return count_ > 0 || !running_; });
        if (count_ == 0) {
            return;
        }
        const Record record = ring_[first_];
        const std::size_t dropped = dropped_;
        lock.unlock();
        LoggerWriteLog(kNormalLog, record.level, record.file, record.line, "%s", record.text);
        if (dropped != 0) {
            NE_LOG(WARN, "Records of the checker are dropped.[count=%zu]", dropped);
        }
        lock.lock();
        first_ = (first_ + 1) % ring_.size();
        --count_;
        dropped_ -= dropped;
        hangs_ = false;
        moved_.notify_all();
    }
}

}  // namespace NEUtils
