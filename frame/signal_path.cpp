// What runs when a handled signal arrives. Everything in this file but the program's own stop
// functions is safe in a signal handler: no allocation, no stdio streams, no std::string, no logger.
#include <execinfo.h>
#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <iterator>

#include "frame/signal_paths.h"
#include "frame/stop_deferral.h"
#include "my_program.h"
#include "util/bounded.h"
#include "util/clock.h"
#include "util/file.h"
#include "util/unique_fd.h"

namespace NEUtils {

namespace SignalPaths {

char crashReport[PATH_MAX];
char pidFile[PATH_MAX];

}  // namespace SignalPaths

namespace {

constexpr int kMaxFrames = 10;
constexpr int kMaxPidDigits = 9;
constexpr std::size_t kRecordSize = 512;
constexpr std::size_t kMapLineSize = 2048;

std::atomic<int> g_stopSignal{0};
std::atomic<int> g_reporter{0};  // the process that is writing its report for SIGUSR1
std::atomic<int> g_stopper{0};   // the process whose stop is under way
std::atomic<std::int64_t> g_stopBeganNs{0};
constexpr std::int64_t kPatienceNs = Clock::kNsPerSecond;

// Writes each line of a descriptor as a record of its own; a longer line comes in pieces.
void CopyMapLines(int maps, int fd)
{
    char piece[kMapLineSize];
    std::size_t used = 0;
    for (;;) {
        const ssize_t count = FileOperation::Read(maps, piece + used, kMapLineSize - 1 - used);
        if (count > 0) {
            used += static_cast<std::size_t>(count);
        }
        const auto* feed = static_cast<const char*>(std::memchr(piece, '\n', used));
        if (feed == nullptr && used < kMapLineSize - 1 && count > 0) {
            continue;
        }
        if (used == 0) {
            return;
        }
        const std::size_t length = feed == nullptr ? used : static_cast<std::size_t>(feed - piece) + 1;
        char line[kMapLineSize];
        std::memcpy(line, piece, length);
        line[length] = '\0';
        WriteLog(fd, "get maps file line.[line=%s]\n", line);
        used -= length;
        std::memmove(piece, piece + length, used);
    }
}

// The process id that a file begins with; 0 for none.
int ReadPid(const char* path)
{
    char text[kMaxPidDigits];
    const UniqueFd fd(open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    const ssize_t length = fd.IsValid() ? FileOperation::Read(fd.Get(), text, std::size(text)) : 0;
    int pid = 0;
    for (ssize_t i = 0; i < length && text[i] >= '0' && text[i] <= '9'; ++i) {
        pid = pid * 10 + (text[i] - '0');
    }
    return pid;
}

void CallIfSet(int (*function)())
{
    if (function != nullptr) {
        function();
    }
}

// Many stop signals at once are one: the stop function must not run in the middle of itself. One that comes later is
// taken, since the first may hang.
bool IsRepeatedStop(int signo, int self)
{
    const bool isStop = signo == SIGINT || signo == SIGQUIT || signo == SIGTSTP;
    return isStop && g_stopper == self && Clock::MonotonicNs() - g_stopBeganNs <= kPatienceNs;
}

}  // namespace

void SignalPaths::RemovePidFile(const char* path, int child, bool hasLock)
{
    // Kept because starters wait for the file to go: a stop removes it whatever it holds. The lock rules a second
    // instance out; only where it could not be taken may the file be another one's.
    const int pid = hasLock ? 0 : ReadPid(path);
    const bool isOthers = pid > 0 && pid != getpid() && pid != child && (kill(pid, 0) == 0 || errno == EPERM);
    if (!isOthers) {
        unlink(path);
    }
}

int WriteLog(int fd, const char* format, ...)
{
    char record[kRecordSize] = {};
    va_list args;
    va_start(args, format);
    const int length = vsnprintf_s(record, std::size(record), format, args);
    va_end(args);
    if (length < 0 && record[0] == '\0') {
        return length;
    }
    return static_cast<int>(write(fd, record, std::strlen(record)));
}

void MyProgram::SigActionHandler(int signo, siginfo_t*, void*)
{
    // Kept because embedders switch the handling off by giving no log path: the signal has no effect, a crash signal
    // too.
    if (SignalPaths::crashReport[0] == '\0' || StopDeferral::PutOff(signo)) {
        return;
    }
    const int error = errno;
    const int self = getpid();
    // A flood of SIGUSR1 would nest until the stack is full. A forked child has a report of its own to write.
    if (signo == SIGUSR1) {
        if (g_reporter.exchange(self) != self) {
            const StopDeferral untilWritten;  // the report takes locks of the C library
            WriteReport(signo);
            g_reporter = 0;
        }
    } else if (!IsRepeatedStop(signo, self)) {
        g_stopBeganNs = Clock::MonotonicNs();
        g_stopper = self;
        WriteReport(signo);
        g_stopper = 0;
    }
    errno = error;
}

void MyProgram::WriteReport(int signo)
{
    // Kept because a full disk must still take a report: it is written over the one before, uncut.
    const UniqueFd fd(open(SignalPaths::crashReport, O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    if (!fd.IsValid()) {
        return;
    }
    LogMapsInfo(getpid(), fd.Get());
    WriteLog(fd.Get(), "Exception Signal.[number=%d]\n", signo);
    WriteLog(fd.Get(), "Call Stack :\n");
    void* frames[kMaxFrames];
    backtrace_symbols_fd(frames, backtrace(frames, kMaxFrames), fd.Get());
    SigDeal(fd.Get(), signo);
}

const char* MyProgram::ProcessTypeName()
{
    const MyProgram& program = GetInstance();
    if (!program.isDaemon_) {
        return "nodaemon";
    }
    return program.isParent_ ? "daemon" : "child";
}

int MyProgram::SigDeal(int fd, int signo)
{
    WriteLog(fd, "sig_deal signo.[signo=%d, pid=%d, processType=%s]\n", signo, getpid(), ProcessTypeName());
    if (signo == SIGUSR1) {
        return 0;
    }
    g_stopSignal = signo;
    DealStopSig();
    const MyProgram& program = GetInstance();
    const bool isChild = program.isDaemon_ && !program.isParent_;
    if (program.checkSingleton_ && !isChild) {
        SignalPaths::RemovePidFile(SignalPaths::pidFile, program.childPid_, program.lock_.IsHeld());
    }
    // Whoever started this process may have blocked SIGTERM, which would not end it then.
    sigset_t ending;
    sigemptyset(&ending);
    sigaddset(&ending, SIGTERM);
    pthread_sigmask(SIG_UNBLOCK, &ending, nullptr);
    SendSignal(getpid(), SIGTERM);
    return 0;
}

void MyProgram::DealStopSig()
{
    MyProgram& program = GetInstance();
    if (!program.isDaemon_) {
        CallIfSet(program.stopFunc_);
        return;
    }
    program.isRunning_ = false;
    if (!program.isParent_) {
        CallIfSet(program.stopFunc_);
        return;
    }
    const int child = program.childPid_;
    if (child > 0) {  // 0 would hit the whole process group
        SendSignal(child, SIGTERM);
    }
    CallIfSet(program.parentStopFunc_);
}

void MyProgram::LogMapsInfo(int pid, int fd)
{
    char path[65];
    if (snprintf_s(path, std::size(path), "/proc/%d/maps", pid) < 0) {
        WriteLog(fd, "Failed to get hips maps path.\n");
        return;
    }
    const UniqueFd maps(open(path, O_RDONLY | O_CLOEXEC));
    if (!maps.IsValid()) {
        WriteLog(fd, "Failed to open hips maps path.\n");
        return;
    }
    WriteLog(fd, "hips maps.[hipsPid=%d]\n", pid);
    CopyMapLines(maps.Get(), fd);
}

int MyProgram::GetStopSignal()
{
    return g_stopSignal;
}

const char* MyProgram::GetReportPath()
{
    return SignalPaths::crashReport;
}

bool MyProgram::SendSignal(int pid, int signo)
{
    return kill(pid, signo) == 0;
}

}  // namespace NEUtils
