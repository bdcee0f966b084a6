#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <new>
#include <utility>

#include "frame/log_roll.h"
#include "frame/stop_deferral.h"
#include "log_system.h"
#include "util/bounded.h"
#include "util/clock.h"
#include "util/errno_text.h"

namespace NEUtils {

namespace {

constexpr unsigned int kLineSize = 4224;
constexpr unsigned int kWritesPerSizeCheck = 49;
constexpr mode_t kLiveMode = 0640;
constexpr std::int64_t kFirstRollPauseNs = Clock::kNsPerSecond;
constexpr std::int64_t kLongestRollPauseNs = 60 * Clock::kNsPerSecond;
constexpr std::int64_t kForkWaitNs = Clock::kNsPerSecond;
constexpr std::int64_t kSlowSeconds = 10;

// The status of an open file, as far as it tells that the file is still the one that was opened and has a name. statx
// asks for that alone, which makes the write that follows cheaper than fstat does. fstat serves where the kernel has no
// statx.
bool ReadIdentity(int fd, struct stat& identity)
{
#ifdef STATX_NLINK
    constexpr unsigned int kWanted = STATX_NLINK | STATX_INO;
    struct statx status = {};
    if (statx(fd, "", AT_EMPTY_PATH, kWanted, &status) == 0 && (status.stx_mask & kWanted) == kWanted) {
        identity.st_nlink = status.stx_nlink;
        identity.st_ino = status.stx_ino;
        identity.st_dev = makedev(status.stx_dev_major, status.stx_dev_minor);
        return true;
    }
#endif
    return fstat(fd, &identity) == 0;
}

}  // namespace

LogSystem::LogFile::LogFile(std::string filePath, unsigned int minLevel, unsigned int maxFileSize,
                            unsigned int rollCount)
    : filePath_(std::move(filePath)), minLevel_(minLevel), maxFileSize_(maxFileSize), rollCount_(rollCount)
{
}

LogSystem::LogFile::~LogFile()
{
    if (!abandoned_) {
        CloseStream();
    }
}

void LogSystem::LogFile::SetLimits(unsigned int minLevel, unsigned int maxFileSize, unsigned int rollCount)
{
    minLevel_ = minLevel;
    maxFileSize_ = maxFileSize;
    rollCount_ = rollCount;
}

void LogSystem::LogFile::CloseRetired()
{
    if (abandoned_) {
        return;
    }
    const FrameLock lock(fileMutex_);
    if (lock && retired_) {  // unless it has been registered again meanwhile
        CloseStream();
    }
}

void LogSystem::LogFile::CloseStream()
{
    if (stream_ != nullptr) {
        static_cast<void>(std::fclose(stream_));
        stream_ = nullptr;
    }
}

void LogSystem::LogFile::WriteLog(const Formatter& formatter, const NENormalLog& record)
{
    if (retired_ || static_cast<unsigned int>(record.level) < minLevel_) {
        return;
    }
    // Kept before rendering because the budget counts records: one that fails to convert has spent its line too.
    if (!SpendLine()) {
        return;
    }
    char line[kLineSize];  // on the stack, so a formatter that logs cannot overwrite it
    unsigned int length = formatter(record, line, std::size(line));
    if (length == 0 || length >= std::size(line)) {
        const int written =
            snprintf_s(line, std::size(line), "[ERROR] Log conversion failed.[\n%s:%u]", record.fileName, record.line);
        if (written < 0) {
            return;
        }
        length = static_cast<unsigned int>(written);
    }
    FlushLogStream(line, length);
}

bool LogSystem::LogFile::FlushLogStream(const char* data, unsigned int length)
{
    if (abandoned_ || StopDeferral::IsInterrupted()) {
        return false;
    }
    const FrameLock lock(fileMutex_);
    if (!lock) {
        CountFailure(EBUSY);
        return false;
    }
    if (retired_) {
        return false;
    }
    busySinceNs_ = Clock::MonotonicNs();
    // Kept at every 50th write because the check costs a look at the path.
    if (++writeCount_ > kWritesPerSizeCheck) {
        CheckFileMaxSize();
        writeCount_ = 0;
    }
    if (!IsFileStreamVaild()) {
        CloseStream();
    }
    const bool isOpen = CheckLogInfo();
    if (isOpen) {
        AppendLine(data, length);
    } else {
        CountFailure(errno);
    }
    busySinceNs_ = 0;
    // Kept because callers ask whether the file could be opened: true also where the disk did not take the line.
    return isOpen;
}

void LogSystem::LogFile::AppendLine(const char* data, unsigned int length)
{
    // Where the disk took a part of the last line only, this one begins on a line of its own.
    bool written = !endsInPiece_ || putc_unlocked('\n', stream_) != EOF;
    written = written && fwrite_unlocked(data, 1, length, stream_) == length;
    int error = errno;
    if (fflush_unlocked(stream_) != 0) {
        error = errno;
        written = false;
    }
    if (written) {
        endsInPiece_ = false;
        lastError_ = 0;
        return;
    }
    const int fd = fileno_unlocked(stream_);
    struct stat status = {};
    char last = '\n';
    endsInPiece_ =
        fstat(fd, &status) == 0 && status.st_size > 0 && pread(fd, &last, 1, status.st_size - 1) == 1 && last != '\n';
    clearerr_unlocked(stream_);
    CountFailure(error);
}

void LogSystem::LogFile::CountFailure(int error)
{
    ++failedLines_;
    ++LogSystem::failedLines_;
    lastError_ = error;
}

std::uint64_t LogSystem::LogFile::GetFailedLineCount() const
{
    return failedLines_;
}

std::string LogSystem::LogFile::GetFault() const
{
    const std::int64_t since = busySinceNs_;
    const std::int64_t seconds = since == 0 ? 0 : (Clock::MonotonicNs() - since) / Clock::kNsPerSecond;
    if (seconds >= kSlowSeconds) {
        return "a line has been waiting for " + std::to_string(seconds) + " s for the disk or for gzip";
    }
    const int error = lastError_;
    if (error == EEXIST) {
        return "the old file cannot be rolled away";
    }
    return error == 0 ? "" : ErrnoText(error).Get();
}

// Before a fork: waits until the line under way is written, but not for a roll that hangs.
void LogSystem::LogFile::LockForFork()
{
    const std::int64_t end = Clock::MonotonicNs() + kForkWaitNs;
    while (!(forkLocked_ = fileMutex_.try_lock()) && Clock::MonotonicNs() < end) {
        Clock::SleepNs(Clock::kNsPerMs);
    }
}

void LogSystem::LogFile::UnlockAfterFork(bool isChild)
{
    if (forkLocked_) {
        forkLocked_ = false;
        fileMutex_.unlock();
    } else if (isChild) {  // the thread that would unlock it does not exist here
        abandoned_ = true;
        retired_ = true;
    }
}

bool LogSystem::LogFile::IsFileStreamVaild() const
{
    if (stream_ == nullptr) {
        return true;
    }
    const int fd = fileno_unlocked(stream_);
    struct stat status = {};
    if (fd < 0 || !ReadIdentity(fd, status) || status.st_nlink == 0) {
        return false;
    }
    // The flags of the file that was opened are known. Those of another one that has its descriptor by now tell whether
    // a line could be written to it.
    const bool isOpened = status.st_ino == inode_ && status.st_dev == device_ && lastError_ == 0;
    return isOpened || fcntl(fd, F_GETFL) != 0;
}

bool LogSystem::LogFile::IsLogFileValid() const
{
    struct stat status = {};
    return lstat(filePath_.c_str(), &status) == 0 && !S_ISDIR(status.st_mode) && !S_ISLNK(status.st_mode) &&
           status.st_nlink <= 1 && status.st_uid == getuid() && status.st_gid == getgid();
}

bool LogSystem::LogFile::CheckLogInfo()
{
    if (stream_ != nullptr) {
        return true;
    }
    if (LogRoll::PathFault(filePath_) != nullptr) {  // opening may roll, and the path would reach the shell
        errno = EINVAL;
        return false;
    }
    // Kept exclusive because each start is to begin a new file: what is there is never appended to. The same as mode
    // "a+x", but the file has its final mode from the first moment on.
    const auto create = [this]() -> std::FILE* {
        const int fd = open(filePath_.c_str(), O_RDWR | O_CREAT | O_EXCL | O_APPEND | O_CLOEXEC, kLiveMode);
        std::FILE* stream = fd < 0 ? nullptr : fdopen(fd, "a+");
        if (fd >= 0 && stream == nullptr) {
            const int error = errno;
            close(fd);
            errno = error;
        }
        return stream;
    };
    stream_ = create();
    if (stream_ == nullptr) {
        RollFilesDuringRetart();
        stream_ = create();
    }
    if (stream_ == nullptr) {
        return false;
    }
    const int fd = fileno_unlocked(stream_);
    struct stat status = {};
    if (fstat(fd, &status) != 0 || fchmod(fd, kLiveMode) != 0) {
        const int error = errno;
        CloseStream();
        errno = error;
        return false;
    }
    inode_ = status.st_ino;
    device_ = status.st_dev;
    endsInPiece_ = false;
    rollPauseNs_ = nextRollNs_ = 0;  // nothing is left to roll away
    fileSize_ = static_cast<std::uint64_t>(status.st_size);
    return true;
}

void LogSystem::LogFile::RollFilesDuringRetart()
{
    // Without copies to keep there is nothing to compress either.
    if (!IsLogFileValid() || rollCount_ == 0) {
        static_cast<void>(std::remove(filePath_.c_str()));
        return;
    }
    RollWhenDue();
}

void LogSystem::LogFile::CheckFileMaxSize()
{
    const unsigned int limit = maxFileSize_;
    if (limit == 0) {
        return;
    }
    struct stat status = {};
    if (lstat(filePath_.c_str(), &status) == 0) {
        fileSize_ = static_cast<std::uint64_t>(status.st_size);
    }
    if (stream_ == nullptr || fileSize_ <= limit) {
        return;
    }
    const unsigned int count = rollCount_;
    // By the descriptor, since the name may lead elsewhere by now.
    if (count == 0 && ftruncate(fileno_unlocked(stream_), 0) == 0) {
        fileSize_ = 0;
    }
    CloseStream();
    if (count != 0) {
        RollWhenDue();
    }
}

void LogSystem::LogFile::RollFiles(const std::string& path, unsigned int count) const
{
    static_cast<void>(LogRoll::Roll(path, count));
}

// On a full disk gzip reads the whole file before it fails, so it does not run again with every record.
void LogSystem::LogFile::RollWhenDue()
{
    if (Clock::MonotonicNs() < nextRollNs_) {
        return;
    }
    bool rolled = false;
    try {
        rolled = LogRoll::Roll(filePath_, rollCount_);
    } catch (const std::bad_alloc&) {
    }
    rollPauseNs_ = rolled ? 0 : std::clamp(2 * rollPauseNs_, kFirstRollPauseNs, kLongestRollPauseNs);
    nextRollNs_ = rolled ? 0 : Clock::MonotonicNs() + rollPauseNs_;
}

}  // namespace NEUtils
