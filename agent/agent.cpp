#include "agent.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <iterator>
#include <utility>

#include "agent_log.h"
#include "command_line.h"
#include "console.h"
#include "feature_counters.h"
#include "hips_guard.h"
#include "logger.h"
#include "monitor.h"
#include "my_program.h"
#include "report_queue.h"
#include "thread_pool.h"

using NEUtils::MyProgram;
using NEUtils::ThreadPool;

namespace {

constexpr unsigned int kLeastPoolThreads = 3;  // the server's check, policies and digests: none waits for another
constexpr unsigned int kStopLimitSeconds = 10;
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

std::uint64_t LostEvents()
{
    std::uint64_t lost = 0;
    for (const auto& feature : NEUtils::FeatureCounters::All()) {
        lost += feature.second->lost;
    }
    return lost;
}

void LogEnd()
{
    auto& reports = NEUtils::ReportQueue::GetInstance();
    NE_LOG(INFO, "Agent stopped.[lostEvents=%llu droppedReports=%llu unsentReports=%zu]",
           static_cast<unsigned long long>(LostEvents()), static_cast<unsigned long long>(reports.GetDroppedCount()),
           reports.GetCount());
}

}  // namespace

// Pool and scheduler run on the guard's threads, features need all of that and the file monitor, and what they
// still report at their end needs the link. The file monitor stops first: it ends the walk through a large tree
// that a feature may be waiting for.
const std::array<Agent::Part, 9> Agent::kParts = {{
    {"log",
     [](Agent& own) {
         const bool opened = AgentLog::Open(own.config_);
         if (opened) {
             NE_LOG(INFO, "Agent started.[version=%s pid=%d]", AGENT_VERSION, getpid());
         }
         return opened;
     },
     [](Agent&) {
         LogEnd();
         AgentLog::Close();
     }},
    {"status socket",
     [](Agent& own) {
         if (const std::string fault = own.socket_.Open(); !fault.empty()) {
             NE_LOG(ERROR, "Status cannot be asked for.[reason=%s]", fault.c_str());
         }
         return true;
     },
     [](Agent& own) { own.socket_.Close(); }},
    {"guard",
     [](Agent& own) {
         return InitHipsGuard(static_cast<long>(own.config_.memoryLimitKiB),
                              static_cast<int>(own.config_.descriptorLimit), own.config_.cpuLimitPercent) == 0;
     },
     [](Agent&) { UninitHipsGuard(); }},
    {"pool",
     [](Agent& own) {
         return ThreadPool::GetInstance().Start(1, std::max(own.config_.poolMaxThreads, kLeastPoolThreads));
     },
     [](Agent&) { ThreadPool::GetInstance().Stop(); }},
    {"tasks",
     [](Agent& own) {
         const bool started = own.tasks_.Start(&ThreadPool::GetInstance());
         own.RunEvery(own.config_.reportSeconds, &ReportUsage, nullptr, "self-usage", false);
         return started;
     },
     [](Agent& own) { own.tasks_.Stop(); }},
    {"commands",
     [](Agent& own) {
         own.commands_.Start();
         return true;
     },
     [](Agent& own) { own.commands_.Stop(); }},
    {"server link",
     [](Agent& own) {
         if (!own.config_.reportsToServer) {
             return true;
         }
         if (!own.server_.Start(own.config_.queueCount, own.config_.queueBytes)) {
             return false;
         }
         if (!own.commands_.Listen()) {
             NE_LOG(ERROR, "Commands of the server are not taken.");
         }
         own.RunEvery(1, &CheckServer, &own.server_, "server-check", true);  // it may wait for a connection
         return true;
     },
     [](Agent& own) { own.server_.Stop(); }},
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
     [](Agent&) { NEUtils::Monitor::DeInitFileMonitor(); }},
}};

Agent::Agent(const std::string& root, AgentConfig config)
    : root_(root),
      config_(std::move(config)),
      features_(root),
      status_(features_, server_, tasks_, config_.memoryLimitKiB, config_.cpuLimitPercent),
      commands_(features_, [this] { return status_.ToJson(); }),
      socket_(root + "/conf")
{
}

void Agent::RunEvery(unsigned int seconds, void* (*function)(void*), void* argument, const char* name, bool onPool)
{
    if (seconds == 0) {
        return;
    }
    NEUtils::TASK_CONDITION condition = {};
    condition.createThread = onPool;
    condition.firstDelayMs = condition.intervalMs = std::int64_t{seconds} * 1000;
    condition.firstLaunchTime = condition.nextLaunchTime =
        std::int64_t{std::time(nullptr)} * 1000 + condition.firstDelayMs;
    tasks_.RegisterTask(NEUtils::TASK_FIXED_INTERVAL, condition, function, argument, name);
}

bool Agent::Start()
{
    for (const Part& part : kParts) {
        if (const int signo = signals_.Take(); signo != 0) {
            OnSignal(signo);
        }
        if (!part.start(*this)) {
            if (started_ > 0) {  // the log says itself what is wrong
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
        kParts[--started_].stop(*this);
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

// Waits for a signal or for somebody who asks for the status, and does what is asked.
void Agent::Serve()
{
    pollfd wanted[] = {{signals_.GetFd(), POLLIN, 0}, {socket_.GetFd(), POLLIN, 0}};
    if (poll(wanted, std::size(wanted), -1) <= 0) {
        return;
    }
    if (const int signo = signals_.Take(); signo != 0) {
        OnSignal(signo);
    } else if (wanted[1].revents != 0) {
        const int client = socket_.Accept();
        if (client >= 0) {
            StatusSocket::Send(client, status_.ToJson());
        } else {  // no descriptors left, say: whoever asks would be there again at once
            poll(wanted, 1, kRetryMs);
        }
    }
}

// A stop does not come back, except where the frame swallows it.
void Agent::OnSignal(int signo)
{
    MyProgram::SigActionHandler(signo, nullptr, nullptr);
    NE_LOG(ERROR, "Stop signal is without effect, the crash report cannot be written.[signo=%d]", signo);
}

void Agent::Stop()
{
    for (const int signo : {SIGINT, SIGQUIT, SIGTSTP}) {
        signal(signo, SIG_IGN);
    }
    alarm(kStopLimitSeconds);  // a stop that hangs still ends
    StopParts();
}
