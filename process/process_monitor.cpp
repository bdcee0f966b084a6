#include "process_monitor.h"

#include <linux/connector.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <exception>

#include "byte_buffer.h"
#include "logger.h"
#include "process/datagram_batch.h"
#include "process/event_callbacks.h"
#include "process/event_filter.h"
#include "process/event_reception.h"
#include "util/clock.h"
#include "util/errno_text.h"
#include "util/file.h"
#include "util/rate_limiter.h"
#include "util/stop_signals.h"
#include "util/text.h"
#include "util/unique_fd.h"

namespace NEUtils {

namespace {

constexpr int kReceiveBuffer = 0x8000000;
constexpr int kWaitMs = 500;
constexpr long kPaceNs = 20 * Clock::kNsPerMs;
constexpr std::chrono::minutes kWhiteListPeriod{10};
constexpr std::chrono::seconds kSearchAgain{30};
constexpr std::int64_t kFailurePeriodMs = 15 * 60 * 1000;
constexpr std::size_t kConnectorOffset = sizeof(nlmsghdr);
constexpr std::size_t kModeOffset = kConnectorOffset + sizeof(cn_msg);
constexpr std::size_t kControlSize = kModeOffset + sizeof(std::uint32_t);

thread_local const ProcessMonitor* t_monitor = nullptr;  // the one that this thread works for

std::string SearchCommand(const std::string& pattern)
{
    return "ps -ef | grep \"" + pattern + "\" | grep -v grep | awk '{print $2}'";
}

}  // namespace

ProcessMonitor::ProcessMonitor() : callbacks_(std::make_unique<EventCallbacks>()) {}

ProcessMonitor::~ProcessMonitor()
{
    if (running_) {
        StopProcessMonitor();
    }
    JoinThread();
}

void ProcessMonitor::SetEventKinds(std::uint32_t mask)
{
    eventKinds_ = mask;
}

void ProcessMonitor::SetProcessesOnly(bool processesOnly)
{
    processesOnly_ = processesOnly;
}

std::uint64_t ProcessMonitor::GetLostEventCount() const
{
    return lostEvents_;
}

void ProcessMonitor::StartProcessMonitor()
{
    if (running_) {
        NE_LOG(WARN, "The process monitor is running.");
        return;
    }
    if (!JoinThread()) {  // of a stop that came from a callback
        return;
    }
    running_ = true;
    Beat();
    phase_ = kStarting;
    int result;
    {
        const StopSignalsBlocked blocked;
        result = pthread_create(&thread_, nullptr, &ProcessMonitor::MonitorProcessThread, this);
    }
    if (result != 0) {
        NE_LOG(ERROR, "Fail to create process monitor thread.");
        running_ = false;  // not left set: the next start would find a monitor that runs, and do nothing
        phase_ = kEnded;
        return;
    }
    joinable_ = true;
    pthread_setname_np(thread_, "monitor-process");
    NE_LOG(INFO, "The process monitor started successfully.");
}

void ProcessMonitor::StopProcessMonitor()
{
    if (!running_.exchange(false)) {
        NE_LOG(WARN, "The process monitor has stopped.");
        if (!IsOwnThread()) {
            JoinThread();
        }
        return;
    }
    JoinThread();
    NE_LOG(INFO, "The process monitor stopped successfully.");
}

bool ProcessMonitor::IsOwnThread() const
{
    return t_monitor == this;
}

// True once no thread of this monitor is left.
bool ProcessMonitor::JoinThread()
{
    if (!IsOwnThread()) {
        if (!joinable_) {
            return true;
        }
        if (pthread_join(thread_, nullptr) == 0) {
            joinable_ = false;
            return true;
        }
    }
    NE_LOG(ERROR, "Fail to wait the process monitor thread to terminate.");
    return false;
}

void ProcessMonitor::AddProcessEventCallback(Callback callback)
{
    if (callback == nullptr) {
        NE_LOG(ERROR, "The callback is null.");
        return;
    }
    callbacks_->Add(callback);
}

void ProcessMonitor::RemoveProcessEventCallback(Callback callback)
{
    if (callback == nullptr) {
        NE_LOG(ERROR, "The callback is null.");
        return;
    }
    callbacks_->Remove(callback);
}

void* ProcessMonitor::MonitorProcessThread(void* monitor)
{
    if (monitor == nullptr) {
        NE_LOG(ERROR, "The parameter is null.");
        return nullptr;
    }
    auto* self = static_cast<ProcessMonitor*>(monitor);
    t_monitor = self;
    self->MonitorProcessEvent();
    t_monitor = nullptr;
    self->phase_ = kEnded;
    return nullptr;
}

void ProcessMonitor::MonitorProcessEvent()
{
    // Close-on-exec in addition to the fixed type: a child must not inherit the events.
    const UniqueFd fd(socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_CONNECTOR));
    if (!fd.IsValid()) {
        const int error = errno;
        NE_LOG(ERROR, "Fail to create socket, error information.[errno=%d errmsg=%s]", error, ErrnoText(error).Get());
    } else {
        try {
            Listen(fd.Get());
        } catch (const std::exception& error) {  // memory has run out
            ++overflows_;
            NE_LOG(ERROR, "The process event detection has failed.[what=%s]", error.what());
        }
    }
    // Kept because owners stop a monitor whose setup failed too: the running flag stays set until then.
    NE_LOG(INFO, "The process event detection has stopped.");
}

void ProcessMonitor::Listen(int fd)
{
    if (!SetUpSocket(fd)) {
        return;
    }
    const std::unique_ptr<void, decltype(&std::free)> block(std::malloc(DatagramBatch::kDatagramSize), &std::free);
    if (block == nullptr) {
        NE_LOG(ERROR, "Fail to allocate memory for netlink header.");
        return;
    }
    std::memset(block.get(), 0, DatagramBatch::kDatagramSize);
    auto& header = *static_cast<nlmsghdr*>(block.get());
    if (SendConnectorMode(fd, PROC_CN_MCAST_LISTEN, header)) {
        phase_ = kListening;
        ReceiveEvents(fd);
        SendConnectorMode(fd, PROC_CN_MCAST_IGNORE, header);
    }
}

bool ProcessMonitor::SetUpSocket(int fd) const
{
    if (setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &kReceiveBuffer, sizeof(kReceiveBuffer)) != 0) {
        const int error = errno;
        NE_LOG(ERROR, "Fail to set socket receive buff.[errno=%d errmsg=%s]", error, ErrnoText(error).Get());
        return false;
    }
    if (const int error = AttachEventFilter(fd, eventKinds_, processesOnly_); error != 0) {
        NE_LOG(WARN, "Fail to attach the event filter.[errno=%d errmsg=%s]", error, ErrnoText(error).Get());
    }
    sockaddr_nl address = {};
    address.nl_family = AF_NETLINK;
    address.nl_groups = CN_IDX_PROC;
    if (bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
        const int error = errno;
        NE_LOG(ERROR, "Fail to bind socket, error information.[errno=%d errmsg=%s]", error, ErrnoText(error).Get());
        return false;
    }
    return true;
}

bool ProcessMonitor::SendConnectorMode(int fd, proc_cn_mcast_op mode, nlmsghdr& header) const
{
    const std::uint32_t value = mode;
    std::memcpy(reinterpret_cast<unsigned char*>(&header) + kModeOffset, &value, sizeof(value));
    return SetNetlinkConnectorMode(fd, header);
}

bool ProcessMonitor::SetNetlinkConnectorMode(int fd, nlmsghdr& header) const
{
    header = {};
    header.nlmsg_len = kControlSize;
    header.nlmsg_type = NLMSG_DONE;
    header.nlmsg_pid = static_cast<std::uint32_t>(getpid());
    cn_msg connector = {};
    connector.id.idx = CN_IDX_PROC;
    connector.id.val = CN_VAL_PROC;
    connector.len = sizeof(std::uint32_t);
    std::memcpy(reinterpret_cast<unsigned char*>(&header) + kConnectorOffset, &connector, sizeof(connector));

    sockaddr_nl kernel = {};
    kernel.nl_family = AF_NETLINK;
    kernel.nl_groups = CN_IDX_PROC;
    iovec piece = {&header, kControlSize};
    msghdr message = {};
    message.msg_name = &kernel;
    message.msg_namelen = sizeof(kernel);
    message.msg_iov = &piece;
    message.msg_iovlen = 1;
    if (sendmsg(fd, &message, 0) < 0) {
        const int error = errno;
        NE_LOG(ERROR, "Fail to send message to kernel.[errno=%d errmsg=%s]", error, ErrnoText(error).Get());
        return false;
    }
    return true;
}

void ProcessMonitor::ReceiveEvents(int fd)
{
    EventReception reception(fd, eventKinds_, processesOnly_, [this](proc_event& event) {
        Beat();
        ProcessEventHandle(event);
    });
    listMade_ = nextSearch_ = {};
    RateLimiter failures(kFailurePeriodMs);
    while (running_) {
        try {
            ReceiveRound(fd, reception);
        } catch (const std::exception& error) {  // memory has run out; what the round would have handed on is lost
            ++overflows_;
            listMade_ = {};
            if (failures.Allow(Clock::MonotonicNs() / Clock::kNsPerMs)) {
                NE_LOG(ERROR, "The process event detection has failed.[what=%s]", error.what());
            }
            Clock::SleepNs(kPaceNs);
        }
    }
    reception.Drain();
    CountLosses(reception);
}

void ProcessMonitor::ReceiveRound(int fd, EventReception& reception)
{
    Beat();
    MakeWhiteList();
    reception.HandOnHeldExits();
    // recvmmsg's own timeout does not end a wait on an idle socket, so poll waits.
    pollfd waiting = {fd, POLLIN, 0};
    const int ready = poll(&waiting, 1, kWaitMs);
    if (ready > 0) {
        const int count = reception.Receive();
        const int error = count > 0 ? 0 : errno;
        const bool lost = CountLosses(reception);
        if (count <= 0) {
            NE_LOG(WARN, "Do not receive message from kernel.[errno=%d, errmsg=%s]", error, ErrnoText(error).Get());
        }
        missedExits_ = missedExits_ || lost;
        reception.HandOn(count);
        // An id whose exit was lost would stay on the white list and hide the next process that gets it.
        if (missedExits_ && count < static_cast<int>(DatagramBatch::kSize)) {
            listMade_ = {};
        }
    }
    if (ready != 0) {
        Clock::SleepNs(kPaceNs);
    }
}

// At the start, after a loss, and every ten minutes.
void ProcessMonitor::MakeWhiteList()
{
    const auto now = std::chrono::steady_clock::now();
    const bool anew = listMade_ == std::chrono::steady_clock::time_point();
    if (now < nextSearch_ || (!anew && now - listMade_ < kWhiteListPeriod)) {
        return;
    }
    if (!RefreshWhiteList(anew)) {
        nextSearch_ = now + kSearchAgain;
        return;
    }
    missedExits_ = missedExits_ && !anew;
    listMade_ = now;
}

// True: there were some.
bool ProcessMonitor::CountLosses(EventReception& reception)
{
    const EventReception::Losses losses = reception.TakeLosses();
    lostEvents_ += losses.events;
    overflows_ += losses.overflows;
    return losses.events + losses.overflows > 0;
}

void ProcessMonitor::Beat()
{
    beatNs_ = Clock::MonotonicNs();
}

long long ProcessMonitor::GetBeatAgeMs() const
{
    const Phase phase = phase_;
    const bool runs = phase == kStarting || phase == kListening;
    return runs ? (Clock::MonotonicNs() - beatNs_) / Clock::kNsPerMs : -1;
}

void ProcessMonitor::ProcessEventHandle(proc_event& event)
{
    ++events_;
    if (FilterProcessEvent(event) || !IsWanted(event)) {
        ++filteredEvents_;
    } else {
        callbacks_->Dispatch(event);
    }
}

bool ProcessMonitor::IsWanted(const proc_event& event) const
{
    const std::uint32_t kinds = eventKinds_;
    return kinds == kAllEventKinds || (kinds & static_cast<std::uint32_t>(event.what)) != 0;
}

// Kept because log readers look for it: also the search that needs no command logs the command that it stands for.
void ProcessMonitor::LogFailedSearch(const std::string& pattern)
{
    NE_LOG(WARN, "Can't popen.[cmdLine=%s]", SearchCommand(pattern).c_str());
}

void ProcessMonitor::GetProcessPidsByPsCommand(const std::string& pattern, std::vector<std::string>& pids)
{
    const std::unique_ptr<std::FILE, decltype(&pclose)> output(File::RunCmdWithPopen(SearchCommand(pattern)), &pclose);
    if (output == nullptr) {
        LogFailedSearch(pattern);
        return;
    }
    ByteBuffer content;
    FileOperation::ReadAllNosize(fileno(output.get()), content);
    for (std::string& line : StringProcess::StrSplit(content.ToString(), "\n")) {
        if (!line.empty()) {  // it would read as process 0
            pids.push_back(std::move(line));
        }
    }
}

}  // namespace NEUtils
