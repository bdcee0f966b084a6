#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "neutils_api.h"

// Details of processes, read from /proc at the moment of the call.
//
// Threads  any.
// Errors   false, and the output unchanged, for a process that is gone or must not be read.
// Source   what a process says of itself (name, command line) is its own choice: do not trust it.
namespace ProcessUtils {

struct ProcessStatus {
    int pid = 0;
    int parentPid = 0;
    unsigned int uid = 0;           // real user id
    unsigned int effectiveUid = 0;  // differs in a set-user-id program
    unsigned int threads = 0;
    char state = '?';  // as in /proc: R, S, D, T, Z (its first thread has ended) and others
    std::string name;  // 15 bytes, more for a kernel worker
};

// From /proc/<pid>/status.
NEUTILS_API bool GetProcessStatus(int pid, ProcessStatus& status);

// The arguments with a blank between them, cut at maxLength bytes. Empty for a kernel thread and for a
// process that has ended and is not yet waited for.
NEUTILS_API bool GetCmdLine(int pid, std::string& cmdLine, std::size_t maxLength = 4096);

// The id of the container that a process runs in: the 64 hexadecimal digits in the path of one of its control
// groups, from /proc/<pid>/cgroup. Of containers within containers the outermost, which is the host's own and
// cannot be made up inside. False also for a process in none.
NEUTILS_API bool GetContainerId(int pid, std::string& id);

// Every process id there is.
NEUTILS_API bool GetProcessIds(std::vector<int>& pids);

}  // namespace ProcessUtils
