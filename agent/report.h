#pragma once

#include <cstdint>
#include <string>

#include "report_messages.h"
#include "tlv.h"

// One report to the server, on its way from its items to the report queue. It begins with the time.
class Report {
public:
    explicit Report(std::uint32_t type);

    Report& Add(NEUtils::ReportTag tag, int number);
    Report& Add(NEUtils::ReportTag tag, const std::string& text);  // cut at what an item may hold; empty: left out
    void Push();                                                   // does not wait

private:
    const std::uint32_t type_;
    NEUtils::TLVPacker packer_;
};
