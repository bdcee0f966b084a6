// The decoder of the network's trace program beside a look at the bytes. The input is one record.
#include <netinet/in.h>

#include <cstring>
#include <vector>

#include "network/connection_decoder.h"
#include "tests/fuzz/fuzz_target.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    using NEUtils::ConnectionRecord;
    const std::vector<std::uint8_t> bytes(data, data + size);
    NEUtils::ConnectionEvent event;
    connection_head head = {};
    const bool decoded = NEUtils::DecodeConnection(bytes.data(), size, 0, event);
    if (size >= sizeof(head)) {
        std::memcpy(&head, data, sizeof(head));
    }
    const bool acts = head.kind == 1 || head.kind == 5 || head.kind == 6;
    Require(decoded == (head.kind >= 1 && head.kind <= 6 && (head.family == AF_INET || head.family == AF_INET6) &&
                        size == (acts ? sizeof(connection_event) : sizeof(head))));
    if (!decoded) {
        return 0;
    }
    const ConnectionRecord& record = event.record;
    Require(record.comm.size() <= CONNECTION_COMM_MAX && record.program.size() <= CONNECTION_PROGRAM_MAX);
    Require(acts || (record.pid == 0 && record.comm.empty()));
    Require(record.onIpv6Socket || (record.local.family == AF_INET && record.remote.family == AF_INET));
    Require((record.kind == ConnectionRecord::kConnect) == (head.kind <= 3));
    for (const auto* address : {&record.local, &record.remote}) {
        for (std::size_t i = 4; address->family == AF_INET && i < address->bytes.size(); ++i) {
            Require(address->bytes[i] == 0);
        }
    }
    return 0;
}
