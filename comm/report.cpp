#include "report.h"

#include <utility>

#include "report_queue.h"
#include "util/clock.h"

namespace NEUtils {

Report::Report(std::uint32_t type) : Report(type, Clock::WallMs()) {}

Report::Report(std::uint32_t type, std::int64_t timeMs) : type_(type), isWanted_(ReportQueue::GetInstance().IsRunning())
{
    AddLong(kTagTime, static_cast<std::uint64_t>(timeMs));
}

Report& Report::Add(ReportTag tag, int number)
{
    if (isWanted_) {
        TLVValue value;
        value.Init(tag, number);
        packer_.Add(std::move(value));
    }
    return *this;
}

Report& Report::AddLong(ReportTag tag, std::uint64_t number)
{
    if (isWanted_) {
        TLVValue value;
        value.Init(tag, reinterpret_cast<const unsigned char*>(&number), sizeof(number));
        packer_.Add(std::move(value));
    }
    return *this;
}

Report& Report::Add(ReportTag tag, const std::string& text)
{
    if (isWanted_ && !text.empty()) {
        TLVValue value;
        value.Init(tag, text.substr(0, TLVValue::kMaxLength - 1));  // with its NUL, or it would be read back as empty
        packer_.Add(std::move(value));
    }
    return *this;
}

bool Report::Push()
{
    return isWanted_ && packer_.Pack(kSwapReport) == 0 &&
           ReportQueue::GetInstance().Push(type_, packer_.GetBuffer(), packer_.GetSize());
}

}  // namespace NEUtils
