#include "child_ender.h"

#include <unistd.h>

#include <charconv>
#include <chrono>
#include <csignal>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "process_utils.h"
#include "util/file.h"

namespace {

void EndChildren()
{
    std::vector<std::string> names;
    NEUtils::FileOperation::ListDirectory("/proc", names);
    for (const std::string& name : names) {
        int pid = 0;
        ProcessUtils::ProcessStatus process;
        std::from_chars(name.data(), name.data() + name.size(), pid);
        if (pid > 0 && ProcessUtils::GetProcessStatus(pid, process) && process.parentPid == getpid()) {
            kill(pid, SIGKILL);
        }
    }
}

}  // namespace

void EndChildrenFromNowOn()
{
    try {
        std::thread([] {
            for (;;) {
                std::this_thread::sleep_for(std::chrono::seconds(1));
                EndChildren();
            }
        }).detach();
    } catch (const std::system_error&) {  // then the stop's alarm ends the process
    }
}
