#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>

#include "neutils_api.h"
#include "socket_comm.h"

namespace NEUtils {

// Reports on their way to the server. A report leaves the queue only with its response, so what cannot be
// sent waits, and is sent once the channel is up again. They go out in their order, at most 200 of them
// unanswered; one whose repetitions are used up, or whose connection has ended, goes out again as a new
// request. So a server may get a report twice, but not less than once.
//
// What does not fit is dropped and counted. Once the channel works, the count is reported in a message of
// its own, kMsgDroppedReports, behind the reports that were queued by then. A channel has one queue.
//
// Threads  Push, Drain and the figures: any. Start and Stop: one at a time. "ReportSender" sends.
// Blocks   Push never. Stop: while a send is under way, as long as SocketComm may send; stop the channel first.
// Limits   number and bytes, headers counted, of all reports in the queue, answered ones not.
class NEUTILS_API ReportQueue {
public:
    // The process's own, through which the agent and its features report; never destroyed.
    static ReportQueue& GetInstance();

    ReportQueue() = default;
    ~ReportQueue() { Stop(); }
    ReportQueue(const ReportQueue&) = delete;
    ReportQueue& operator=(const ReportQueue&) = delete;

    // Sends over this channel from now on. False if it runs already or there is no thread to be had.
    bool Start(std::shared_ptr<SocketComm> channel, std::size_t maxCount, std::size_t maxBytes);
    void Stop();  // what is in the queue stays for the next start

    // Adds a request of an odd type, copying its body. False: not running, no such message (with a record),
    // or no room (counted). Throws std::bad_alloc.
    bool Push(std::uint32_t type, const void* body, std::size_t length);

    // Waits until the queue is empty, as long as the channel is up; true if it is. A message about dropped
    // reports may still be to come.
    bool Drain(unsigned int timeoutMs);

    bool IsRunning();
    std::size_t GetCount();
    std::uint64_t GetDroppedCount();  // since the process started

private:
    struct Report {
        std::string message;  // with its header
        std::uint32_t seq = 0;
        std::int64_t sentNs = 0;
    };
    using ReportPtr = std::shared_ptr<Report>;
    using Lock = std::unique_lock<std::mutex>;

    static ReportPtr Make(std::uint32_t type, const void* body, std::size_t length);
    static void OnResponse(std::uint32_t type, void* message, void* queue);

    void Run();
    void RunOnce(Lock& lock);
    void TakeBack();
    void AddDropNotice();
    bool SendNext(Lock& lock);
    bool Send(const Report& report);
    void Answered(std::uint32_t seq);
    void Drop(Lock& lock);

    std::mutex mutex_;
    std::condition_variable changed_;  // for the sender
    std::condition_variable empty_;
    std::list<ReportPtr> waiting_;
    std::list<ReportPtr> unanswered_;  // in the order of their sending
    std::size_t count_ = 0;            // of both
    std::size_t bytes_ = 0;
    std::size_t maxCount_ = 0;
    std::size_t maxBytes_ = 0;
    std::uint64_t dropped_ = 0;
    std::uint64_t droppedTold_ = 0;  // to the server
    ReportPtr notice_;               // the message about dropped reports, while it is in the queue
    std::int64_t dropRecordNs_ = 0;  // when the log was told
    std::uint32_t connections_ = 0;  // the channel's count when last looked at
    bool running_ = false;
    bool idle_ = false;  // the sender waits for reports

    std::shared_ptr<SocketComm> channel_;
    std::set<std::uint32_t> types_;  // responses that are handled; of the sender and, without it, of Stop
    std::thread sender_;
};

}  // namespace NEUtils
