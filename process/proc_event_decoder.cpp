#include "process/proc_event_decoder.h"

#include <linux/connector.h>
#include <linux/netlink.h>

#include <algorithm>
#include <cstdint>
#include <cstring>

namespace NEUtils {

namespace {

constexpr std::size_t kHeaders = sizeof(nlmsghdr) + sizeof(cn_msg);
// Kind, processor, time, and the four ids of a fork: every kernel sends at least these.
constexpr std::size_t kMinEvent = offsetof(proc_event, event_data) + 4 * sizeof(std::uint32_t);

}  // namespace

bool DecodeProcEvent(const void* data, std::size_t length, proc_event& event)
{
    if (data == nullptr || length < kHeaders) {
        return false;
    }
    const auto* bytes = static_cast<const unsigned char*>(data);
    nlmsghdr netlink;
    cn_msg connector;
    std::memcpy(&netlink, bytes, sizeof(netlink));
    std::memcpy(&connector, bytes + sizeof(netlink), sizeof(connector));
    if (netlink.nlmsg_len < kHeaders || netlink.nlmsg_len > length || connector.id.idx != CN_IDX_PROC ||
        connector.id.val != CN_VAL_PROC) {
        return false;
    }
    const std::size_t payload = connector.len;
    if (payload < kMinEvent || payload > netlink.nlmsg_len - kHeaders) {
        return false;
    }
    proc_event decoded = {};
    std::memcpy(&decoded, bytes + kHeaders, std::min(payload, sizeof(decoded)));
    event = decoded;
    return true;
}

}  // namespace NEUtils
