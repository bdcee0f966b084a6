#pragma once

#include <cstddef>
#include <cstdint>

#include "connection_record.h"
#include "network/network_layout.h"

namespace NEUtils {

// One record of the trace program.
struct ConnectionEvent {
    connection_kind kind = CONNECTION_KINDS;
    std::uint64_t socket = 0;  // which tells live ones apart
    ConnectionRecord record;
};

// Takes one record of the trace program apart. False unless it has the length of its kind and a known address family.
// wallOffsetNs is the wall clock's distance from the time since the boot.
bool DecodeConnection(const void* data, std::size_t length, std::int64_t wallOffsetNs, ConnectionEvent& event);

}  // namespace NEUtils
