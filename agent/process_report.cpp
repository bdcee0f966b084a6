#include "process_report.h"

#include <chrono>
#include <cstdint>
#include <utility>

#include "report_queue.h"
#include "tlv.h"

namespace {

using NEUtils::TLVValue;

template <typename Content>
void Add(NEUtils::TLVPacker& packer, NEUtils::ReportTag tag, const Content& content)
{
    TLVValue value;
    value.Init(tag, content);
    packer.Add(std::move(value));
}

void AddTime(NEUtils::TLVPacker& packer)
{
    const auto sinceEpoch = std::chrono::system_clock::now().time_since_epoch();
    const std::int64_t ms = std::chrono::duration_cast<std::chrono::milliseconds>(sinceEpoch).count();
    TLVValue value;
    value.Init(NEUtils::kTagTime, reinterpret_cast<const unsigned char*>(&ms), sizeof(ms));
    packer.Add(std::move(value));
}

}  // namespace

void ReportProcess(const ProcessReport& report)
{
    NEUtils::TLVPacker packer;
    AddTime(packer);
    Add(packer, NEUtils::kTagEvent, static_cast<int>(report.event));
    Add(packer, NEUtils::kTagPid, report.pid);
    Add(packer, NEUtils::kTagParentPid, report.parentPid);
    Add(packer, NEUtils::kTagUser, report.user);
    // A longer item would be read back as empty.
    Add(packer, NEUtils::kTagCmdLine, report.cmdLine.substr(0, TLVValue::kMaxLength - 1));
    if (report.event != NEUtils::kProcessExecuted) {
        Add(packer, report.event == NEUtils::kProcessExited ? NEUtils::kTagExitCode : NEUtils::kTagSignal, report.code);
    }
    if (packer.Pack(NEUtils::kSwapReport) == 0) {
        NEUtils::ReportQueue::GetInstance().Push(NEUtils::kMsgProcess, packer.GetBuffer(), packer.GetSize());
    }
}
