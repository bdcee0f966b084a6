#include "report.h"

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
        packer_.Add(tag, &number, sizeof(number));
    }
    return *this;
}

Report& Report::AddLong(ReportTag tag, std::uint64_t number)
{
    if (isWanted_) {
        packer_.Add(tag, &number, sizeof(number));
    }
    return *this;
}

Report& Report::Add(ReportTag tag, const std::string& text)
{
    if (isWanted_ && !text.empty()) {
        // With its NUL it is as long as an item may be.
        const std::string cut = text.substr(0, TLVValue::kMaxLength - 1);
        packer_.Add(tag, cut.c_str(), cut.size() + 1);
    }
    return *this;
}

Report& Report::AddLongText(ReportTag tag, const std::string& text)
{
    if (isWanted_) {
        packer_.AddText(tag, text);
    }
    return *this;
}

bool Report::Push()
{
    return isWanted_ && packer_.Pack(kSwapReport) == 0 &&
           ReportQueue::GetInstance().Push(type_, packer_.GetBuffer(), packer_.GetSize());
}

}  // namespace NEUtils
