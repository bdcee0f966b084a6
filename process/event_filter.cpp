#include "process/event_filter.h"

#include <arpa/inet.h>
#include <linux/connector.h>
#include <linux/filter.h>
#include <linux/netlink.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <vector>

#include "process_monitor.h"

namespace NEUtils {

namespace {

constexpr std::uint32_t kAccept = 0xFFFFFFFFU;
constexpr std::uint32_t kDrop = 0;
constexpr std::size_t kMaxFollowed = 500;  // each takes two instructions of the 4,096 that a filter may have

// Where a field of the event stands in the datagram.
constexpr std::uint32_t At(std::size_t field)
{
    return static_cast<std::uint32_t>(sizeof(nlmsghdr) + sizeof(cn_msg) + field);
}

constexpr std::uint32_t kWhat = At(offsetof(proc_event, what));
constexpr std::uint32_t kExitIds = At(offsetof(proc_event, event_data));  // process_pid, process_tgid
constexpr std::uint32_t kForkIds = kExitIds + 8;                          // child_pid, child_tgid

// The filter loads words in network order; the event holds its kind in host order.
void AcceptOnlyFirstThreads(std::vector<sock_filter>& code, std::uint32_t kind, std::uint32_t ids,
                            const std::vector<int>& followed)
{
    const std::size_t count = std::min(followed.size(), kMaxFollowed);
    code.insert(code.end(), {
                                BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, htonl(kind), 1, 0),
                                BPF_STMT(BPF_JMP | BPF_JA, static_cast<std::uint32_t>(6 + 2 * count)),
                                BPF_STMT(BPF_LD | BPF_W | BPF_ABS, ids),
                                BPF_STMT(BPF_MISC | BPF_TAX, 0),
                                BPF_STMT(BPF_LD | BPF_W | BPF_ABS, ids + 4),
                                BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_X, 0, 0, 1),
                                BPF_STMT(BPF_RET | BPF_K, kAccept),
                            });
    for (std::size_t i = 0; i < count; ++i) {
        code.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, htonl(static_cast<std::uint32_t>(followed[i])), 0, 1));
        code.push_back(BPF_STMT(BPF_RET | BPF_K, kAccept));
    }
    code.push_back(BPF_STMT(BPF_RET | BPF_K, kDrop));
}

}  // namespace

int AttachEventFilter(int fd, std::uint32_t kinds, bool processesOnly, const std::vector<int>& followed)
{
    const bool all = kinds == ProcessMonitor::kAllEventKinds;
    if (all && !processesOnly) {
        return 0;
    }
    std::vector<sock_filter> code = {BPF_STMT(BPF_LD | BPF_W | BPF_ABS, kWhat)};
    if (processesOnly) {
        AcceptOnlyFirstThreads(code, kForkEvent, kForkIds, {});
        AcceptOnlyFirstThreads(code, kExitEvent, kExitIds, followed);
    }
    if (!all) {
        code.push_back(BPF_JUMP(BPF_JMP | BPF_JSET | BPF_K, htonl(kinds | kForkEvent | kExitEvent), 1, 0));
        code.push_back(BPF_STMT(BPF_RET | BPF_K, kDrop));
    }
    code.push_back(BPF_STMT(BPF_RET | BPF_K, kAccept));
    const sock_fprog program = {static_cast<unsigned short>(code.size()), code.data()};
    return setsockopt(fd, SOL_SOCKET, SO_ATTACH_FILTER, &program, sizeof(program)) == 0 ? 0 : errno;
}

bool IsOfFurtherThread(const proc_event& event)
{
    const auto& fork = event.event_data.fork;
    const auto& exit = event.event_data.exit;
    return (event.what == kForkEvent && fork.child_pid != fork.child_tgid) ||
           (event.what == kExitEvent && exit.process_pid != exit.process_tgid);
}

}  // namespace NEUtils
