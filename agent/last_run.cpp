#include "last_run.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "logger.h"
#include "my_program.h"
#include "util/errno_text.h"
#include "util/file.h"
#include "util/text.h"

using NEUtils::UniqueFd;

namespace {

constexpr char kName[] = "agent.run";
constexpr const char* kStates[] = {"running", "stopping", "hung", "crashed"};

// The number behind a key that a word begins with; 0 for any other word.
int NumberBehind(const std::string& word, const std::string& key)
{
    int number = 0;
    return word.compare(0, key.size(), key) == 0 && NEUtils::Convert::StringToInt(word.substr(key.size()), number)
               ? number
               : 0;
}

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
    const ssize_t size = NEUtils::FileOperation::Read(fd.Get(), text, sizeof(text) - 1);
    const std::string line(text, std::strcspn(text, "\n"));
    std::vector<std::string> words = NEUtils::StringProcess::StrSplit(line, " ");
    words.resize(std::max<std::size_t>(words.size(), 3));
    const std::string state = size > 0 ? words[0] : kStates[kRunning];  // also where a full disk has left nothing
    const int pid = NumberBehind(words[1], "pid=");
    const int signo = NumberBehind(words[2], "signal=");
    const std::size_t behind = words[0].size() + words[1].size() + words[2].size() + 3;
    const std::string part = behind < line.size() ? line.substr(behind) : "";
    const std::string which = "the last run (process " + std::to_string(pid) + ") ";
    if (state == kStates[kCrashed]) {
        return which + "crashed by signal " + std::to_string(signo) + ", report " + root_ + "/log/coredump.log";
    }
    if (state == kStates[kHung]) {
        return which + "was ended by its guard, a thread hung";
    }
    if (state == kStates[kStopping]) {
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
