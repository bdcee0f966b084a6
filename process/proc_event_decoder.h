#pragma once

#include <linux/cn_proc.h>

#include <cstddef>

namespace NEUtils {

// Takes the process event out of one datagram of the process connector: a netlink header (16 bytes), a
// connector header (20) and a proc_event, all in host byte order. False unless the datagram is whole,
// comes from the process connector and holds at least an event with four ids; fields that an older
// kernel does not send are zero.
bool DecodeProcEvent(const void* data, std::size_t length, proc_event& event);

}  // namespace NEUtils
