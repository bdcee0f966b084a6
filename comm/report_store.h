#pragma once

#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "report_queue.h"

namespace NEUtils {

// The reports of a queue, those that wait and those that were sent, and the account of them all. It knows no
// thread, no channel and no clock.
//
// Threads  one at a time.
// Limits   at most 200 reports unanswered; at most 64 KiB in one batch, or one report that is longer.
class ReportStore {
public:
    struct Report {
        std::shared_ptr<std::string> message;  // with its header
        std::uint32_t seq = 0;
        std::int64_t sentNs = 0;
        unsigned int sendings = 0;
        bool isWaiting = true;
        bool isShared = false;  // the channel may have a share in the message
    };
    using ReportPtr = std::shared_ptr<Report>;
    using Batch = std::vector<ReportPtr>;
    using Numbers = std::vector<std::uint32_t>;

    void SetLimits(std::size_t maxCount, std::size_t maxBytes);

    bool Add(std::shared_ptr<std::string> message);  // false: dropped for want of room, and counted
    void CountDrop(std::uint64_t ReportAccount::*reason);

    // The drops that the next notice is to report; none while the last notice is not answered. A notice is
    // sent like a report but counts as none.
    std::uint64_t GetDropsToReport() const;
    void AddNotice(std::shared_ptr<std::string> message);

    // What is to be sent now, in one go. Each report gets a new number from NextMsgSeq.
    Batch TakeNext(std::int64_t nowNs);
    void PutBack(const Batch& batch);  // it was not sent

    // Takes back reports to be sent again before all others, and gives the numbers that they had: those that
    // the channel has ceased to repeat for long enough, or all of them, since their connection has ended.
    Numbers TakeBackOverdue(std::int64_t nowNs);
    Numbers TakeBackAll();

    // After a server was given up for its silence its reports are not sent again at once, but as late as on
    // the same connection; the first answer ends that.
    void Hold() { held_ = true; }
    bool EndHold() { return std::exchange(held_, false); }  // true if they were held

    bool Answer(std::uint32_t seq);  // false: no report waits for this number

    std::size_t GetCount() const { return waiting_.size() + unanswered_.size() - (notice_ != nullptr ? 1 : 0); }
    std::size_t GetBytes() const { return bytes_; }
    std::size_t GetUnanswered() const { return unanswered_.size(); }
    bool IsWaiting() const { return !waiting_.empty(); }  // a report or a notice
    bool CanSend(std::int64_t nowNs) const;
    bool HasEnough() const;  // for a send of its own, or so much that there may soon be no room
    bool IsDone() const;     // everything is answered, and all drops are reported
    ReportAccount GetAccount() const;

private:
    std::list<ReportPtr> waiting_;
    std::list<ReportPtr> unanswered_;  // in the order of their sending
    ReportPtr notice_;                 // in one of the two, if there is one
    std::uint64_t noticeDrops_ = 0;    // all drops until the last notice, this one included
    std::size_t bytes_ = 0;            // of the reports in both
    std::size_t maxCount_ = 0;
    std::size_t maxBytes_ = 0;
    bool held_ = false;
    ReportAccount account_;  // but for what the lists say
};

}  // namespace NEUtils
