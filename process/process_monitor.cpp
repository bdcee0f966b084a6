#include "process_monitor.h"

#include <arpa/inet.h>
#include <linux/connector.h>
#include <linux/filter.h>
#include <linux/sock_diag.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <exception>

#include "logger.h"
#include "process/event_callbacks.h"
#include "process/proc_event_decoder.h"
#include "util/clock.h"
#include "util/errno_text.h"
#include "util/stop_signals.h"
#include "util/unique_fd.h"

namespace NEUtils {

namespace {

constexpr int kReceiveBuffer = 0x8000000;
constexpr std::size_t kDatagramSize = 272;
constexpr std::size_t kBatch = 100;
constexpr int kWaitMs = 500;
constexpr long kPaceNs = 20 * Clock::kNsPerMs;
constexpr std::chrono::minutes kWhiteListPeriod{10};
constexpr std::size_t kConnectorOffset = sizeof(nlmsghdr);
constexpr std::size_t kModeOffset = kConnectorOffset + sizeof(cn_msg);
constexpr std::size_t kControlSize = kModeOffset + sizeof(std::uint32_t);

thread_local const ProcessMonitor* t_monitor = nullptr;  // the one that this thread works for

// One batch of datagrams with their senders.
class DatagramBatch {
public:
    DatagramBatch()
    {
        for (std::size_t i = 0; i < kBatch; ++i) {
            pieces_[i] = {data_[i].data(), data_[i].size()};
            headers_[i].msg_hdr.msg_iov = &pieces_[i];
            headers_[i].msg_hdr.msg_iovlen = 1;
            headers_[i].msg_hdr.msg_name = &senders_[i];
        }
    }

    int Receive(int fd)
    {
        for (mmsghdr& header : headers_) {
            header.msg_hdr.msg_namelen = sizeof(sockaddr_nl);
        }
        return recvmmsg(fd, headers_.data(), kBatch, MSG_DONTWAIT, nullptr);
    }

    // The event of one received datagram; false if it is cut or not the kernel's.
    bool Decode(std::size_t i, proc_event& event) const
    {
        const bool fromKernel = headers_[i].msg_hdr.msg_namelen == sizeof(sockaddr_nl) && senders_[i].nl_pid == 0;
        return fromKernel && (headers_[i].msg_hdr.msg_flags & MSG_TRUNC) == 0 &&
               DecodeProcEvent(data_[i].data(), headers_[i].msg_len, event);
    }

private:
    std::array<std::array<unsigned char, kDatagramSize>, kBatch> data_{};
    std::array<iovec, kBatch> pieces_{};
    std::array<sockaddr_nl, kBatch> senders_{};
    std::array<mmsghdr, kBatch> headers_{};
};

// Counts the datagrams that the kernel dropped for want of buffer space.
class DropCounter {
public:
    // Gives those since the last call; noBuffers tells that a receive has just failed with ENOBUFS.
    std::uint32_t Take(int fd, bool noBuffers)
    {
        std::uint32_t info[SK_MEMINFO_VARS] = {};
        socklen_t length = sizeof(info);
        if (getsockopt(fd, SOL_SOCKET, SO_MEMINFO, info, &length) != 0 ||
            length <= SK_MEMINFO_DROPS * sizeof(info[0])) {
            return noBuffers ? 1 : 0;  // an old kernel says only that there were some
        }
        const std::uint32_t drops = info[SK_MEMINFO_DROPS] - seen_;
        seen_ = info[SK_MEMINFO_DROPS];
        return drops;
    }

private:
    std::uint32_t seen_ = 0;
};

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
    phase_ = kStarting;
    int result;
    {
        const StopSignalsBlocked blocked;
        result = pthread_create(&thread_, nullptr, &ProcessMonitor::MonitorProcessThread, this);
    }
    if (result != 0) {
        NE_LOG(ERROR, "Fail to create process monitor thread.");
        running_ = false;  // there is nothing that a stop could wait for
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
    try {
        self->MonitorProcessEvent();
    } catch (const std::exception& error) {  // memory has run out
        NE_LOG(ERROR, "The process event detection has failed.[what=%s]", error.what());
    }
    t_monitor = nullptr;
    self->phase_ = kEnded;
    return nullptr;
}

void ProcessMonitor::MonitorProcessEvent()
{
    const UniqueFd fd(socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_CONNECTOR));
    if (!fd.IsValid()) {
        const int error = errno;
        NE_LOG(ERROR, "Fail to create socket, error information.[errno=%d errmsg=%s]", error, ErrnoText(error).Get());
    } else if (SetUpSocket(fd.Get())) {
        const std::unique_ptr<void, decltype(&std::free)> block(std::malloc(kDatagramSize), &std::free);
        if (block == nullptr) {
            NE_LOG(ERROR, "Fail to allocate memory for netlink header.");
        } else {
            std::memset(block.get(), 0, kDatagramSize);
            auto& header = *static_cast<nlmsghdr*>(block.get());
            if (SendConnectorMode(fd.Get(), PROC_CN_MCAST_LISTEN, header)) {
                phase_ = kListening;
                ReceiveEvents(fd.Get());
                SendConnectorMode(fd.Get(), PROC_CN_MCAST_IGNORE, header);
            }
        }
    }
    // Kept: after a failed setup the running flag stays set until the owner stops the monitor.
    NE_LOG(INFO, "The process event detection has stopped.");
}

bool ProcessMonitor::SetUpSocket(int fd) const
{
    if (setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &kReceiveBuffer, sizeof(kReceiveBuffer)) != 0) {
        const int error = errno;
        NE_LOG(ERROR, "Fail to set socket receive buff.[errno=%d errmsg=%s]", error, ErrnoText(error).Get());
        return false;
    }
    AttachKindFilter(fd);
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

// Lets through what is asked for, and forks and exits always, since the white list follows them.
void ProcessMonitor::AttachKindFilter(int fd) const
{
    const std::uint32_t kinds = eventKinds_;
    if (kinds == kAllEventKinds) {
        return;
    }
    // The filter loads words in network order, the event holds its kind in host order.
    const std::uint32_t wanted = htonl(kinds | kForkEvent | kExitEvent);
    sock_filter code[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, kModeOffset + offsetof(proc_event, what)),
        BPF_JUMP(BPF_JMP | BPF_JSET | BPF_K, wanted, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, 0xFFFFFFFFU),
        BPF_STMT(BPF_RET | BPF_K, 0),
    };
    const sock_fprog program = {static_cast<unsigned short>(std::size(code)), code};
    if (setsockopt(fd, SOL_SOCKET, SO_ATTACH_FILTER, &program, sizeof(program)) != 0) {
        const int error = errno;
        NE_LOG(WARN, "Fail to attach the event filter.[errno=%d errmsg=%s]", error, ErrnoText(error).Get());
    }
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
    using Steady = std::chrono::steady_clock;
    ParseProcessWhiteList();
    Steady::time_point refreshed = Steady::now();
    const auto batch = std::make_unique<DatagramBatch>();
    DropCounter drops;
    bool missedExits = false;
    while (running_) {
        if (Steady::now() - refreshed >= kWhiteListPeriod) {
            UpdateProcessWhiteList();
            refreshed = Steady::now();
        }
        // recvmmsg's own timeout does not end a wait on an idle socket, so poll waits.
        pollfd waiting = {fd, POLLIN, 0};
        const int ready = poll(&waiting, 1, kWaitMs);
        if (ready == 0) {
            continue;
        }
        if (ready < 0) {
            Clock::SleepNs(kPaceNs);
            continue;
        }
        const int count = batch->Receive(fd);
        const int error = count > 0 ? 0 : errno;
        const std::uint32_t lost = drops.Take(fd, error == ENOBUFS);
        lostEvents_ += lost;
        missedExits = missedExits || lost > 0;
        if (count <= 0) {
            NE_LOG(WARN, "Do not receive message from kernel.[errno=%d, errmsg=%s]", error, ErrnoText(error).Get());
        }
        for (int i = 0; i < count; ++i) {
            proc_event event;
            if (batch->Decode(static_cast<std::size_t>(i), event)) {
                ProcessEventHandle(event);
            }
        }
        // An id whose exit was lost would stay on the white list and hide the next process that gets it.
        if (missedExits && count < static_cast<int>(kBatch)) {
            ParseProcessWhiteList();
            missedExits = false;
        }
        Clock::SleepNs(kPaceNs);
    }
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

}  // namespace NEUtils
