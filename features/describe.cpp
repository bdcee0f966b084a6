#include "describe.h"

#include "logger.h"
#include "user_info.h"

const char kUnread[] = "(ended before it could be read)";

std::string UserName(unsigned int uid)
{
    std::string name;
    return NEUtils::UserInfo::GetInstance().GetUserName(uid, name) ? name : std::to_string(uid);
}

std::string CmdLineOf(int pid, const ProcessUtils::ProcessStatus& status)
{
    std::string cmdLine;
    if (!ProcessUtils::GetCmdLine(pid, cmdLine, kMaxCmdLine) || cmdLine.empty()) {
        return NEUtils::Printable("[" + status.name + "]");
    }
    return NEUtils::Printable(cmdLine);
}

void DescribeProcess(int pid, std::string& user, std::string& cmdLine)
{
    ProcessUtils::ProcessStatus status;
    const bool found = ProcessUtils::GetProcessStatus(pid, status);
    user = found ? UserName(status.uid) : "?";
    cmdLine = found ? CmdLineOf(pid, status) : kUnread;
}
