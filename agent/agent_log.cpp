#include "agent_log.h"

#include <string>

#include "console.h"
#include "logger.h"

using NEUtils::LogSystem;

namespace {

constexpr char kName[] = "AgentLog";

std::shared_ptr<LogSystem::LogFile> MakeFile(const AgentConfig& config)
{
    return std::make_shared<LogSystem::LogFile>(config.logFile, config.logLevel, config.logMaxSize, config.logCopies);
}

}  // namespace

// The startup kind opens nothing, so this only asks whether the file would be taken.
bool AgentLog::IsAccepted(const AgentConfig& config)
{
    const bool accepted =
        LogSystem::Register(MakeFile(config), NEUtils::kStartupLog, kName, &LogSystem::GetDefaultLogContent);
    LogSystem::CloseAllLogFile();
    return accepted;
}

bool AgentLog::Open(const AgentConfig& config)
{
    const auto file = MakeFile(config);
    if (!file->CheckLogInfo()) {
        Complain("log file " + config.logFile + " cannot be opened, or the old one cannot be rolled away");
        return false;
    }
    if (!LogSystem::Register(file, config.logKind, kName, &LogSystem::GetDefaultLogContent)) {
        return false;
    }
    LogSystem::SetGlobalRecordLines(config.logLinesPerDay);
    return true;
}

void AgentLog::Close()
{
    LogSystem::CloseAllLogFile();
}
