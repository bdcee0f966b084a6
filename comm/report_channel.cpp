#include "comm/report_channel.h"

#include <cstring>
#include <new>
#include <vector>

#include "report_messages.h"

namespace NEUtils {

namespace {

std::uint32_t TypeOf(const std::string& message)
{
    SentrelAgentMsg header;
    std::memcpy(&header, message.data(), sizeof(header));
    return header.type;
}

}  // namespace

ReportChannel::~ReportChannel()
{
    for (const std::uint32_t type : types_) {
        channel_->UnregisterMsgHandler(type, &OnResponse);
    }
}

bool ReportChannel::Send(const ReportStore::Batch& batch)
{
    try {
        std::vector<SocketComm::Request> requests;
        for (const auto& report : batch) {
            if (!HandleAnswers(ResponseType(TypeOf(*report->message)))) {
                return false;
            }
            requests.push_back(report->message);
        }
        return channel_->SendRequests(requests) == kSendDone;
    } catch (const std::bad_alloc&) {
        return false;
    }
}

bool ReportChannel::SendHeartbeat(std::uint32_t seq)
{
    const SentrelAgentMsg message = {kMsgVersion, kMsgHeartbeat, seq, 0};
    try {
        return HandleAnswers(ResponseType(kMsgHeartbeat)) &&
               channel_->SendMessage(reinterpret_cast<const char*>(&message), sizeof(message)) == kSendDone;
    } catch (const std::bad_alloc&) {
        return false;
    }
}

void ReportChannel::DropRequests(const ReportStore::Numbers& numbers) const
{
    for (const std::uint32_t seq : numbers) {
        channel_->DropRequest(seq);
    }
}

bool ReportChannel::HandleAnswers(std::uint32_t type)
{
    if (types_.count(type) == 0) {
        if (!channel_->RegisterMsgHandler(type, &OnResponse, this)) {
            return false;
        }
        types_.insert(type);
    }
    return true;
}

void ReportChannel::OnResponse(std::uint32_t /*type*/, void* message, void* self)
{
    const auto& own = *static_cast<ReportChannel*>(self);
    own.onAnswer_(static_cast<const SentrelAgentMsg*>(message)->seq, own.owner_);
}

}  // namespace NEUtils
