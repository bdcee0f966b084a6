#include "comm/report_store.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <utility>

#include "comm/request_cache.h"
#include "util/clock.h"

namespace NEUtils {

namespace {

constexpr std::size_t kMostUnanswered = 200;
constexpr std::size_t kMostJoined = 65536;
constexpr std::size_t kEnough = 100;
constexpr unsigned int kMostDoublings = 4;

// When a report is sent again after so many sendings: first when the channel repeats it no more, then twice
// as late each time.
std::int64_t DueNs(const ReportStore::Report& report)
{
    const unsigned int doublings = std::min(std::max(report.sendings, 1U) - 1, kMostDoublings);
    return report.sentNs + (RequestCache::kLifeSeconds * Clock::kNsPerSecond << doublings);
}

void GiveNumber(ReportStore::Report& report)
{
    if (report.isShared) {  // the channel may just be repeating the old bytes
        report.message = std::make_shared<std::string>(*report.message);
    }
    report.isShared = true;
    report.seq = NextMsgSeq();
    std::memcpy(&(*report.message)[offsetof(SentrelAgentMsg, seq)], &report.seq, sizeof(report.seq));
}

}  // namespace

void ReportStore::SetLimits(std::size_t maxCount, std::size_t maxBytes)
{
    maxCount_ = maxCount;
    maxBytes_ = maxBytes;
}

bool ReportStore::Add(std::shared_ptr<std::string> message)
{
    const std::size_t size = message->size();
    if (size > maxBytes_) {
        CountDrop(&ReportAccount::droppedTooLarge);
        return false;
    }
    if (GetCount() >= maxCount_ || size > maxBytes_ - std::min(bytes_, maxBytes_)) {
        CountDrop(&ReportAccount::droppedFull);
        return false;
    }
    waiting_.push_back(std::make_shared<Report>(Report{std::move(message)}));
    ++account_.pushed;
    bytes_ += size;
    return true;
}

void ReportStore::CountDrop(std::uint64_t ReportAccount::*reason)
{
    ++account_.pushed;
    ++(account_.*reason);
}

std::uint64_t ReportStore::GetDropsToReport() const
{
    return notice_ != nullptr ? 0 : account_.GetDropped() - noticeDrops_;
}

void ReportStore::AddNotice(std::shared_ptr<std::string> message)
{
    notice_ = std::make_shared<Report>(Report{std::move(message)});
    waiting_.push_back(notice_);
    noticeDrops_ = account_.GetDropped();
}

bool ReportStore::CanSend(std::int64_t nowNs) const
{
    return !waiting_.empty() && unanswered_.size() < kMostUnanswered &&
           !(held_ && waiting_.front()->sendings > 0 && DueNs(*waiting_.front()) > nowNs);
}

bool ReportStore::HasEnough() const
{
    return waiting_.size() >= kEnough || bytes_ >= kMostJoined || GetCount() > maxCount_ / 2 || bytes_ > maxBytes_ / 2;
}

ReportStore::Batch ReportStore::TakeNext(std::int64_t nowNs)
{
    Batch batch;
    std::size_t bytes = 0;
    while (CanSend(nowNs)) {
        Report& report = *waiting_.front();
        bytes += report.message->size();
        if (!batch.empty() && bytes > kMostJoined) {
            break;
        }
        GiveNumber(report);
        batch.push_back(waiting_.front());
        account_.repeats += report.sendings > 0 && batch.back() != notice_ ? 1 : 0;
        ++report.sendings;
        report.sentNs = nowNs;
        report.isWaiting = false;
        unanswered_.splice(unanswered_.end(), waiting_, waiting_.begin());
    }
    return batch;
}

void ReportStore::PutBack(const Batch& batch)
{
    auto place = waiting_.begin();
    for (const ReportPtr& report : batch) {
        const auto found = std::find(unanswered_.begin(), unanswered_.end(), report);
        if (found != unanswered_.end()) {  // otherwise it was answered nevertheless
            report->isWaiting = true;
            --report->sendings;
            account_.repeats -= report->sendings > 0 && report != notice_ ? 1 : 0;
            waiting_.splice(place, unanswered_, found);
        }
    }
}

ReportStore::Numbers ReportStore::TakeBackOverdue(std::int64_t nowNs)
{
    Numbers numbers;
    const auto place = waiting_.begin();
    for (auto next = unanswered_.begin(); next != unanswered_.end();) {
        const auto report = next++;
        if (DueNs(**report) <= nowNs) {
            (*report)->isWaiting = true;
            numbers.push_back((*report)->seq);
            waiting_.splice(place, unanswered_, report);
        }
    }
    return numbers;
}

ReportStore::Numbers ReportStore::TakeBackAll()
{
    Numbers numbers;
    for (const ReportPtr& report : unanswered_) {
        report->isWaiting = true;
        numbers.push_back(report->seq);
    }
    waiting_.splice(waiting_.begin(), unanswered_);
    return numbers;
}

bool ReportStore::Answer(std::uint32_t seq)
{
    const auto found = std::find_if(unanswered_.begin(), unanswered_.end(),
                                    [seq](const ReportPtr& report) { return report->seq == seq; });
    if (found == unanswered_.end()) {
        return false;
    }
    if (*found == notice_) {
        notice_.reset();
        account_.dropsReported = noticeDrops_;
    } else {
        bytes_ -= (*found)->message->size();
        ++account_.acknowledged;
    }
    unanswered_.erase(found);
    return true;
}

bool ReportStore::IsDone() const
{
    return waiting_.empty() && unanswered_.empty() && GetDropsToReport() == 0;
}

ReportAccount ReportStore::GetAccount() const
{
    ReportAccount account = account_;
    account.waiting = waiting_.size() - (notice_ != nullptr && notice_->isWaiting ? 1 : 0);
    account.unanswered = unanswered_.size() - (notice_ != nullptr && !notice_->isWaiting ? 1 : 0);
    return account;
}

}  // namespace NEUtils
