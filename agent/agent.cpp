#include "agent.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <iterator>
#include <string>
#include <thread>

#include "child_ender.h"
#include "command_line.h"
#include "console.h"
#include "event_file.h"
#include "feature_counters.h"
#include "hips_guard.h"
#include "logger.h"
#include "monitor.h"
#include "monitor_manager.h"
#include "my_program.h"
#include "report_queue.h"
#include "thread_pool.h"
#include "util/unique_fd.h"

using NEUtils::MyProgram;
using NEUtils::ThreadPool;
using NEUtils::UniqueFd;

namespace {

// The server's check, the agent's own, policies and digests: none waits for another.
constexpr unsigned int kLeastPoolThreads = 4;
constexpr unsigned int kStopLimitSeconds = 10;
constexpr unsigned int kSelfCheckSeconds = 10;
constexpr int kRetryMs = 1000;

void* ReportUsage(void*)
{
    NE_LOG(INFO, "Self resource usage.[cpu=%.1f memKiB=%ld fds=%d]", GetCpuUsage(), GetMemoryUsage(), GetFdUsage());
    return nullptr;
}

void* CheckServer(void* link)
{
    static_cast<ServerLink*>(link)->Check();
    return nullptr;
}

void* CheckSelf(void* check)
{
    static_cast<SelfCheck*>(check)->Check();
    return nullptr;
}

bool IsFault(int signo)
{
    return signo == SIGSEGV || signo == SIGBUS || signo == SIGILL || signo == SIGFPE || signo == SIGABRT;
}

void LogEnd()
{
    std::uint64_t lost = 0;
    for (const auto& feature : NEUtils::FeatureCounters::All()) {
        lost += feature.second->lost;
    }
    auto& reports = NEUtils::ReportQueue::GetInstance();
    NE_LOG(INFO, "Agent stopped.[lostEvents=%llu droppedReports=%llu unsentReports=%zu]",
           static_cast<unsigned long long>(lost), static_cast<unsigned long long>(reports.GetDroppedCount()),
           reports.GetCount());
}

}  // namespace

// Pool and scheduler run on the guard's threads, features need all of that and the file monitor, and what they
// still report at their end needs the link. The file monitor stops first: it ends the walk through a large tree
// that a feature may be waiting for. Its thread is waited for late: its last sleep may take three seconds, in which
// all others end.
const std::array<Agent::Part, 13> Agent::kParts = {{
    {"last run",
     [](Agent& own) {
         own.lastRun_.Begin();
         return true;
     },
     [](Agent& own) { own.lastRun_.End(); }},
    {"log", [](Agent& own) { return own.OpenLog(); },
     [](Agent& own) {
         LogEnd();
         own.log_.Close();
     }},
    {"status socket",
     [](Agent& own) {
         const std::string fault = own.socket_.Open();
         own.status_.SetProblem("socket", fault.empty() ? "" : "the status cannot be asked for: " + fault);
         return true;
     },
     [](Agent& own) { own.socket_.Close(); }},
    {"guard",
     [](Agent& own) {
         const bool started = InitHipsGuard(own.config_.memoryLimitKiB, static_cast<int>(own.config_.descriptorLimit),
                                            own.config_.cpuLimitPercent) == 0;
         own.ApplyLimits();
         return started;
     },
     [](Agent&) { UninitHipsGuard(); }},
    {"file monitor's thread", [](Agent&) { return true; }, [](Agent&) { NEUtils::Monitor::DeInitFileMonitor(); }},
    {"pool",
     [](Agent& own) {
         return ThreadPool::GetInstance().Start(1, std::max(own.config_.poolMaxThreads, kLeastPoolThreads));
     },
     [](Agent&) { ThreadPool::GetInstance().Stop(); }},
    {"event file",
     [](Agent& own) {
         own.OpenEventFile();
         return true;
     },
     [](Agent&) { NEUtils::EventFile::GetInstance().Close(); }},
    {"tasks",
     [](Agent& own) {
         const bool started = own.tasks_.Start(&ThreadPool::GetInstance());
         own.usageTask_ = own.RunEvery(own.config_.reportSeconds, &ReportUsage, nullptr, "self-usage", false);
         return started;
     },
     [](Agent& own) { own.tasks_.Stop(); }},
    {"commands",
     [](Agent& own) {
         own.commands_.Start();
         own.reload_.Start(ThreadPool::GetInstance(), "reload", [&own] { own.Reload(); });
         return true;
     },
     [](Agent& own) {
         own.reload_.Stop();
         own.commands_.Stop();
     }},
    {"server link", [](Agent& own) { return !own.config_.reportsToServer || own.StartLink(); },
     [](Agent& own) { own.server_.Stop(); }},
    {"self check",
     [](Agent& own) {
         own.RunEvery(kSelfCheckSeconds, &CheckSelf, &own.selfCheck_, "self-check", true);
         return true;
     },
     [](Agent&) {}},
    {"features", [](Agent&) { return true; },
     [](Agent& own) {
         own.commands_.StopApplying();
         own.features_.Stop();
     }},
    {"file monitor",
     [](Agent& own) {
         NEUtils::Monitor::InitFileMonitor();  // without it the features that need it fail, and say so
         own.commands_.ApplyKept();
         return true;
     },
     [](Agent&) {
         FastStopAll();  // the guarded threads sleep to their ends side by side
         NEUtils::MonitorManager::GetInstance().DeInit();
     }},
}};

Agent::Agent(const std::string& root, const std::string& configPath, const AgentConfig& config)
    : root_(root),
      configPath_(configPath),
      config_(config),
      lastRun_(root),
      log_(config),
      features_(root),
      status_(features_, server_, tasks_),
      commands_(
          features_, [this] { return status_.ToJson(); }, [this] { return server_.GetCommandRefusal(); }),
      selfCheck_(status_),
      socket_(root + "/conf")
{
    status_.AddSource([this](Problems& problems) { AddProblems(problems); });
}

std::uint32_t Agent::RunEvery(unsigned int seconds, void* (*function)(void*), void* argument, const char* name,
                              bool onPool)
{
    if (seconds == 0) {
        return 0;
    }
    NEUtils::TASK_CONDITION condition = {};
    condition.createThread = onPool;
    condition.firstDelayMs = condition.intervalMs = std::int64_t{seconds} * 1000;
    condition.firstLaunchTime = condition.nextLaunchTime =
        std::int64_t{std::time(nullptr)} * 1000 + condition.firstDelayMs;
    return tasks_.RegisterTask(NEUtils::TASK_FIXED_INTERVAL, condition, function, argument, name);
}

// An old log is compressed first, which may hang. It does so on a thread of its own: a stop need not wait for it.
bool Agent::OpenLog()
{
    const UniqueFd done(eventfd(0, EFD_CLOEXEC));
    bool opened = false;
    std::thread opener([&] {
        opened = log_.Prepare();
        eventfd_write(done.Get(), 1);
    });
    pollfd wanted[] = {{done.Get(), POLLIN, 0}, {signals_.GetStopFd(), POLLIN, 0}};
    while (wanted[0].revents == 0) {
        poll(wanted, std::size(wanted), -1);
        if (Signals::Stop stop; signals_.TakeStop(stop)) {
            EndBy(stop);
        }
    }
    opener.join();
    if (!opened) {
        Complain("log file " + config_.logFile + " cannot be opened, or the old one cannot be rolled away");
        return false;
    }
    if (!log_.Register()) {
        return false;
    }
    NE_LOG(INFO, "Agent started.[version=%s pid=%d]", AGENT_VERSION, getpid());
    if (const std::string& fault = lastRun_.GetFault(); !fault.empty()) {
        NE_LOG(WARN, "Last run did not stop by itself.[reason=%s]", fault.c_str());
        status_.AddNews("last run", fault);
    }
    return true;
}

// Without it events are in the log still, so the agent runs on.
void Agent::OpenEventFile()
{
    if (config_.eventFile.empty()) {
        return;
    }
    const std::string fault =
        NEUtils::EventFile::GetInstance().Open({config_.eventFile, config_.eventMaxSize, config_.eventCopies});
    if (!fault.empty()) {
        NE_LOG(ERROR, "Event file cannot be opened.[reason=%s]", fault.c_str());
        status_.SetProblem("event file", "the event file cannot be opened: " + fault);
    }
}

// What can go wrong with files that are written all the time.
void Agent::AddProblems(Problems& problems) const
{
    const std::string log = log_.GetFault();
    problems.AddIf(!log.empty(), "log", "the log cannot be written: " + log);
    problems.AddIf(NEUtils::LogSystem::IsBudgetUsedUp(), "log budget",
                   "the log has used up LOG_LINES_PER_DAY, " +
                       std::to_string(NEUtils::LogSystem::GetLinesOverBudget()) + " lines were left out");
    const std::string events = NEUtils::EventFile::GetInstance().GetFault();
    problems.AddIf(!events.empty(), "event file writes", "the event file cannot be written: " + events);
}

bool Agent::StartLink()
{
    if (!server_.Start(config_.queueCount, config_.queueBytes)) {
        return false;
    }
    status_.SetProblem("commands", commands_.Listen() ? "" : "commands of the server are not taken");
    RunEvery(1, &CheckServer, &server_, "server-check", true);  // it may wait for a connection
    return true;
}

bool Agent::Start()
{
    for (const Part& part : kParts) {
        if (Signals::Stop stop; signals_.TakeStop(stop)) {
            EndBy(stop);
        }
        if (!part.start(*this)) {
            if (started_ > 1) {  // the log says itself what is wrong
                NE_LOG(ERROR, "Agent cannot start.[part=%s]", part.name);
            }
            return false;
        }
        ++started_;
    }
    return true;
}

void Agent::StopParts()
{
    while (started_ > 0) {
        const Part& part = kParts[--started_];
        lastRun_.Note(LastRun::kStopping, 0, part.name);  // if it hangs, the next start says where
        part.stop(*this);
    }
}

int Agent::Run()
{
    if (!signals_.Open() || !Start()) {
        StopParts();
        return kExitFailed;
    }
    UnsubscribeConsole();
    std::printf("sentrel-agent %s runs.[pid=%d log=%s]\n", AGENT_VERSION, getpid(), config_.logFile.c_str());
    static_cast<void>(std::fflush(stdout));
    for (;;) {
        Serve();
    }
}

// Waits for a signal or for somebody who asks for the status, and does what is asked. Writes nothing to the log: where
// that hangs, in a roll say, the status tells it and a stop ends it.
void Agent::Serve()
{
    pollfd wanted[] = {
        {signals_.GetStopFd(), POLLIN, 0}, {signals_.GetReloadFd(), POLLIN, 0}, {socket_.GetFd(), POLLIN, 0}};
    if (poll(wanted, std::size(wanted), -1) <= 0) {
        return;
    }
    if (Signals::Stop stop; signals_.TakeStop(stop)) {
        EndBy(stop);
    }
    if (signals_.TakeReload() && !reload_.Request()) {
        status_.SetProblem("configuration", "the configuration has not been reloaded: the pool takes no more jobs");
    }
    if (wanted[2].revents != 0) {
        ServeStatus();
    }
}

void Agent::ServeStatus()
{
    const UniqueFd client = socket_.Accept();
    if (client.IsValid()) {
        StatusSocket::Send(client, status_.ToJson());
    } else {  // no descriptors left, say: whoever asks would be there again at once
        pollfd stop = {signals_.GetStopFd(), POLLIN, 0};
        poll(&stop, 1, kRetryMs);
    }
}

// Does not come back.
void Agent::EndBy(const Signals::Stop& stop)
{
    EndChildrenFromNowOn();
    if (stop.isOfGuard) {
        lastRun_.Note(LastRun::kHung);
        NE_LOG(ERROR, "Guard ends the agent, a thread hangs.");
    }
    MyProgram::SigActionHandler(stop.signo, nullptr, nullptr);
    if (stopping_) {  // the kernel keeps the first process of a container from its own SIGTERM
        _exit(kExitFailed);
    }
    // The frame swallows a signal whose report cannot be written. That must not make the agent run for ever.
    NE_LOG(ERROR, "Crash report cannot be written, the agent stops without one.[signo=%d]", stop.signo);
    MyProgram::SigDeal(-1, stop.signo);
    _exit(kExitFailed);
}

void Agent::Stop()
{
    const int signo = MyProgram::GetStopSignal();
    const bool hasCrashed = IsFault(signo);
    if (hasCrashed) {
        lastRun_.Note(LastRun::kCrashed, signo);  // first: it is sure to work
    }
    if (stopping_.exchange(true)) {
        if (hasCrashed) {
            return;
        }
        for (;;) {
            pause();  // another thread has crashed, and ends the process when it has stopped what it can
        }
    }
    alarm(kStopLimitSeconds);  // a stop that hangs still ends
    if (hasCrashed) {
        NE_LOG(ERROR, "Agent has crashed.[signal=%d report=%s]", signo, MyProgram::GetReportPath());
    }
    StopParts();
    if (hasCrashed && getpid() == 1) {  // else the fault would come again and again: see EndBy
        _exit(kExitFailed);
    }
}

void Agent::ApplyLimits()
{
    const UseLimits limits = LimitsOf(config_);
    SetResourceLimit(limits.memoryKiB, limits.descriptors, limits.cpuPercent);
    status_.SetLimits(limits);
}

// Reads configuration and policies again.
void Agent::Reload()
{
    AgentConfig loaded;
    const std::string fault = LoadAgentConfig(configPath_, root_, loaded);
    status_.SetProblem("configuration", fault.empty() ? "" : "the configuration has not been reloaded: " + fault);
    if (fault.empty()) {
        const std::string fixed = TakeChanges(loaded, config_);
        log_.SetLimits(config_);
        ApplyLimits();
        tasks_.UnregisterTask(usageTask_);
        usageTask_ = RunEvery(config_.reportSeconds, &ReportUsage, nullptr, "self-usage", false);
        NE_LOG(INFO, "Configuration has been reloaded.[onlyFromNextStart=%s]", fixed.c_str());
    } else {
        NE_LOG(ERROR, "Configuration has not been reloaded.[reason=%s]", fault.c_str());
    }
    commands_.Reload();
}
