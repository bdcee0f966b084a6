#pragma once

#include <cstdint>
#include <string>

#include "neutils_api.h"
#include "report_messages.h"
#include "tlv.h"

namespace NEUtils {

// Builds a report from its items and puts it into the process's report queue. The first item is the time: that
// of the event if it is known, otherwise that of the constructor.
//
// Threads  one.
// Blocks   never.
class NEUTILS_API Report {
public:
    explicit Report(std::uint32_t type);
    Report(std::uint32_t type, std::int64_t timeMs);  // milliseconds since 1970

    Report& Add(ReportTag tag, int number);
    Report& AddLong(ReportTag tag, std::uint64_t number);  // of 8 bytes
    Report& Add(ReportTag tag, const std::string& text);   // cut to the size of an item; an empty one is left out
    Report& AddLongText(ReportTag tag, const std::string& text);  // in as many items as it takes

    // False if the queue does not take it (report_queue.h): there is no server, or no room.
    bool Push();

private:
    const std::uint32_t type_;
    const bool isWanted_;  // otherwise nothing is built
    TLVPacker packer_;
};

}  // namespace NEUtils
