#include "last_run.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "logger.h"
#include "my_program.h"
#include "util/errno_text.h"
#include "util/file.h"

using NEUtils::UniqueFd;

namespace {

constexpr char kName[] = "agent.run";
constexpr const char* kStates[] = {"running", "stopping", "hung", "crashed"};

}  // namespace

void LastRun::Begin()
{
    directory_.Reset(open((root_ + "/conf").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    fault_ = Read();
    Note(kRunning);
    if (faccessat(directory_.Get(), kName, F_OK, 0) != 0) {
        const int error = errno;
        NE_LOG(WARN, "How this run ends cannot be kept.[file=%s/conf/%s errorInfo=%s]", root_.c_str(), kName,
               NEUtils::ErrnoText(error).Get());
    }
}

std::string LastRun::Read() const
{
    const UniqueFd fd(openat(directory_.Get(), kName, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!fd.IsValid()) {
        return {};
    }
    char text[96] = {};
    char part[32] = {};
    char state[16] = "running";  // also where a full disk has left nothing
    int pid = 0;
    int signo = 0;
    if (NEUtils::FileOperation::Read(fd.Get(), text, sizeof(text) - 1) > 0) {
        std::sscanf(text, "%15s pid=%d signal=%d %31[^\n]", state, &pid, &signo, part);
    }
    const std::string which = "the last run (process " + std::to_string(pid) + ") ";
    if (std::strcmp(state, kStates[kCrashed]) == 0) {
        return which + "crashed by signal " + std::to_string(signo) + ", report " + root_ + "/log/coredump.log";
    }
    if (std::strcmp(state, kStates[kHung]) == 0) {
        return which + "was ended by its guard, a thread hung";
    }
    if (std::strcmp(state, kStates[kStopping]) == 0) {
        return which + "did not come to the end of its stop, at: " + part;
    }
    return which + "was killed, or the host went down";
}

void LastRun::Note(State state, int signo, const char* part)
{
    if (state == kStopping && isBad_) {
        return;
    }
    isBad_ = isBad_ || state == kHung || state == kCrashed;
    const UniqueFd fd(
        openat(directory_.Get(), kName, O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0600));
    if (fd.IsValid()) {
        NEUtils::WriteLog(fd.Get(), "%s pid=%d signal=%d %s\n", kStates[state], getpid(), signo, part);
    }
}

void LastRun::End()
{
    if (!isBad_) {
        unlinkat(directory_.Get(), kName, 0);
    }
}
