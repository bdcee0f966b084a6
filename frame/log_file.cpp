#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <utility>
#include <vector>

#include "log_system.h"
#include "util/bounded.h"
#include "util/file.h"
#include "util/text.h"

namespace NEUtils {

namespace {

constexpr unsigned int kLineSize = 4224;
constexpr unsigned int kWritesPerSizeCheck = 49;
constexpr mode_t kLiveMode = 0640;
constexpr mode_t kRolledMode = 0440;

std::string CopyName(const std::string& path, unsigned int number)
{
    return path + "." + std::to_string(number) + ".gz";
}

// Removes the copies from a number on: more than one where the limit was lowered.
void RemoveCopiesFrom(const std::string& path, unsigned int first)
{
    const std::size_t slash = path.rfind('/');
    const std::string folder = slash == std::string::npos ? "./" : path.substr(0, slash + 1);
    const std::string start = path.substr(slash == std::string::npos ? 0 : slash + 1) + ".";
    const std::string end = ".gz";
    std::vector<std::string> names;
    FileOperation::ListDirectory(folder, names);
    for (const std::string& name : names) {
        int number = 0;
        const bool isCopy =
            name.size() > start.size() + end.size() && name.compare(0, start.size(), start) == 0 &&
            name.compare(name.size() - end.size(), end.size(), end) == 0 &&
            Convert::StringToInt(name.substr(start.size(), name.size() - start.size() - end.size()), number);
        if (isCopy && number > 0 && static_cast<unsigned int>(number) >= first) {
            unlink((folder + name).c_str());
        }
    }
}

// The open file still has a name. statx asks for the link count alone, and the next write after it
// is cheaper than after fstat, which stands in where the kernel lacks it.
bool HasLinks(int fd)
{
#ifdef STATX_NLINK
    struct statx status = {};
    if (statx(fd, "", AT_EMPTY_PATH, STATX_NLINK, &status) == 0 && (status.stx_mask & STATX_NLINK) != 0) {
        return status.stx_nlink > 0;
    }
#endif
    struct stat plain = {};
    return fstat(fd, &plain) == 0 && plain.st_nlink > 0;
}

// Puts a line together in a buffer of the caller's. By hand, since printf would be the dearest step of
// a record after its system calls.
class LineWriter {
public:
    LineWriter(char* out, std::size_t size) : at_(out), end_(out + size) {}

    void Text(const char* text)
    {
        const char* known = text == nullptr ? "(null)" : text;
        Bytes(known, std::strlen(known));
    }
    void Byte(char byte) { Bytes(&byte, 1); }

    // A decimal number, filled up with zeros in front.
    void Number(long long value, std::size_t width)
    {
        char digits[24];
        const auto length = static_cast<std::size_t>(std::to_chars(digits, std::end(digits), value).ptr - digits);
        for (std::size_t i = length; i < width; ++i) {
            Byte('0');
        }
        Bytes(digits, length);
    }

    // What has been written; null once something did not fit.
    [[nodiscard]] const char* End() const { return at_; }

private:
    void Bytes(const char* bytes, std::size_t count)
    {
        if (at_ == nullptr || count > static_cast<std::size_t>(end_ - at_)) {
            at_ = nullptr;
            return;
        }
        std::memcpy(at_, bytes, count);
        at_ += count;
    }

    char* at_;
    char* end_;
};

void PutTime(LineWriter& line, const struct tm& time)
{
    line.Number(time.tm_year, 4);
    line.Number(time.tm_mon, 2);
    line.Number(time.tm_mday, 2);
    line.Byte(' ');
    line.Number(time.tm_hour, 2);
    line.Byte(':');
    line.Number(time.tm_min, 2);
    line.Byte(':');
    line.Number(time.tm_sec, 2);
}

}  // namespace

unsigned int LogSystem::GetDefaultLogContent(const NENormalLog& record, char* out, unsigned int size)
{
    if (size < 2) {
        return 0;
    }
    char thread[16] = {};
    pthread_getname_np(pthread_self(), thread, std::size(thread));
    LineWriter line(out, size - 1);
    PutTime(line, *record.time);
    line.Byte(' ');
    line.Text(record.levelName);
    line.Text(" [");
    line.Text(record.fileName);
    line.Byte(':');
    line.Number(record.line, 1);
    line.Text("] [");
    line.Text(thread);
    line.Text("] ");
    line.Text(record.content);
    line.Byte('\n');
    if (line.End() == nullptr) {
        return 0;
    }
    auto count = static_cast<unsigned int>(line.End() - out);
    while (out[count - 2] == '\n') {  // the message brought its own
        --count;
    }
    out[count] = '\0';
    return count;
}

LogSystem::LogFile::LogFile(std::string filePath, unsigned int minLevel, unsigned int maxFileSize,
                            unsigned int rollCount)
    : filePath_(std::move(filePath)), minLevel_(minLevel), maxFileSize_(maxFileSize), rollCount_(rollCount)
{
}

LogSystem::LogFile::~LogFile()
{
    CloseStream();
}

void LogSystem::LogFile::SetLimits(unsigned int minLevel, unsigned int maxFileSize, unsigned int rollCount)
{
    minLevel_ = minLevel;
    maxFileSize_ = maxFileSize;
    rollCount_ = rollCount;
}

void LogSystem::LogFile::CloseRetired()
{
    const std::lock_guard<std::mutex> lock(fileMutex_);
    if (retired_) {  // unless it has been registered again meanwhile
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
    // Kept before rendering: a record that fails to convert has spent its line of the budget too.
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
    const std::lock_guard<std::mutex> lock(fileMutex_);
    if (retired_) {
        return false;
    }
    // Kept at every 50th write: the check costs a look at the path.
    if (++writeCount_ > kWritesPerSizeCheck) {
        CheckFileMaxSize();
        writeCount_ = 0;
    }
    if (!IsFileStreamVaild()) {
        CloseStream();
    }
    if (!CheckLogInfo()) {
        return false;
    }
    if (fwrite_unlocked(data, 1, length, stream_) > 0) {
        static_cast<void>(fflush_unlocked(stream_));
    }
    return true;
}

bool LogSystem::LogFile::IsFileStreamVaild() const
{
    if (stream_ == nullptr) {
        return true;
    }
    const int fd = fileno_unlocked(stream_);
    return fd >= 0 && fcntl(fd, F_GETFL) != 0 && HasLinks(fd);
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
    // Kept exclusive: opening never appends to what is there. The same as mode "a+x", but the file has
    // its final mode from the first moment on.
    const auto create = [this]() -> std::FILE* {
        const int fd = open(filePath_.c_str(), O_RDWR | O_CREAT | O_EXCL | O_APPEND | O_CLOEXEC, kLiveMode);
        std::FILE* stream = fd < 0 ? nullptr : fdopen(fd, "a+");
        if (fd >= 0 && stream == nullptr) {
            close(fd);
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
        CloseStream();
        return false;
    }
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
    RollFiles(filePath_, rollCount_);
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
    // By its descriptor: the name may lead elsewhere by now.
    if (count == 0 && ftruncate(fileno_unlocked(stream_), 0) == 0) {
        fileSize_ = 0;
    }
    CloseStream();
    if (count != 0) {
        RollFiles(filePath_, count);
    }
}

void LogSystem::LogFile::RollFiles(const std::string& path, unsigned int count) const
{
    const std::string fresh = path + ".gz";
    unlink(fresh.c_str());
    const std::string command = "gzip " + path;
    // A wait status of 0 is a normal exit with status 0. Register has kept the shell's characters out of the path.
    const int status = std::system(command.c_str());  // NOLINT(cert-env33-c)
    if (status != 0 || chmod(fresh.c_str(), kRolledMode) != 0) {
        return;
    }
    RemoveCopiesFrom(path, count);
    if (count == 0) {
        unlink(fresh.c_str());
        return;
    }
    for (unsigned int number = count; number > 1; --number) {
        static_cast<void>(std::rename(CopyName(path, number - 1).c_str(), CopyName(path, number).c_str()));
    }
    static_cast<void>(std::rename(fresh.c_str(), CopyName(path, 1).c_str()));
}

}  // namespace NEUtils
