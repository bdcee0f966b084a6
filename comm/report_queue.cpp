#include "report_queue.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <exception>
#include <system_error>
#include <utility>

#include "logger.h"
#include "report_messages.h"
#include "tlv.h"
#include "util/clock.h"
#include "util/stop_signals.h"
#include "util/thread_name.h"

namespace NEUtils {

namespace {

constexpr std::size_t kMostUnanswered = 200;
// The channel repeats a request three times, each at most 9 s after the last, and that one has as long.
constexpr std::int64_t kAnswerLimitNs = 36 * Clock::kNsPerSecond;
constexpr std::int64_t kDropRecordPeriodNs = 60 * Clock::kNsPerSecond;
constexpr std::chrono::seconds kLookPeriod{1};  // at the channel, while something is in the queue
constexpr std::chrono::milliseconds kDrainLook{50};

}  // namespace

ReportQueue& ReportQueue::GetInstance()
{
    static auto& queue = *new ReportQueue;
    return queue;
}

bool ReportQueue::Start(std::shared_ptr<SocketComm> channel, std::size_t maxCount, std::size_t maxBytes)
{
    const StopSignalsBlocked inherited;
    const Lock lock(mutex_);
    if (running_ || channel == nullptr) {
        return false;
    }
    channel_ = std::move(channel);
    waiting_.splice(waiting_.begin(), unanswered_);
    maxCount_ = maxCount;
    maxBytes_ = maxBytes;
    try {
        sender_ = std::thread([this] { Run(); });
    } catch (const std::system_error&) {
        return false;
    }
    running_ = true;
    return true;
}

void ReportQueue::Stop()
{
    {
        const Lock lock(mutex_);
        running_ = false;
    }
    changed_.notify_all();
    empty_.notify_all();
    if (sender_.get_id() == std::this_thread::get_id()) {
        return;  // a crash on the sender, which ends the process
    }
    if (sender_.joinable()) {
        sender_.join();
    }
    for (const std::uint32_t type : std::exchange(types_, {})) {
        channel_->UnregisterMsgHandler(type, &OnResponse);
    }
}

ReportQueue::ReportPtr ReportQueue::Make(std::uint32_t type, const void* body, std::size_t length)
{
    const SentrelAgentMsg header = {kMsgVersion, type, 0, static_cast<std::uint32_t>(length)};
    auto report = std::make_shared<Report>();
    report->message.reserve(sizeof(header) + length);
    report->message.append(reinterpret_cast<const char*>(&header), sizeof(header));
    report->message.append(static_cast<const char*>(body), length);
    return report;
}

bool ReportQueue::Push(std::uint32_t type, const void* body, std::size_t length)
{
    if (!IsRequestMessage(type) || length > kMaxMsgBody || (body == nullptr && length > 0)) {
        NE_LOG(ERROR, "Invalid report.[type=%u length=%zu]", type, length);
        return false;
    }
    ReportPtr report = Make(type, length > 0 ? body : "", length);
    Lock lock(mutex_);
    if (!running_) {
        return false;
    }
    if (count_ >= maxCount_ || report->message.size() > maxBytes_ - std::min(bytes_, maxBytes_)) {
        Drop(lock);
        return false;
    }
    ++count_;
    bytes_ += report->message.size();
    waiting_.push_back(std::move(report));
    const bool wake = std::exchange(idle_, false);
    lock.unlock();
    if (wake) {
        changed_.notify_one();
    }
    return true;
}

// Counts a report that finds no room, and tells the log from time to time.
void ReportQueue::Drop(Lock& lock)
{
    ++dropped_;
    const std::int64_t now = Clock::MonotonicNs();
    const bool told = dropRecordNs_ != 0 && now - dropRecordNs_ < kDropRecordPeriodNs;
    if (!told) {
        dropRecordNs_ = now;
    }
    const std::uint64_t dropped = dropped_;
    const std::size_t count = count_;
    const std::size_t bytes = bytes_;
    const bool wake = std::exchange(idle_, false);  // a report too large for an empty queue is to be told too
    lock.unlock();
    if (wake) {
        changed_.notify_one();
    }
    if (!told) {
        NE_LOG(WARN, "Report queue is full, reports are dropped.[count=%zu bytes=%zu dropped=%llu]", count, bytes,
               static_cast<unsigned long long>(dropped));
    }
}

void ReportQueue::Run()
{
    SetThreadName("ReportSender");
    Lock lock(mutex_);
    while (running_) {
        try {
            RunOnce(lock);
        } catch (const std::exception&) {  // no memory: later, perhaps
            if (!lock.owns_lock()) {
                lock.lock();
            }
            changed_.wait_for(lock, kLookPeriod);
        }
    }
}

// Sends one report, or waits until something has changed.
void ReportQueue::RunOnce(Lock& lock)
{
    const bool up = channel_->StatusCheck();
    TakeBack();  // after the look: what an earlier connection has lost goes first on a new one
    if (up) {
        AddDropNotice();
        if (!waiting_.empty() && unanswered_.size() < kMostUnanswered && SendNext(lock)) {
            return;
        }
    }
    idle_ = waiting_.empty();
    if (count_ > 0 || dropped_ > droppedTold_) {
        changed_.wait_for(lock, kLookPeriod);
    } else {
        changed_.wait(lock);
    }
    idle_ = false;
}

// What was lost with its connection, or is not repeated any more, is to be sent anew, before all others.
void ReportQueue::TakeBack()
{
    const std::uint32_t connections = channel_->GetConnectionCount();
    const bool all = std::exchange(connections_, connections) != connections;
    const std::int64_t now = Clock::MonotonicNs();
    auto end = unanswered_.begin();
    for (; end != unanswered_.end() && (all || now - (*end)->sentNs > kAnswerLimitNs); ++end) {
        channel_->DropRequest((*end)->seq);
    }
    waiting_.splice(waiting_.begin(), unanswered_, unanswered_.begin(), end);
}

void ReportQueue::AddDropNotice()
{
    if (notice_ != nullptr || dropped_ == droppedTold_) {
        return;
    }
    const std::uint64_t count = dropped_ - droppedTold_;
    const std::int64_t time = Clock::WallMs();
    TLVValue items[2];
    items[0].Init(kTagTime, reinterpret_cast<const unsigned char*>(&time), sizeof(time));
    items[1].Init(kTagCount, reinterpret_cast<const unsigned char*>(&count), sizeof(count));
    TLVPacker packer;
    packer.Add(std::move(items[0]));
    packer.Add(std::move(items[1]));
    if (packer.Pack(kSwapReport) != 0) {
        return;
    }
    ReportPtr notice = Make(kMsgDroppedReports, packer.GetBuffer(), packer.GetSize());
    waiting_.push_back(notice);
    ++count_;
    bytes_ += notice->message.size();
    notice_ = std::move(notice);
    droppedTold_ = dropped_;
}

// False if it was not sent: it is the first of those that wait again.
bool ReportQueue::SendNext(Lock& lock)
{
    const ReportPtr report = waiting_.front();
    const auto place = waiting_.begin();
    report->seq = NextMsgSeq();
    report->sentNs = Clock::MonotonicNs();
    std::memcpy(&report->message[offsetof(SentrelAgentMsg, seq)], &report->seq, sizeof(report->seq));
    unanswered_.splice(unanswered_.end(), waiting_, place);
    lock.unlock();
    const bool sent = Send(*report);
    lock.lock();
    if (!sent && !unanswered_.empty() && unanswered_.back() == report) {  // not answered meanwhile
        waiting_.splice(waiting_.begin(), unanswered_, std::prev(unanswered_.end()));
        channel_->DropRequest(report->seq);
    }
    return sent;
}

bool ReportQueue::Send(const Report& report)
{
    SentrelAgentMsg header;
    std::memcpy(&header, report.message.data(), sizeof(header));
    const std::uint32_t response = ResponseType(header.type);
    if (types_.count(response) == 0) {
        if (!channel_->RegisterMsgHandler(response, &OnResponse, this)) {
            return false;
        }
        types_.insert(response);
    }
    return channel_->SendMessage(report.message.data(), static_cast<unsigned int>(report.message.size())) == kSendDone;
}

void ReportQueue::OnResponse(std::uint32_t /*type*/, void* message, void* queue)
{
    static_cast<ReportQueue*>(queue)->Answered(static_cast<const SentrelAgentMsg*>(message)->seq);
}

void ReportQueue::Answered(std::uint32_t seq)
{
    const Lock lock(mutex_);
    const auto found = std::find_if(unanswered_.begin(), unanswered_.end(),
                                    [seq](const ReportPtr& report) { return report->seq == seq; });
    if (found == unanswered_.end()) {
        return;
    }
    --count_;
    bytes_ -= (*found)->message.size();
    if (*found == notice_) {
        notice_.reset();
    }
    unanswered_.erase(found);
    if (unanswered_.size() == kMostUnanswered - 1) {  // there was no room before
        changed_.notify_one();
    }
    if (count_ == 0) {
        empty_.notify_all();
    }
}

bool ReportQueue::Drain(unsigned int timeoutMs)
{
    const std::int64_t end = Clock::MonotonicNs() + std::int64_t{timeoutMs} * Clock::kNsPerMs;
    Lock lock(mutex_);
    while (count_ > 0 && running_ && Clock::MonotonicNs() < end && channel_->StatusCheck()) {
        empty_.wait_for(lock, kDrainLook);
    }
    return count_ == 0;
}

bool ReportQueue::IsRunning()
{
    const Lock lock(mutex_);
    return running_;
}

std::size_t ReportQueue::GetCount()
{
    const Lock lock(mutex_);
    return count_;
}

std::uint64_t ReportQueue::GetDroppedCount()
{
    const Lock lock(mutex_);
    return dropped_;
}

}  // namespace NEUtils
