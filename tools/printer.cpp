#include "printer.h"

#include "errors.h"

namespace {

constexpr std::size_t kMaxReports = std::size_t{16} << 20U;
constexpr std::size_t kMaxLines = std::size_t{20} << 20U;
constexpr int kStallChecks = 5;

}  // namespace

std::uint64_t Printer::PrintReport(const std::string& line)
{
    return isStalled_ || !fault_.empty() ? 0 : lines_.Add(line, kMaxReports);
}

void Printer::Print(const std::string& line)
{
    lost_ += lines_.Add(line, kMaxLines) > 0 ? 0 : 1;
}

std::uint64_t Printer::Update()
{
    const LineQueue::Progress progress = lines_.GetProgress();
    written_ = progress.written;
    if (progress.fault != fault_) {
        fault_ = progress.fault;
        Complain(fault_.empty() ? "standard output takes lines again"
                 : progress.hasFailed
                     ? "standard output: " + fault_
                     : "standard output: " + fault_ + "; reports are not answered until it takes them");
    }
    hasFailed_ = progress.hasFailed;
    return written_;
}

void Printer::CheckStall()
{
    const bool isIdle = written_ == writtenBefore_ && lines_.CountAdded() > written_;
    writtenBefore_ = written_;
    idleChecks_ = isIdle ? idleChecks_ + 1 : 0;
    const bool isStalled = idleChecks_ >= kStallChecks;
    if (isStalled != isStalled_ && fault_.empty()) {
        Complain(isStalled ? "standard output is blocked; reports are not answered until it takes them"
                           : "standard output takes lines again");
    }
    isStalled_ = isStalled;
}
