#include "my_program.h"

#include <execinfo.h>
#include <fcntl.h>
#include <limits.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <iterator>

#include "frame/signal_paths.h"
#include "logger.h"
#include "util/bounded.h"
#include "util/errno_text.h"

namespace NEUtils {

namespace {

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
    if (singleton && !(LockInstance() && CheckSingletonRunning(pidFilePath_))) {
        lock_.Release();
        NE_LOG(ERROR, "check singleton running failed.");
        return false;
    }
    if (!daemon) {
        lock_.WritePid();
        const bool result = RunProgramNotDaemon(singleton, mainFunc);
        lock_.Release();  // after the pid file: the next instance writes its own
        return result;
    }
    Daemonize();
    if (preRunFunc != nullptr) {
        preRunFunc();
    }
    if (singleton) {
        WritePidFile();
        lock_.WritePid();
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
    SignalPaths::RemovePidFile(pidFilePath_.c_str(), childPid_, lock_.IsHeld());
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

int MyProgram::SigInit() const
{
    // Whoever started this process may have ignored SIGTERM. It would not end the process then, and a fault would come
    // back for ever.
    struct sigaction ending = {};
    if (sigaction(SIGTERM, nullptr, &ending) == 0 && ending.sa_handler == SIG_IGN) {
        ending.sa_handler = SIG_DFL;
        sigaction(SIGTERM, &ending, nullptr);
    }
    // The first call loads the unwinder and allocates, which the handler must not do.
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
