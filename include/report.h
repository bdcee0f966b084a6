#pragma once

#include <cstdint>
#include <string>

#include "neutils_api.h"
#include "report_messages.h"
#include "tlv.h"

namespace NEUtils {

// One report to the server, on its way from its items to the process's report queue. It begins with the time: that of
// the event where it is known, otherwise that at which the report is made.
//
// Threads  one.
// Blocks   never.
class NEUTILS_API Report {
public:
    explicit Report(std::uint32_t type);
    Report(std::uint32_t type, std::int64_t timeMs);  // milliseconds since 1970

    Report& Add(ReportTag tag, int number);
    Report& AddLong(ReportTag tag, std::uint64_t number);  // of 8 bytes
    Report& Add(ReportTag tag, const std::string& text);   // cut at what an item may hold; empty: left out

    // False where it could not be queued (report_queue.h): there is no server, or no room.
    bool Push();

private:
    const std::uint32_t type_;
    const bool isWanted_;  // otherwise there is nothing to build
    TLVPacker packer_;
};

}  // namespace NEUtils
