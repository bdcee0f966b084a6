#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "neutils_api.h"
#include "socket_comm.h"

namespace NEUtils {

// What has become of the reports of a queue since it was made. At each moment pushed is the sum of waiting,
// unanswered, acknowledged and the dropped ones. Heartbeats and notices of drops are no reports.
struct ReportAccount {
    std::uint64_t pushed = 0;        // all that somebody wanted to report
    std::uint64_t waiting = 0;       // in the queue, to be sent
    std::uint64_t unanswered = 0;    // in the queue, sent
    std::uint64_t acknowledged = 0;  // answered by the server

    std::uint64_t droppedFull = 0;      // there was no room
    std::uint64_t droppedTooLarge = 0;  // longer than a message, or than the whole queue, may be
    std::uint64_t droppedStopped = 0;   // the queue was not running
    std::uint64_t droppedInvalid = 0;   // not a request, or without its body
    std::uint64_t droppedNoMemory = 0;

    std::uint64_t dropsReported = 0;  // of the dropped ones, how many the server knows about
    std::uint64_t repeats = 0;        // reports sent again by the queue; the channel's own repeats do not count

    std::uint64_t GetDropped() const
    {
        return droppedFull + droppedTooLarge + droppedStopped + droppedInvalid + droppedNoMemory;
    }
};

// Reports on their way to the server. A report leaves the queue only with its answer, so what cannot be sent
// waits until the channel is up. They go out in their order, several in one send, at most 200 of them
// unanswered. What was under way when a connection broke goes out again, first, on the next one. So a server
// may get a report twice, but not less than once.
//
// The channel repeats an unanswered report three times. After that, 36 seconds after its sending, the queue
// sends it as a new request; the next time after 72 seconds, and so on up to 576. The connection stays for
// that, as long as the server answers anything: a heartbeat asks for an answer when there was none for 10
// seconds, and after 30 seconds without any the queue gives the connection up. On the next connection such a
// server first gets a heartbeat, and the reports with its first answer, or when their time has come.
//
// What does not fit is dropped and counted. Once the channel works, a notice tells the server how many, in a
// message of its own, kMsgDroppedReports, behind the reports that were queued by then.
//
// Threads  Push, Drain and the figures: any. Start and Stop: one at a time. "ReportSender" sends. A channel
//          has one queue.
// Blocks   Push never. Stop: up to half a second for a send under way; then it gives the connection up.
// Limits   number and bytes, headers counted, of all reports in the queue, answered ones not. A report waits up to
//          10 ms for others that go out with it; not while somebody drains the queue, nor when 100 reports wait,
//          or 64 KiB, or half of what the queue may hold.
class NEUTILS_API ReportQueue {
public:
    // The process's own, through which the agent and its features report; never destroyed.
    static ReportQueue& GetInstance();

    ReportQueue();
    ~ReportQueue();
    ReportQueue(const ReportQueue&) = delete;
    ReportQueue& operator=(const ReportQueue&) = delete;

    // Sends over this channel from now on. False if it runs already or there is no thread to be had.
    bool Start(std::shared_ptr<SocketComm> channel, std::size_t maxCount, std::size_t maxBytes);
    void Stop();  // what is in the queue stays for the next start

    // Adds a request of an odd type, copying its body. False: dropped, and counted by its reason.
    bool Push(std::uint32_t type, const void* body, std::size_t length);

    // Waits until the server has answered everything, notices of drops too, as long as the channel is up and
    // answers come at least every half second. False if something is left.
    bool Drain(unsigned int timeoutMs);

    bool IsRunning();
    bool IsServerAnswering();  // whether it has answered anything on this connection within 30 seconds
    // How long ago "ReportSender" last came round: every 3 seconds, or after a send of up to 11. -1 while it is
    // stopped.
    long long GetBeatAgeMs() const;
    ReportAccount GetAccount();
    std::size_t GetCount();  // of the reports in the queue
    std::uint64_t GetDroppedCount();

private:
    struct Members;
    const std::unique_ptr<Members> members_;
};

}  // namespace NEUtils
