#include "process/connector_socket.h"

#include <arpa/inet.h>
#include <linux/connector.h>
#include <linux/filter.h>
#include <linux/netlink.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <iterator>
#include <utility>

#include "process_monitor.h"
#include "util/errno_text.h"

namespace NEUtils {

namespace {

constexpr int kReceiveBuffer = 0x8000000;
constexpr std::uint32_t kEventAt = sizeof(nlmsghdr) + sizeof(cn_msg);
constexpr std::uint32_t kKindAt = kEventAt + offsetof(proc_event, what);
constexpr std::uint32_t kChildAt = kEventAt + offsetof(proc_event, event_data.fork.child_pid);
constexpr std::uint32_t kChildGroupAt = kEventAt + offsetof(proc_event, event_data.fork.child_tgid);
constexpr std::uint32_t kWholeDatagram = 0xFFFFFFFFU;

constexpr sock_filter Statement(int code, std::uint32_t value)
{
    return {static_cast<std::uint16_t>(code), 0, 0, value};
}

constexpr sock_filter IfEqual(std::uint32_t value, std::uint8_t skipIfTrue, std::uint8_t skipIfFalse)
{
    return {BPF_JMP | BPF_JEQ | BPF_K, skipIfTrue, skipIfFalse, value};
}

}  // namespace

ConnectorSocket::~ConnectorSocket()
{
    if (fd_.IsValid()) {
        SetMode(PROC_CN_MCAST_IGNORE);  // the kernel goes on making events for whoever did not say so
    }
}

bool ConnectorSocket::Open(Wanted wanted, std::string& reason)
{
    sockaddr_nl address = {};
    address.nl_family = AF_NETLINK;
    address.nl_groups = CN_IDX_PROC;
    UniqueFd fd(socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_CONNECTOR));
    const char* step = "open";
    bool worked = fd.IsValid();
    if (worked) {
        step = "enlarge";
        worked = setsockopt(fd.Get(), SOL_SOCKET, SO_RCVBUFFORCE, &kReceiveBuffer, sizeof(kReceiveBuffer)) == 0;
    }
    fd_ = std::move(fd);
    if (worked) {
        step = "filter";
        worked = SetFilter(wanted);
    }
    if (worked) {
        step = "bind";
        worked = bind(fd_.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
    }
    if (worked) {
        step = "listen on";
        worked = SetMode(PROC_CN_MCAST_LISTEN);
    }
    if (!worked) {
        const int error = errno;
        reason = std::string("cannot ") + step + " the process connector: " + ErrnoText(error).Get();
        fd_.Reset();
    }
    return worked;
}

// The kernel loads words for the filter in network order.
bool ConnectorSocket::SetFilter(Wanted wanted) const
{
    const sock_filter execs[] = {
        Statement(BPF_LD | BPF_W | BPF_ABS, kKindAt),
        IfEqual(htonl(kExecEvent), 0, 1),
        Statement(BPF_RET | BPF_K, kWholeDatagram),
        Statement(BPF_RET | BPF_K, 0),
    };
    const sock_filter processes[] = {
        Statement(BPF_LD | BPF_W | BPF_ABS, kKindAt),
        IfEqual(htonl(kForkEvent), 0, 4),
        Statement(BPF_LD | BPF_W | BPF_ABS, kChildAt),
        Statement(BPF_MISC | BPF_TAX, 0),
        Statement(BPF_LD | BPF_W | BPF_ABS, kChildGroupAt),
        {BPF_JMP | BPF_JEQ | BPF_X, 4, 5, 0},
        IfEqual(htonl(kExecEvent), 3, 0),
        IfEqual(htonl(kExitEvent), 2, 0),
        IfEqual(htonl(kUidEvent), 1, 0),
        IfEqual(htonl(kGidEvent), 0, 1),
        Statement(BPF_RET | BPF_K, kWholeDatagram),
        Statement(BPF_RET | BPF_K, 0),
    };
    sock_fprog program = {static_cast<unsigned short>(std::size(execs)), const_cast<sock_filter*>(execs)};
    if (wanted == kProcesses) {
        program = {static_cast<unsigned short>(std::size(processes)), const_cast<sock_filter*>(processes)};
    }
    return setsockopt(fd_.Get(), SOL_SOCKET, SO_ATTACH_FILTER, &program, sizeof(program)) == 0;
}

bool ConnectorSocket::SetMode(proc_cn_mcast_op mode) const
{
    nlmsghdr header = {};
    cn_msg connector = {};
    std::uint32_t value = mode;
    connector.id = {CN_IDX_PROC, CN_VAL_PROC};
    connector.len = sizeof(value);
    header.nlmsg_len = sizeof(header) + sizeof(connector) + sizeof(value);
    header.nlmsg_type = NLMSG_DONE;
    iovec pieces[] = {{&header, sizeof(header)}, {&connector, sizeof(connector)}, {&value, sizeof(value)}};
    return writev(fd_.Get(), pieces, std::size(pieces)) >= 0;
}

std::size_t ConnectorSocket::Receive(std::vector<proc_event>& events)
{
    events.clear();
    const int count = batch_->Receive(fd_.Get());
    if (count < 0) {
        noBuffers_ = noBuffers_ || errno == ENOBUFS;
        return 0;
    }
    for (std::size_t i = 0; i < static_cast<std::size_t>(count); ++i) {
        proc_event event;
        if (batch_->Decode(i, event)) {
            events.push_back(event);
        }
    }
    return static_cast<std::size_t>(count);
}

std::uint64_t ConnectorSocket::TakeLosses()
{
    std::uint32_t drops = 0;
    const bool noBuffers = std::exchange(noBuffers_, false);
    return drops_.Take(fd_.Get(), drops) ? drops : noBuffers;
}

}  // namespace NEUtils
