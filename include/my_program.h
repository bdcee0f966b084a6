#pragma once

#include <signal.h>

#include <atomic>
#include <string>

#include "instance_lock.h"
#include "neutils_api.h"

namespace NEUtils {

// The frame around a process's main work: signal handlers, daemon or foreground, one instance a node,
// and on a stop or crash signal the stop function, a crash report and the end of the process.
//
// Order of use: GetInstance(), SetLogPath(), RunProgram(); it returns when the main function has.
//
// The install root is the environment variable RUNTIME_CENTER_PATH. Below it lie the pid file,
// conf/sentrel-agent.pid, the lock of the one instance, conf/agent.lock, and the executable that a second instance
// is known by, bin/sentrel-agent. The lock serves an executable of another name too (instance_lock.h), and is a second
// ground of refusal beside the pid file: a start is refused as long as any process holds it. A child that was forked
// without an exec shares it; where such a child outlives a process that was killed, no start succeeds until it has
// ended, although the pid file names a dead process. The record of the refusal then names that dead process too.
//
// Handled signals: SIGINT, SIGQUIT, SIGTSTP stop; SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGABRT report and
// stop; SIGUSR1 only reports. A stop ends in SIGTERM to the own process, whose action stays the default.
//
// A stop signal that is not blocked interrupts whatever its thread does at that moment, and the stop function then
// runs in the middle of that. While the thread logs, registers a log file or uses the configuration, the frame puts the
// signal off. It cannot do so elsewhere, in malloc for example: a stop function that needs a lock which its own thread
// holds there may wait for it for ever. So call BlockStopSignals() first in main(), and wait in WaitForStop(). A crash
// signal is not put off, nor is a stop signal more than a second after the first: after one in the middle of such a
// call, what the stop function logs on that thread is dropped, and it finds no configuration.
//
// Stop signals within a second of the first are one stop. A later one runs the stop function again, also in the middle
// of itself: the first may hang.
//
// Threads  one: the main thread, before it starts others. The handler may run on any thread.
// Limits   paths of at most 4,095 characters.
// Errors   false or -1, with an ERROR record.
class NEUTILS_API MyProgram {
public:
    static MyProgram& GetInstance();

    MyProgram(const MyProgram&) = delete;
    MyProgram& operator=(const MyProgram&) = delete;

    // The whole start sequence. As a daemon the result is true whatever mainFunc returned; in the
    // foreground it is true when mainFunc returned 0. stopFunc and parentStopFunc run in a signal
    // handler unless the program waits in WaitForStop, or takes its signals itself and calls SigActionHandler.
    // notifyFunc is stored only, preRunFunc is for a daemon, called once it has detached. All
    // functions but mainFunc may be null.
    bool RunProgram(bool daemon, bool singleton, int (*mainFunc)(), int (*stopFunc)(), int (*preRunFunc)(),
                    int (*parentStopFunc)(), void (*notifyFunc)(int, int));
    bool RunProgramNotDaemon(bool singleton, int (*mainFunc)()) const;

    // Blocks the stop signals on the calling thread, and on those that it starts from then on. They stay pending.
    static void BlockStopSignals();

    // For the main function: blocks the stop signals and waits for one, which stops the program as Handled signals
    // says; as a rule the process ends in here. The stop function runs on this thread and outside of a handler.
    // Another signal, SIGUSR1 among them, does not end the wait. True: the stop function has run and the program
    // goes on, since it handles SIGTERM itself; the main function should return. False: errno says why not.
    static bool WaitForStop();

    // The same for a main function that waits for something else too. The descriptor is readable (poll) while a stop
    // signal is pending; it belongs to the frame, and is -1, with errno set, if there is none. HandlePendingStop then
    // stops the program; false: no signal was pending, or the frame swallowed it. Block the stop signals first.
    static int GetStopDescriptor();
    static bool HandlePendingStop();

    // For the stop function, and safe in a handler: the signal that the program stops for (0: none has come), and the
    // path of the report about it.
    static int GetStopSignal();
    static const char* GetReportPath();

    // Directory of the crash report, logDir + "/coredump.log". Without it, or where it cannot be opened,
    // every handled signal is swallowed, crash signals too (a true fault then comes again at once). Not
    // while a handled signal may arrive.
    void SetLogPath(const std::string& logDir);

    // For an executable that runs a guardian: which side this process is, and on the guardian's side
    // the child that a stop sends SIGTERM to (0: none).
    void SetProcessRole(bool isParent, int childPid);

    int Daemonize() const;  // only the child returns
    bool WritePidFile() const;
    bool CheckSingletonRunning(std::string& pidFilePath) const;  // true: this process may start
    bool CheckPidFilePathRun(const std::string& pidFile, const std::string& exePath) const;
    bool CheckDir(const std::string& procDir, const std::string& exePath, int pid) const;
    int SigInit() const;

    // The signal path: calls only what is safe in a handler, but for the program's own stop functions.
    static void SigActionHandler(int signo, siginfo_t* info, void* context);
    static int SigDeal(int fd, int signo);  // 0 for SIGUSR1; otherwise the process ends in it
    static void DealStopSig();
    static void LogMapsInfo(int pid, int fd);
    static bool SendSignal(int pid, int signo);

    static bool IsPidExist(int pid);  // /proc/<pid> exists

private:
    MyProgram() = default;
    ~MyProgram();

    static void WriteReport(int signo);
    static const char* ProcessTypeName();
    bool LockInstance();

    // Written before the main function starts; the handler may read them on any thread.
    std::atomic<bool> isParent_{true};
    std::atomic<bool> isDaemon_{false};
    std::atomic<bool> checkSingleton_{false};
    std::atomic<bool> isRunning_{true};
    std::atomic<int (*)()> stopFunc_{nullptr};
    std::atomic<int (*)()> parentStopFunc_{nullptr};
    std::atomic<void (*)(int, int)> notifyFunc_{nullptr};
    std::atomic<int> childPid_{0};
    std::string pidFilePath_;
    std::string coreDumpLogPath_;
    InstanceLock lock_;
};

// Formats at most 511 characters, cut beyond that, and writes them to a descriptor. Allocates nothing.
// Gives write's result, or a negative number if formatting fails.
NEUTILS_API int WriteLog(int fd, const char* format, ...) __attribute__((format(printf, 2, 3)));

}  // namespace NEUtils
