#include "report.h"

#include <chrono>
#include <utility>

#include "report_queue.h"

using NEUtils::TLVValue;

Report::Report(std::uint32_t type) : type_(type)
{
    const auto sinceEpoch = std::chrono::system_clock::now().time_since_epoch();
    const std::int64_t ms = std::chrono::duration_cast<std::chrono::milliseconds>(sinceEpoch).count();
    TLVValue value;
    value.Init(NEUtils::kTagTime, reinterpret_cast<const unsigned char*>(&ms), sizeof(ms));
    packer_.Add(std::move(value));
}

Report& Report::Add(NEUtils::ReportTag tag, int number)
{
    TLVValue value;
    value.Init(tag, number);
    packer_.Add(std::move(value));
    return *this;
}

Report& Report::Add(NEUtils::ReportTag tag, const std::string& text)
{
    if (!text.empty()) {
        TLVValue value;
        value.Init(tag, text.substr(0, TLVValue::kMaxLength - 1));  // with its NUL, or it would be read back as empty
        packer_.Add(std::move(value));
    }
    return *this;
}

void Report::Push()
{
    if (packer_.Pack(NEUtils::kSwapReport) == 0) {
        NEUtils::ReportQueue::GetInstance().Push(type_, packer_.GetBuffer(), packer_.GetSize());
    }
}
