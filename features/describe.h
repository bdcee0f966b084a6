#pragma once

#include <cstddef>
#include <string>

#include "process_utils.h"

// Of a command line; leaves room for the rest of a record.
constexpr std::size_t kMaxCmdLine = 3400;

// Stands for the command line of a process that had ended before it could be read.
extern const char kUnread[];

// The name of a user, or the number.
std::string UserName(unsigned int uid);

// The command line of a process without control characters. A kernel thread has only a name, and so has a process
// that has just ended: "[name]".
std::string CmdLineOf(int pid, const ProcessUtils::ProcessStatus& status);

// User and command line of a process, as far as they can be read.
void DescribeProcess(int pid, std::string& user, std::string& cmdLine);
