#include "network/connection_decoder.h"

#include <netinet/in.h>

#include <algorithm>
#include <cstring>

namespace NEUtils {

namespace {

constexpr std::size_t kIpv4Size = 4;
constexpr std::uint8_t kMapped[] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF};  // IPv4 within IPv6

bool HasProcess(std::uint32_t kind)
{
    return kind == CONNECTION_ATTEMPT || kind == CONNECTION_LISTEN || kind == CONNECTION_LISTEN_END;
}

ConnectionRecord::Kind KindOf(std::uint32_t kind)
{
    switch (kind) {
    case CONNECTION_ACCEPTED:
        return ConnectionRecord::kAccept;
    case CONNECTION_LISTEN:
        return ConnectionRecord::kListen;
    case CONNECTION_LISTEN_END:
        return ConnectionRecord::kListenEnd;
    default:
        return ConnectionRecord::kConnect;
    }
}

ConnectionRecord::Result ResultOf(std::uint32_t kind)
{
    return kind == CONNECTION_OPENED   ? ConnectionRecord::kOpened
           : kind == CONNECTION_FAILED ? ConnectionRecord::kFailed
                                       : ConnectionRecord::kPending;
}

NetworkAddress AddressOf(int family, const __u8 (&bytes)[16])
{
    NetworkAddress address;
    const bool isMapped = family == AF_INET6 && std::equal(std::begin(kMapped), std::end(kMapped), bytes);
    address.family = isMapped ? AF_INET : family;
    std::copy_n(isMapped ? bytes + sizeof(kMapped) : bytes, address.family == AF_INET ? kIpv4Size : sizeof(bytes),
                address.bytes.begin());
    return address;
}

// An IPv6 socket that connects with an IPv4 address may not have its own one yet.
void PutAddresses(const connection_head& head, ConnectionRecord& record)
{
    record.local = AddressOf(head.family, head.local);
    record.remote = AddressOf(head.family, head.remote);
    if (record.remote.family == AF_INET && record.local.family != AF_INET) {
        record.local = {AF_INET, {}};
    }
    record.localPort = head.local_port;
    record.remotePort = head.remote_port;
    record.onIpv6Socket = head.family == AF_INET6;
}

void PutProcess(const connection_process& process, ConnectionRecord& record)
{
    record.pid = process.pid;
    record.tid = process.tid;
    record.startNs = process.start;
    record.uid = process.uid;
    record.comm.assign(process.comm, strnlen(process.comm, sizeof(process.comm)));
    record.program.assign(process.program, strnlen(process.program, sizeof(process.program)));
}

}  // namespace

bool DecodeConnection(const void* data, std::size_t length, std::int64_t wallOffsetNs, ConnectionEvent& event)
{
    connection_event bytes = {};
    if (data == nullptr || length < sizeof(bytes.head) || length > sizeof(bytes)) {
        return false;
    }
    std::memcpy(&bytes, data, length);
    const connection_head& head = bytes.head;
    if (head.kind < CONNECTION_ATTEMPT || head.kind >= CONNECTION_KINDS ||
        length != (HasProcess(head.kind) ? sizeof(bytes) : sizeof(head)) ||
        (head.family != AF_INET && head.family != AF_INET6)) {
        return false;
    }
    event.kind = static_cast<connection_kind>(head.kind);
    event.socket = head.socket;
    ConnectionRecord& record = event.record;
    record.kind = KindOf(head.kind);
    record.result = ResultOf(head.kind);
    record.error = head.kind == CONNECTION_FAILED ? head.error : 0;
    record.bootNs = head.time;
    record.wallNs = static_cast<std::int64_t>(head.time + static_cast<std::uint64_t>(wallOffsetNs));
    record.durationNs = 0;
    record.netNs = head.net_ns;
    PutAddresses(head, record);
    PutProcess(bytes.process, record);
    return true;
}

}  // namespace NEUtils
