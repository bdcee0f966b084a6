#pragma once

#include <cstdint>
#include <memory>
#include <set>

#include "comm/report_store.h"
#include "socket_comm.h"

namespace NEUtils {

// What a report queue does with its channel: it sends, and has the answers handed to a function of its own.
//
// Threads  one at a time.
// Blocks   as long as SocketComm may send.
class ReportChannel {
public:
    // The function gets the number that is answered, on the channel's thread.
    using OnAnswer = void (*)(std::uint32_t seq, void* owner);

    ReportChannel(std::shared_ptr<SocketComm> channel, OnAnswer onAnswer, void* owner)
        : channel_(std::move(channel)), onAnswer_(onAnswer), owner_(owner)
    {
    }
    ~ReportChannel();  // afterwards the function is called no more
    ReportChannel(const ReportChannel&) = delete;
    ReportChannel& operator=(const ReportChannel&) = delete;

    SocketComm& Get() const { return *channel_; }
    bool Send(const ReportStore::Batch& batch);
    bool SendHeartbeat(std::uint32_t seq);
    void DropRequests(const ReportStore::Numbers& numbers) const;

private:
    static void OnResponse(std::uint32_t type, void* message, void* self);
    bool HandleAnswers(std::uint32_t type);

    const std::shared_ptr<SocketComm> channel_;
    const OnAnswer onAnswer_;
    void* const owner_;
    std::set<std::uint32_t> types_;  // of the answers that are handled
};

}  // namespace NEUtils
