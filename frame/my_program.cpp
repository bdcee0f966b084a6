#include "my_program.h"

#include <execinfo.h>
#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <iterator>
#include <memory>
#include <new>

#include "byte_buffer.h"
#include "config.h"
#include "frame/signal_paths.h"
#include "logger.h"
#include "util/bounded.h"
#include "util/errno_text.h"
#include "util/file.h"

namespace NEUtils {

namespace {

constexpr char kRootVariable[] = "RUNTIME_CENTER_PATH";
constexpr std::size_t kMaxLink = 4096;

struct HandledSignal {
    int signo;
    const char* name;
};

// In the order of installation. SIGTERM keeps its default action: the frame ends the process with it.
constexpr std::array<HandledSignal, 9> kSignals = {{
    {SIGINT, "sigint."},
    {SIGQUIT, "sigquit error."},
    {SIGTSTP, "sigstp error."},
    {SIGSEGV, "sigterm error."},
    {SIGBUS, "sigterm error."},
    {SIGILL, "sigterm error."},
    {SIGFPE, "sigterm error."},
    {SIGABRT, "sigterm error."},
    {SIGUSR1, "sigterm error."},
}};

// The number that the text begins with; what follows its digits does not count.
bool LeadingNumber(const ByteBuffer& content, int& number)
{
    const char* begin = reinterpret_cast<const char*>(content.GetBuffer());
    const char* end = begin;
    while (end != begin + content.GetSize() && *end >= '0' && *end <= '9') {
        ++end;
    }
    const auto [stop, error] = std::from_chars(begin, end, number);
    return error == std::errc() && stop == end;
}

}  // namespace

void SignalPaths::Publish(char (&target)[PATH_MAX], const std::string& path)
{
    if (snprintf_s(target, std::size(target), "%s", path.c_str()) < 0) {
        target[0] = '\0';
        NE_LOG(ERROR, "Path is too long for the signal handler.[length=%zu]", path.size());
    }
}

MyProgram& MyProgram::GetInstance()
{
    static MyProgram instance;
    return instance;
}

MyProgram::~MyProgram()
{
    stopFunc_ = nullptr;
    parentStopFunc_ = nullptr;
    notifyFunc_ = nullptr;
}

bool MyProgram::RunProgram(bool daemon, bool singleton, int (*mainFunc)(), int (*stopFunc)(), int (*preRunFunc)(),
                           int (*parentStopFunc)(), void (*notifyFunc)(int, int))
{
    stopFunc_ = stopFunc;
    parentStopFunc_ = parentStopFunc;
    notifyFunc_ = notifyFunc;
    isDaemon_ = daemon;
    checkSingleton_ = singleton;

    if (SigInit() != 0) {
        NE_LOG(ERROR, "signal init fail.");
        return false;
    }
    if (singleton && !CheckSingletonRunning(pidFilePath_)) {
        NE_LOG(ERROR, "check singleton running failed.");
        return false;
    }
    if (!daemon) {
        return RunProgramNotDaemon(singleton, mainFunc);
    }
    Daemonize();
    if (preRunFunc != nullptr) {
        preRunFunc();
    }
    if (singleton) {
        WritePidFile();
    }
    isDaemon_ = false;
    // Kept because starters rely on it: a daemon run succeeds whatever its main function returns, and
    // leaves its pid file.
    mainFunc();
    NE_LOG(INFO, "daemon end.");
    return true;
}

bool MyProgram::RunProgramNotDaemon(bool singleton, int (*mainFunc)()) const
{
    if (!singleton) {
        return mainFunc() == 0;
    }
    WritePidFile();
    const int result = mainFunc();
    if (!pidFilePath_.empty() && FileAttribute::AccessFile(pidFilePath_)) {
        unlink(pidFilePath_.c_str());
    }
    SignalPaths::Publish(SignalPaths::pidFile, "");
    return result == 0;
}

void MyProgram::SetLogPath(const std::string& logDir)
{
    coreDumpLogPath_ = logDir + "/coredump.log";
    SignalPaths::Publish(SignalPaths::crashReport, coreDumpLogPath_);
}

void MyProgram::SetProcessRole(bool isParent, int childPid)
{
    isParent_ = isParent;
    childPid_ = childPid;
}

int MyProgram::Daemonize() const
{
    // Kept because starters take 0 for "handed over": a failed fork leaves with it like the parent does.
    if (fork() != 0) {
        _exit(0);
    }
    setsid();
    const int null = open("/dev/null", O_RDWR);
    if (null < 0) {
        return -1;
    }
    for (const int standard : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        dup2(null, standard);
    }
    if (null > STDERR_FILENO) {
        close(null);
    }
    return 0;
}

bool MyProgram::WritePidFile() const
{
    char text[32];
    const int length = snprintf_s(text, std::size(text), "%d", getpid());
    if (length <= 0) {
        return false;
    }
    if (!FileOperation::WriteByDirect(pidFilePath_, text, static_cast<std::size_t>(length), true)) {
        const int error = errno;
        NE_LOG(ERROR, "Unable to set pidfile.[filePath=%s errorInfo=%s]", pidFilePath_.c_str(), ErrnoText(error).Get());
        return false;
    }
    static_cast<void>(chmod(pidFilePath_.c_str(), 0640));
    return true;
}

bool MyProgram::CheckSingletonRunning(std::string& pidFilePath) const
{
    const std::string root = Env::GetEnvString(kRootVariable);
    if (root.empty()) {
        NE_LOG(ERROR, "Get env failed.[env=%s]", kRootVariable);
        return false;
    }
    pidFilePath = root + "/conf/sentrel-agent.pid";
    if (!CheckPidFilePathRun(pidFilePath, root + "/bin/sentrel-agent")) {
        return false;  // the file is another instance's: a stop of this one must not remove it
    }
    SignalPaths::Publish(SignalPaths::pidFile, pidFilePath);
    return true;
}

bool MyProgram::CheckPidFilePathRun(const std::string& pidFile, const std::string& exePath) const
{
    if (!FileAttribute::AccessFile(pidFile)) {
        return true;
    }
    ByteBuffer content;
    if (!FileOperation::ReadAll(pidFile, content) || content.GetSize() == 0) {
        NE_LOG(ERROR, "read file failed.[filePath=%s]", pidFile.c_str());
        return true;
    }
    int pid = 0;
    if (!LeadingNumber(content, pid)) {
        NE_LOG(ERROR, "invalid data.[filePath=%s]", pidFile.c_str());
        return false;
    }
    char procDir[64];
    if (snprintf_s(procDir, std::size(procDir), "/proc/%d", pid) < 0) {
        NE_LOG(ERROR, "Get check directory failed.");
        return false;
    }
    if (!CheckDir(procDir, exePath, pid)) {
        return false;
    }
    // Kept because log readers look for it: written whenever the check passes, also for a live process of
    // another program.
    NE_LOG(INFO, "Can not find proc, maybe it dead, i would start working.[pid=%d]", pid);
    return true;
}

bool MyProgram::CheckDir(const std::string& procDir, const std::string& exePath, int pid) const
{
    if (!FileAttribute::AccessFile(procDir)) {
        return true;
    }
    char linkPath[64];
    if (snprintf_s(linkPath, std::size(linkPath), "/proc/%d/exe", pid) < 0) {
        NE_LOG(ERROR, "Get current exe file name failed.");
        return false;
    }
    const std::unique_ptr<char[]> target(new (std::nothrow) char[kMaxLink + 1]);
    if (target == nullptr) {
        NE_LOG(ERROR, "Alloc current link memory failed.");
        return false;
    }
    memset_s(target.get(), kMaxLink + 1, 0, kMaxLink + 1);
    const ssize_t length = readlink(linkPath, target.get(), kMaxLink);
    if (length < 1) {
        return true;
    }
    if (exePath == target.get()) {
        NE_LOG(ERROR, "Another program is running. exit.");
        return false;
    }
    return true;
}

bool MyProgram::IsPidExist(int pid)
{
    return FileAttribute::AccessFile("/proc/" + std::to_string(pid));
}

int MyProgram::SigInit() const
{
    // The first call loads the unwinder and allocates; the handler must find that done.
    void* frame = nullptr;
    static_cast<void>(backtrace(&frame, 1));

    struct sigaction action = {};
    action.sa_sigaction = &MyProgram::SigActionHandler;
    action.sa_flags = SA_SIGINFO | SA_NODEFER;
    sigemptyset(&action.sa_mask);
    for (const auto& [signo, name] : kSignals) {
        if (sigaction(signo, &action, nullptr) != 0) {
            const int error = errno;
            NE_LOG(ERROR, "%s[errorInfo=%s]", name, ErrnoText(error).Get());
            return -1;
        }
    }
    NE_LOG(INFO, "Init sigaction success.");
    return 0;
}

}  // namespace NEUtils
