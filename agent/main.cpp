// sentrel-agent: the reference agent. Runs the features that policies ask for, logs and reports.
#include <fcntl.h>
#include <getopt.h>
#include <poll.h>
#include <signal.h>
#include <sys/auxv.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <iterator>
#include <memory>
#include <string>

#include "agent_config.h"
#include "config.h"
#include "feature_commands.h"
#include "feature_counters.h"
#include "feature_host.h"
#include "hips_guard.h"
#include "log_system.h"
#include "logger.h"
#include "monitor.h"
#include "my_program.h"
#include "report_queue.h"
#include "server_link.h"
#include "status.h"
#include "status_socket.h"
#include "status_text.h"
#include "task_manager.h"
#include "thread_pool.h"

namespace {

using NEUtils::LogSystem;
using NEUtils::MessageBus;
using NEUtils::MyProgram;
using NEUtils::TaskManager;
using NEUtils::ThreadPool;

constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;
constexpr int kExitNotWell = 3;
constexpr unsigned int kLeastPoolThreads = 3;  // the server's check, policies and digests: none waits for another
constexpr unsigned int kStopLimitSeconds = 10;
constexpr int kRetryMs = 1000;
constexpr char kRootVariable[] = "RUNTIME_CENTER_PATH";
constexpr char kLogName[] = "AgentLog";
constexpr char kConsoleName[] = "AgentConsole";
constexpr std::array<int, 3> kStopSignals = {SIGINT, SIGQUIT, SIGTSTP};

constexpr char kHelp[] =
    "Usage: sentrel-agent [OPTION]...\n"
    "Runs the features that policies ask for (processes, changes of files, use of files), logs what they see,\n"
    "and reports it to a server where the configuration names one.\n"
    "\n"
    "  --root DIR      install root; otherwise the environment variable RUNTIME_CENTER_PATH\n"
    "  --config FILE   configuration, instead of conf/agent.conf below the root\n"
    "  --daemon        run in the background\n"
    "  --check-config  check the configuration and exit\n"
    "  --status        tell how the agent that runs from the root is, and exit\n"
    "  --json          with --status: one JSON object instead of text\n"
    "  --version       print the version and exit\n"
    "  --help          print this and exit\n"
    "\n"
    "Signals: SIGINT, SIGQUIT and SIGTSTP stop the agent, SIGUSR1 writes a report to log/coredump.log.\n"
    "Exit status: 0 success, 1 the agent could not run or, for --status, does not answer, 2 wrong options, root\n"
    "or configuration, 3 --status names problems. A stopped agent ends by SIGTERM.\n";

struct Options {
    std::string root;
    std::string config;
    bool daemon = false;
    bool checkConfig = false;
    bool status = false;
    bool json = false;
};

AgentConfig g_config;
std::atomic<bool> g_guarded{false};   // the guard has been initialised
std::atomic<bool> g_watching{false};  // the file monitor has been started
std::atomic<bool> g_linked{false};    // the server link has been started

// Never destroyed, like the pool: a stop may come until the very end of the process.
TaskManager& Tasks()
{
    static auto& tasks = *new TaskManager;
    return tasks;
}

ServerLink& Server()
{
    static auto& server = *new ServerLink;
    return server;
}

FeatureHost& Features()
{
    static auto& features = *new FeatureHost(NEUtils::Env::GetEnvString(kRootVariable));
    return features;
}

const Status& OwnStatus()
{
    static const auto& status =
        *new Status(Features(), Server(), Tasks(), g_config.memoryLimitKiB, g_config.cpuLimitPercent);
    return status;
}

FeatureCommands& Commands()
{
    static auto& commands = *new FeatureCommands(Features(), [] { return OwnStatus().ToJson(); });
    return commands;
}

StatusSocket& Listener()
{
    static auto& listener = *new StatusSocket(NEUtils::Env::GetEnvString(kRootVariable) + "/conf");
    return listener;
}

void Complain(const std::string& text)
{
    std::fprintf(stderr, "sentrel-agent: %s\n", text.c_str());
}

// Until the log file is open, what goes wrong is said on standard error.
void SubscribeConsole()
{
    MessageBus::Subscribe(NEUtils::kNormalLog, kConsoleName, [](const NENormalLog& record) {
        if (record.level >= WARN) {
            Complain(std::string(record.levelName) + ": " + record.content);
        }
    });
}

std::shared_ptr<LogSystem::LogFile> MakeLogFile()
{
    return std::make_shared<LogSystem::LogFile>(g_config.logFile, g_config.logLevel, g_config.logMaxSize,
                                                g_config.logCopies);
}

bool IsInPath(const std::string& program)
{
    std::string path = NEUtils::Env::GetEnvString("PATH");
    if (path.empty()) {  // what the shell takes then
        char standard[256] = {};
        confstr(_CS_PATH, standard, sizeof(standard));
        path = standard;
    }
    for (std::size_t start = 0; start <= path.size();) {
        const std::size_t end = std::min(path.find(':', start), path.size());
        std::string candidate = end == start ? "." : path.substr(start, end - start);
        candidate.append("/").append(program);
        if (access(candidate.c_str(), X_OK) == 0) {
            return true;
        }
        start = end + 1;
    }
    return false;
}

// Without a report to write the frame swallows every signal, a stop too.
bool CheckReport(const std::string& root)
{
    const std::string report = root + "/log/coredump.log";
    const int fd = open(report.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | O_NONBLOCK, 0600);
    if (fd < 0) {
        Complain("crash report " + report + " cannot be written: " + std::strerror(errno));
        return false;
    }
    close(fd);
    return true;
}

// What the log needs and cannot report once it is missing.
bool CheckLogSurroundings()
{
    const std::string folder = g_config.logFile.substr(0, g_config.logFile.rfind('/') + 1);
    if (access(folder.c_str(), W_OK | X_OK) != 0) {
        Complain("log folder " + folder + " cannot be written: " + std::strerror(errno));
        return false;
    }
    struct stat status = {};
    if (lstat(g_config.logFile.c_str(), &status) == 0 && !S_ISREG(status.st_mode) && !S_ISLNK(status.st_mode)) {
        Complain("log file " + g_config.logFile + " is a directory or a special file");
        return false;
    }
    if (g_config.logCopies > 0 && !IsInPath("gzip")) {
        Complain("gzip is missing, and the log cannot roll without it: install gzip or set LOG_COPIES=0");
        return false;
    }
    // The startup kind opens nothing, so this only asks whether the file would be taken.
    const bool taken =
        LogSystem::Register(MakeLogFile(), NEUtils::kStartupLog, kLogName, &LogSystem::GetDefaultLogContent);
    LogSystem::CloseAllLogFile();
    return taken;
}

// The single-instance check knows an agent by its executable.
void CheckExecutable(const std::string& root)
{
    char link[PATH_MAX] = {};
    const std::string expected = root + "/bin/sentrel-agent";
    if (readlink("/proc/self/exe", link, sizeof(link) - 1) > 0 && expected != link) {
        NE_LOG(WARN, "A second instance would not be noticed.[executable=%s expected=%s]", link, expected.c_str());
    }
}

sigset_t StopSignalSet()
{
    sigset_t signals;
    sigemptyset(&signals);
    for (const int signo : kStopSignals) {
        sigaddset(&signals, signo);
    }
    return signals;
}

// Takes one stop signal, if one comes before the limit (none: without limit), and ends the process
// through the frame; comes back only where there is none or the frame swallows it.
void TakeStop(const timespec* limit)
{
    const sigset_t signals = StopSignalSet();
    siginfo_t info = {};
    const int signo = sigtimedwait(&signals, &info, limit);
    if (signo > 0) {
        MyProgram::SigActionHandler(signo, &info, nullptr);
        NE_LOG(ERROR, "Stop signal is without effect, the crash report cannot be written.[signo=%d]", signo);
    }
}

void* ReportUsage(void*)
{
    NE_LOG(INFO, "Self resource usage.[cpu=%.1f memKiB=%ld fds=%d]", GetCpuUsage(), GetMemoryUsage(), GetFdUsage());
    return nullptr;
}

void* CheckServer(void*)
{
    Server().Check();
    return nullptr;
}

void RunEvery(unsigned int seconds, void* (*function)(void*), const char* name, bool onPool)
{
    NEUtils::TASK_CONDITION condition = {};
    condition.createThread = onPool;
    condition.firstDelayMs = condition.intervalMs = std::int64_t{seconds} * 1000;
    condition.firstLaunchTime = condition.nextLaunchTime =
        std::int64_t{std::time(nullptr)} * 1000 + condition.firstDelayMs;
    Tasks().RegisterTask(NEUtils::TASK_FIXED_INTERVAL, condition, function, nullptr, name);
}

// The guard first: pool and scheduler run on its threads.
bool StartThreads()
{
    g_guarded = InitHipsGuard(static_cast<long>(g_config.memoryLimitKiB), static_cast<int>(g_config.descriptorLimit),
                              g_config.cpuLimitPercent) == 0;
    auto& pool = ThreadPool::GetInstance();
    if (!g_guarded || !pool.Start(1, std::max(g_config.poolMaxThreads, kLeastPoolThreads)) || !Tasks().Start(&pool)) {
        return false;
    }
    if (g_config.reportSeconds > 0) {
        RunEvery(g_config.reportSeconds, &ReportUsage, "self-usage", false);
    }
    return true;
}

// The channel last: until it is up, reports wait.
bool StartFeatures()
{
    if (g_config.reportsToServer) {
        g_linked = Server().Start(g_config.queueCount, g_config.queueBytes);
        if (!g_linked) {
            return false;
        }
    }
    g_watching = NEUtils::Monitor::InitFileMonitor();
    Commands().Start();
    if (g_linked && !Commands().Listen()) {
        NE_LOG(ERROR, "Commands of the server are not taken.");
    }
    if (g_linked) {
        RunEvery(1, &CheckServer, "server-check", true);  // it may wait for a connection
    }
    return true;
}

void OpenListener()
{
    const std::string fault = Listener().Open();
    if (!fault.empty()) {
        NE_LOG(ERROR, "Status cannot be asked for.[reason=%s]", fault.c_str());
    }
}

// Answers who asks for the status, until there is a stop signal.
void ServeStatus(int signals)
{
    pollfd wanted[] = {{signals, POLLIN, 0}, {Listener().GetFd(), POLLIN, 0}};
    while (wanted[0].revents == 0) {
        if (poll(wanted, std::size(wanted), -1) <= 0 || wanted[1].revents == 0) {
            continue;
        }
        const int client = Listener().Accept();
        if (client >= 0) {
            StatusSocket::Send(client, OwnStatus().ToJson());
        } else {  // no descriptors left, say: whoever asks would be there again at once
            poll(wanted, 1, kRetryMs);
        }
    }
}

int AgentMain()
{
    // A roll of an old log runs a shell command, whose start discards a stop that is already pending.
    const timespec now = {};
    TakeStop(&now);
    const auto file = MakeLogFile();
    if (!file->CheckLogInfo()) {
        Complain("log file " + g_config.logFile + " cannot be opened, or the old one cannot be rolled away");
        return kExitFailed;
    }
    if (!LogSystem::Register(file, g_config.logKind, kLogName, &LogSystem::GetDefaultLogContent)) {
        return kExitFailed;
    }
    LogSystem::SetGlobalRecordLines(g_config.logLinesPerDay);
    NE_LOG(INFO, "Agent started.[version=%s pid=%d]", AGENT_VERSION, getpid());
    CheckExecutable(NEUtils::Env::GetEnvString(kRootVariable));
    OwnStatus();  // counts the time from here
    OpenListener();
    const sigset_t stop = StopSignalSet();
    const int signals = signalfd(-1, &stop, SFD_CLOEXEC | SFD_NONBLOCK);
    if (signals < 0 || !StartThreads() || !StartFeatures()) {
        return kExitFailed;
    }
    MessageBus::Unsubscribe(NEUtils::kNormalLog, kConsoleName);
    std::printf("sentrel-agent %s runs.[pid=%d log=%s]\n", AGENT_VERSION, getpid(), g_config.logFile.c_str());
    static_cast<void>(std::fflush(stdout));
    for (;;) {
        ServeStatus(signals);
        TakeStop(&now);
    }
}

std::uint64_t LostEvents()
{
    std::uint64_t lost = 0;
    for (const auto& feature : NEUtils::FeatureCounters::All()) {
        lost += feature.second->lost;
    }
    return lost;
}

// Runs on the main thread for a stop signal, and in the handler of whichever thread crashed.
int AgentStop()
{
    for (const int signo : kStopSignals) {
        signal(signo, SIG_IGN);
    }
    alarm(kStopLimitSeconds);  // a stop that hangs still ends
    if (g_watching) {          // first: it ends the walk through a large tree that a feature may be waiting for
        NEUtils::Monitor::DeInitFileMonitor();
    }
    Commands().StopApplying();
    Features().Stop();
    if (g_linked) {
        Server().Stop();
    }
    Commands().Stop();
    Tasks().Stop();
    ThreadPool::GetInstance().Stop();
    if (g_guarded) {
        UninitHipsGuard();
    }
    Listener().Close();
    auto& reports = NEUtils::ReportQueue::GetInstance();
    NE_LOG(INFO, "Agent stopped.[lostEvents=%llu droppedReports=%llu unsentReports=%zu]",
           static_cast<unsigned long long>(LostEvents()), static_cast<unsigned long long>(reports.GetDroppedCount()),
           reports.GetCount());
    LogSystem::CloseAllLogFile();
    return 0;
}

// What the process was started with must not decide how it ends.
void SettleSignals()
{
    sigset_t open;
    sigemptyset(&open);
    for (const int signo : {SIGTERM, SIGALRM, SIGUSR1}) {
        sigaddset(&open, signo);
    }
    for (const int signo : {SIGTERM, SIGALRM, SIGCHLD}) {
        signal(signo, SIG_DFL);  // an ignored SIGCHLD would hide how gzip ended
    }
    pthread_sigmask(SIG_UNBLOCK, &open, nullptr);
    // Blocked on every thread from here on: the main thread waits for them.
    const sigset_t stop = StopSignalSet();
    pthread_sigmask(SIG_BLOCK, &stop, nullptr);
}

// The frame finds its install root in the environment.
bool CheckPrivileges()
{
    if (getauxval(AT_SECURE) == 0) {
        return true;
    }
    Complain("runs set-user-id or with file capabilities, where the environment is ignored: start it as root");
    return false;
}

// Gives the exit status for an end right away, or -1 to go on.
int ParseOptions(int argc, char** argv, Options& options)
{
    static const option known[] = {
        {"root", required_argument, nullptr, 'r'},
        {"config", required_argument, nullptr, 'c'},
        {"daemon", no_argument, nullptr, 'd'},
        {"check-config", no_argument, nullptr, 'k'},
        {"status", no_argument, nullptr, 's'},
        {"json", no_argument, nullptr, 'j'},
        {"version", no_argument, nullptr, 'v'},
        {"help", no_argument, nullptr, 'h'},
        {nullptr, 0, nullptr, 0},
    };
    for (int name; (name = getopt_long(argc, argv, "", known, nullptr)) != -1;) {
        switch (name) {
        case 'r':
            options.root = optarg;
            break;
        case 'c':
            options.config = optarg;
            break;
        case 'd':
            options.daemon = true;
            break;
        case 'k':
            options.checkConfig = true;
            break;
        case 's':
            options.status = true;
            break;
        case 'j':
            options.json = true;
            break;
        case 'v':
            std::puts("sentrel-agent " AGENT_VERSION);
            return 0;
        case 'h':
            std::fputs(kHelp, stdout);
            return 0;
        default:  // getopt has said what is wrong
            return kExitUsage;
        }
    }
    if (optind < argc) {
        Complain(std::string("unexpected argument '") + argv[optind] + "'; --help lists the options");
        return kExitUsage;
    }
    if (options.json && !options.status) {
        Complain("--json goes with --status");
        return kExitUsage;
    }
    return -1;
}

int ShowStatus(const std::string& root, bool json)
{
    std::string answer;
    std::string text;
    const std::string fault = StatusSocket::Ask(root + "/conf", answer);
    const StatusResult result = fault.empty() ? StatusText(answer, text) : kNoStatus;
    if (result == kNoStatus) {
        Complain("--status: " + (fault.empty() ? "the answer is no status" : fault));
        return kExitFailed;
    }
    std::fputs((json ? answer + "\n" : text).c_str(), stdout);
    return result == kWell ? 0 : kExitNotWell;
}

// Makes the root absolute and free of links, since the executable is known by its resolved path.
bool SettleRoot(std::string& root)
{
    if (root.empty()) {
        root = NEUtils::Env::GetEnvString(kRootVariable);
    }
    if (root.empty()) {
        Complain(std::string("no install root: give --root DIR or set ") + kRootVariable);
        return false;
    }
    const std::unique_ptr<char, decltype(&std::free)> resolved(realpath(root.c_str(), nullptr), &std::free);
    if (resolved == nullptr) {
        Complain("install root " + root + ": " + std::strerror(errno));
        return false;
    }
    root = resolved.get();
    return setenv(kRootVariable, root.c_str(), 1) == 0;
}

}  // namespace

int main(int argc, char** argv)
{
    Options options;
    const int ended = ParseOptions(argc, argv, options);
    if (ended >= 0) {
        return ended;
    }
    if (!SettleRoot(options.root)) {
        return kExitUsage;
    }
    if (options.status) {
        return ShowStatus(options.root, options.json);
    }
    const std::string configPath = options.config.empty() ? options.root + "/conf/agent.conf" : options.config;
    std::string fault;
    if (!LoadAgentConfig(configPath, options.root, g_config, fault)) {
        Complain(fault);
        return kExitUsage;
    }
    if (options.checkConfig) {
        std::printf("%s: correct\n", configPath.c_str());
        return 0;
    }
    SubscribeConsole();
    if (!CheckPrivileges() || !CheckReport(options.root) || !CheckLogSurroundings()) {
        return kExitFailed;
    }
    SettleSignals();
    MyProgram& program = MyProgram::GetInstance();
    program.SetLogPath(options.root + "/log");
    return program.RunProgram(options.daemon, true, &AgentMain, &AgentStop, nullptr, nullptr, nullptr) ? 0
                                                                                                       : kExitFailed;
}
