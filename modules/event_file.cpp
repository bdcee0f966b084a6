#include "event_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <mutex>
#include <utility>

#include "hips_guard.h"
#include "logger.h"
#include "pool_job.h"
#include "thread_pool.h"
#include "util/clock.h"
#include "util/errno_text.h"
#include "util/rate_limiter.h"
#include "util/unique_fd.h"

namespace NEUtils {

namespace {

constexpr std::size_t kMaxWaiting = 4U << 20U;
constexpr std::int64_t kLogPeriodMs = 60000;
constexpr std::int64_t kRetryNs = Clock::kNsPerSecond;
constexpr mode_t kMode = 0640;

std::string Fault(const std::string& path, const char* what, int error)
{
    return path + " " + what + ": " + ErrnoText(error).Get();
}

std::string CopyOf(const std::string& path, unsigned int number)
{
    return path + "." + std::to_string(number);
}

}  // namespace

// The lines wait under one lock; the file, and what is taken for it, belong to whoever holds the other.
class EventFile::Writer {
public:
    std::string Open(const Settings& settings);
    void Close();
    bool Write(const std::string& line);
    Figures GetFigures() const;
    std::string GetFault();
    std::string GetPath() const;

private:
    void WriteAll();
    bool Take();
    std::string WriteTaken();
    std::string Prepare(std::size_t& done);
    std::size_t FittingLength(std::size_t start) const;
    std::string OpenFile();
    std::string CheckFile();
    std::string Roll();
    void DropCutLine(std::size_t& done);
    void LogFault(const std::string& fault);

    mutable std::mutex mutex_;
    std::string waiting_;
    std::string fault_;
    std::uint64_t dropped_ = 0;
    std::uint64_t written_ = 0;
    std::size_t takenSize_ = 0;
    std::string openPath_;  // empty: none

    std::mutex fileMutex_;  // before mutex_
    Settings settings_;
    UniqueFd file_;
    std::uint64_t size_ = 0;
    std::string taken_;        // lines under way; the first one may be cut
    bool atLineStart_ = true;  // of the file's end
    std::int64_t retryAtNs_ = 0;
    RateLimiter faultLogs_{kLogPeriodMs};
    PoolJob job_;
};

std::string EventFile::Writer::Open(const Settings& settings)
{
    Close();
    {
        const std::lock_guard<std::mutex> fileLock(fileMutex_);
        settings_ = settings;
        std::string fault = OpenFile();
        if (!fault.empty()) {
            return fault;
        }
    }
    job_.Start(ThreadPool::GetInstance(), "event-file", [this] { WriteAll(); });
    const std::lock_guard<std::mutex> lock(mutex_);
    openPath_ = settings.path;
    fault_.clear();
    return {};
}

void EventFile::Writer::Close()
{
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (openPath_.empty()) {
            return;
        }
        openPath_.clear();
    }
    job_.Stop();
    WriteAll();
    const std::lock_guard<std::mutex> fileLock(fileMutex_);
    file_.Reset();
    const std::lock_guard<std::mutex> lock(mutex_);
    dropped_ += static_cast<std::uint64_t>(std::count(taken_.begin(), taken_.end(), '\n') +
                                           std::count(waiting_.begin(), waiting_.end(), '\n'));
    taken_.clear();
    waiting_.clear();
    takenSize_ = 0;
}

bool EventFile::Writer::Write(const std::string& line)
{
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (openPath_.empty()) {
            return false;
        }
        if (waiting_.size() + takenSize_ + line.size() >= kMaxWaiting) {
            ++dropped_;
            return false;
        }
        waiting_.append(line).push_back('\n');
    }
    job_.Request();  // where the pool refuses, the next line or GetFault asks again
    return true;
}

EventFile::Figures EventFile::Writer::GetFigures() const
{
    const std::lock_guard<std::mutex> lock(mutex_);
    return {written_, dropped_, waiting_.size() + takenSize_};
}

// Lines that wait may wait for a disk that has room again, or for a place in the pool.
std::string EventFile::Writer::GetFault()
{
    std::string fault;
    bool hasLines = false;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        fault = fault_;
        hasLines = waiting_.size() + takenSize_ > 0;
    }
    if (hasLines) {
        job_.Request();
    }
    return fault;
}

std::string EventFile::Writer::GetPath() const
{
    const std::lock_guard<std::mutex> lock(mutex_);
    return openPath_;
}

void EventFile::Writer::WriteAll()
{
    std::string fault;
    {
        const std::lock_guard<std::mutex> fileLock(fileMutex_);
        if (Clock::MonotonicNs() < retryAtNs_ && !job_.IsStopping()) {
            return;
        }
        while (fault.empty() && Take()) {
            fault = WriteTaken();
            KeepCurrentThreadAlive();
        }
        retryAtNs_ = fault.empty() ? 0 : Clock::MonotonicNs() + kRetryNs;
    }
    LogFault(fault);
}

// More lines only when those before are in the file.
bool EventFile::Writer::Take()
{
    const std::lock_guard<std::mutex> lock(mutex_);
    if (taken_.empty()) {
        taken_.swap(waiting_);
    }
    takenSize_ = taken_.size();
    return !taken_.empty();
}

std::string EventFile::Writer::WriteTaken()
{
    std::uint64_t lines = 0;
    std::size_t done = 0;
    std::string fault;
    while (done < taken_.size() && (fault = Prepare(done)).empty()) {
        const ssize_t count = write(file_.Get(), taken_.data() + done, FittingLength(done));
        const int error = errno;
        if (count < 0 && error == EINTR) {
            continue;
        }
        if (count <= 0) {
            fault = Fault(settings_.path, "cannot be written", count < 0 ? error : ENOSPC);
            break;
        }
        const auto* const from = taken_.data() + done;
        lines += static_cast<std::uint64_t>(std::count(from, from + count, '\n'));
        done += static_cast<std::size_t>(count);
        size_ += static_cast<std::uint64_t>(count);
        atLineStart_ = taken_[done - 1] == '\n';
    }
    taken_.erase(0, done);
    const std::lock_guard<std::mutex> lock(mutex_);
    takenSize_ = taken_.size();
    written_ += lines;
    return fault;
}

// The whole lines from there on that the file has room for, one at least.
std::size_t EventFile::Writer::FittingLength(std::size_t start) const
{
    const std::size_t all = taken_.size() - start;
    if (settings_.maxSize == 0 || size_ + all <= settings_.maxSize) {
        return all;
    }
    const auto room = static_cast<std::size_t>(settings_.maxSize - std::min(size_, settings_.maxSize));
    const std::size_t last = room == 0 ? std::string::npos : taken_.rfind('\n', start + room - 1);
    return (last == std::string::npos || last < start ? taken_.find('\n', start) : last) + 1 - start;
}

// The file is the one that the path names, and has room.
std::string EventFile::Writer::Prepare(std::size_t& done)
{
    struct stat named = {};
    struct stat opened = {};
    const bool isNamed = file_.IsValid() && fstat(file_.Get(), &opened) == 0 &&
                         lstat(settings_.path.c_str(), &named) == 0 && named.st_dev == opened.st_dev &&
                         named.st_ino == opened.st_ino;
    if (!isNamed) {
        DropCutLine(done);
        return OpenFile();
    }
    size_ = static_cast<std::uint64_t>(opened.st_size);  // somebody may have cut it
    const std::uint64_t next = taken_.find('\n', done) + 1 - done;
    const bool isFull = settings_.maxSize != 0 && size_ > 0 && size_ + next > settings_.maxSize;
    return atLineStart_ && isFull ? Roll() : std::string();
}

// Its beginning is in a file that is somewhere else now.
void EventFile::Writer::DropCutLine(std::size_t& done)
{
    if (!atLineStart_) {
        done = taken_.find('\n', done) + 1;
        atLineStart_ = true;
        const std::lock_guard<std::mutex> lock(mutex_);
        ++dropped_;
    }
}

std::string EventFile::Writer::OpenFile()
{
    // A FIFO must not hold the start.
    const int flags = O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY;
    file_.Reset(open(settings_.path.c_str(), flags, kMode));
    const int error = errno;
    std::string fault = file_.IsValid() ? CheckFile() : Fault(settings_.path, "cannot be opened", error);
    if (!fault.empty()) {
        file_.Reset();
    }
    return fault;
}

std::string EventFile::Writer::CheckFile()
{
    struct stat status = {};
    if (fstat(file_.Get(), &status) != 0) {
        return Fault(settings_.path, "cannot be looked at", errno);
    }
    if (!S_ISREG(status.st_mode) || status.st_uid != geteuid() || status.st_nlink != 1) {
        return settings_.path + " is not a regular file of this user with one name";
    }
    size_ = static_cast<std::uint64_t>(status.st_size);
    char last = '\n';
    if (size_ > 0 && pread(file_.Get(), &last, 1, status.st_size - 1) == 1 && last != '\n' &&
        write(file_.Get(), "\n", 1) != 1) {  // a crash has cut its last line
        return Fault(settings_.path, "cannot be written", errno);
    }
    return {};
}

// Only copies that there are move up.
std::string EventFile::Writer::Roll()
{
    const std::string& path = settings_.path;
    unsigned int last = 1;
    while (last <= settings_.copies && access(CopyOf(path, last).c_str(), F_OK) == 0) {
        ++last;
    }
    for (unsigned int number = std::min(last, settings_.copies); number > 1; --number) {
        std::rename(CopyOf(path, number - 1).c_str(), CopyOf(path, number).c_str());
    }
    const bool moved =
        settings_.copies == 0 ? unlink(path.c_str()) == 0 : std::rename(path.c_str(), CopyOf(path, 1).c_str()) == 0;
    return moved ? OpenFile() : Fault(path, "cannot be rolled", errno);
}

void EventFile::Writer::LogFault(const std::string& fault)
{
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        fault_ = fault;
    }
    if (!fault.empty() && faultLogs_.Allow(Clock::MonotonicNs() / Clock::kNsPerMs)) {
        NE_LOG(ERROR, "Events cannot be written.[reason=%s]", fault.c_str());
    }
}

EventFile& EventFile::GetInstance()
{
    static auto& file = *new EventFile;
    return file;
}

EventFile::EventFile() : writer_(std::make_unique<Writer>()) {}

EventFile::~EventFile()
{
    Close();
}

std::string EventFile::Open(const Settings& settings)
{
    return writer_->Open(settings);
}

void EventFile::Close()
{
    writer_->Close();
}

bool EventFile::IsOpen() const
{
    return !writer_->GetPath().empty();
}

std::string EventFile::GetPath() const
{
    return writer_->GetPath();
}

bool EventFile::Write(const std::string& line)
{
    return writer_->Write(line);
}

EventFile::Figures EventFile::GetFigures() const
{
    return writer_->GetFigures();
}

std::string EventFile::GetFault() const
{
    return writer_->GetFault();
}

}  // namespace NEUtils
