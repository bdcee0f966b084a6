#include "agent_log.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "logger.h"
#include "text_file.h"
#include "util/errno_text.h"

using NEUtils::LogSystem;

namespace {

constexpr char kName[] = "AgentLog";
constexpr std::size_t kMostCarried = std::size_t{64} << 10U;
constexpr char kFailedConversion[] = "[ERROR] Log conversion failed.[";

std::shared_ptr<LogSystem::LogFile> MakeFile(const AgentConfig& config)
{
    return std::make_shared<LogSystem::LogFile>(config.logFile, config.logLevel, config.logMaxSize, config.logCopies);
}

// A file begins like a log, whose first line a full disk may have cut.
bool BeginsLikeLog(const std::string& path)
{
    constexpr char kLayout[] = "00000000 00:00:00 ";
    char start[sizeof(kFailedConversion)] = {};
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(path.c_str(), "re"), &std::fclose);
    if (file == nullptr) {
        return false;
    }
    const std::size_t size = std::fread(start, 1, sizeof(start) - 1, file.get());
    if (std::strncmp(start, kFailedConversion, size) == 0) {
        return true;
    }
    for (std::size_t i = 0; i < std::min(size, sizeof(kLayout) - 1); ++i) {
        const bool fits =
            kLayout[i] == '0' ? std::isdigit(static_cast<unsigned char>(start[i])) != 0 : start[i] == kLayout[i];
        if (!fits) {
            return false;
        }
    }
    return true;
}

bool IsOwnFile(const struct stat& status)
{
    return S_ISREG(status.st_mode) && status.st_nlink == 1 && status.st_uid == geteuid();
}

// Gives what is wrong with what stands under the name of the log, or nothing.
std::string CheckFound(const std::string& path)
{
    struct stat status = {};
    if (lstat(path.c_str(), &status) != 0) {
        const int error = errno;
        return error == ENOENT ? std::string() : NEUtils::ErrnoText(error).Get();
    }
    if (S_ISLNK(status.st_mode)) {
        return "is a link";
    }
    if (!S_ISREG(status.st_mode)) {
        return "is a directory or a special file";
    }
    if (!IsOwnFile(status)) {
        return "belongs to another user or has several names";
    }
    return BeginsLikeLog(path) ? "" : "is no log, a start would compress it";
}

bool IsSmall(const std::string& path, std::size_t most)
{
    struct stat status = {};
    return lstat(path.c_str(), &status) == 0 && IsOwnFile(status) && status.st_size > 0 &&
           static_cast<std::size_t>(status.st_size) < most;
}

// The startup kind opens nothing, so this only asks whether the library would take the file.
std::string CheckAccepted(const AgentConfig& config)
{
    const bool accepted =
        LogSystem::Register(MakeFile(config), NEUtils::kStartupLog, kName, &LogSystem::GetDefaultLogContent);
    LogSystem::Unregister(kName);
    return accepted ? "" : "is not accepted";
}

}  // namespace

AgentLog::AgentLog(const AgentConfig& config)
    : config_(config), carried_(config.logFile + ".carried"), file_(MakeFile(config))
{
}

std::string AgentLog::Check(const AgentConfig& config)
{
    std::string fault = CheckFound(config.logFile);
    if (fault.empty()) {
        fault = CheckAccepted(config);
    }
    return fault.empty() ? fault : "log file " + config.logFile + " " + fault;
}

// Moves a small log out of the way of the roll. A carried one that is left from a start that broke off stays first.
bool AgentLog::CarryAside() const
{
    const std::size_t most =
        config_.logMaxSize == 0 ? kMostCarried : std::min<std::size_t>(kMostCarried, config_.logMaxSize);
    struct stat status = {};
    if (lstat(carried_.c_str(), &status) == 0) {
        return IsOwnFile(status);
    }
    return IsSmall(config_.logFile, most) && std::rename(config_.logFile.c_str(), carried_.c_str()) == 0;
}

// The carried text is removed once the new file has it.
void AgentLog::CarryOver()
{
    std::string text;
    if (!ReadTextFile(carried_, kMostCarried, text).empty()) {
        return;
    }
    if (!text.empty() && text.back() != '\n') {
        text += '\n';
    }
    if (file_->FlushLogStream(text.data(), static_cast<unsigned int>(text.size())) && file_->GetFault().empty()) {
        unlink(carried_.c_str());
    }
}

bool AgentLog::Prepare()
{
    const bool isCarried = CarryAside();
    if (!file_->CheckLogInfo()) {
        if (isCarried && link(carried_.c_str(), config_.logFile.c_str()) == 0) {  // unless there is one
            unlink(carried_.c_str());
        }
        return false;
    }
    if (isCarried) {
        CarryOver();
    }
    return true;
}

bool AgentLog::Register()
{
    const bool registered = LogSystem::Register(file_, config_.logKind, kName, &LogSystem::GetDefaultLogContent);
    LogSystem::SetGlobalRecordLines(config_.logLinesPerDay);
    return registered;
}

void AgentLog::SetLimits(const AgentConfig& config)
{
    LogSystem::UpdateLogConfig(kName, config.logLevel, config.logMaxSize, config.logCopies);
    LogSystem::SetGlobalRecordLines(config.logLinesPerDay);
}

std::string AgentLog::GetFault() const
{
    return file_->GetFault();
}

void AgentLog::Close()
{
    LogSystem::CloseAllLogFile();
}
