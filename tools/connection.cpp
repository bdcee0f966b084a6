#include "connection.h"

#include <sys/time.h>

#include <cstdint>
#include <utility>

#include "collector.h"

namespace {

using namespace NEUtils;

constexpr timeval kStallLimit = {60, 0};
constexpr timeval kFinishLimit = {2, 0};
constexpr std::size_t kMaxRead = std::size_t{128} << 10U;

std::string CheckHeader(const SentrelAgentMsg& header)
{
    if (header.version != kMsgVersion) {
        return "version " + std::to_string(header.version) + " is not supported";
    }
    if (std::uint64_t{header.length} + sizeof(header) > kMaxMsgSize) {
        return "a body of " + std::to_string(header.length) + " bytes is too long";
    }
    return {};
}

}  // namespace

Connection::Connection(Collector& collector, Sender sender, EventPtr<bufferevent> buffers)
    : collector_(collector), sender_(std::move(sender)), buffers_(std::move(buffers))
{
    bufferevent_setcb(buffers_.get(), &OnRead, &OnDrained, &OnEvent, this);
    bufferevent_setwatermark(buffers_.get(), EV_READ, 0, kMaxMsgSize);
    bufferevent_set_max_single_read(buffers_.get(), kMaxRead);
    bufferevent_enable(buffers_.get(), EV_READ);
}

// Commands alone never fill what may be pending, so they do not keep the agent's messages from being read.
bool Connection::SendCommand(const std::string& message)
{
    if (finishing_ || mute_) {
        return false;
    }
    if (CountPending() + message.size() >= kMaxPending) {
        Complain("agent " + std::to_string(sender_.number) + " gets no command: it does not read");
        return false;
    }
    return bufferevent_write(buffers_.get(), message.data(), message.size()) == 0;
}

void Connection::Finish()
{
    if (finishing_) {
        return;
    }
    finishing_ = true;
    collector_.Forget(sender_);
    if (mute_ || CountPending() == 0) {
        collector_.Remove(*this);
        return;
    }
    bufferevent_disable(buffers_.get(), EV_READ);
    bufferevent_set_timeouts(buffers_.get(), nullptr, &kFinishLimit);
}

void Connection::OnRead(bufferevent*, void* self)
{
    static_cast<Connection*>(self)->TakeMessages();
}

void Connection::OnDrained(bufferevent*, void* self)
{
    auto& connection = *static_cast<Connection*>(self);
    if (connection.finishing_) {
        connection.collector_.Remove(connection);
    } else if (!connection.reading_) {
        connection.TakeMessages();
    }
}

void Connection::OnEvent(bufferevent*, short what, void* self)
{
    auto& connection = *static_cast<Connection*>(self);
    if (connection.finishing_) {
        connection.collector_.Remove(connection);
    } else if ((what & BEV_EVENT_WRITING) != 0) {  // what it had sent before may still be here
        connection.mute_ = true;
        connection.TakeMessages();
    } else if ((what & BEV_EVENT_TIMEOUT) != 0) {
        connection.collector_.Refuse(connection, "no more of an incomplete message for 60 seconds");
    } else {
        connection.OnPeerGone();
    }
}

void Connection::OnPeerGone()
{
    if (incomplete_) {
        collector_.Refuse(*this, "closed in the middle of a message");
        return;
    }
    collector_.Note(sender_, "disconnected");
    Finish();  // it may have closed its own direction only
}

// The last calls may destroy this connection.
void Connection::TakeMessages()
{
    Collector& collector = collector_;
    while (HasRoom() && !collector.IsDone() && TakeMessage()) {
    }
    collector.Flush();
    if (fault_.empty()) {
        Settle();
    } else {
        collector.Refuse(*this, fault_);
    }
    if (collector.IsDone()) {
        collector.Stop();
    }
}

// False without a whole message and after a wrong one.
bool Connection::TakeMessage()
{
    evbuffer* input = bufferevent_get_input(buffers_.get());
    SentrelAgentMsg header = {};
    if (evbuffer_copyout(input, &header, sizeof(header)) != static_cast<ev_ssize_t>(sizeof(header))) {
        return false;
    }
    fault_ = CheckHeader(header);
    const std::size_t size = sizeof(header) + header.length;
    if (!fault_.empty() || evbuffer_get_length(input) < size) {
        return false;
    }
    unsigned char* message = evbuffer_pullup(input, static_cast<ev_ssize_t>(size));
    fault_ = message == nullptr ? "no memory" : collector_.Take(sender_, header, message + sizeof(header));
    if (!fault_.empty()) {
        return false;
    }
    evbuffer_drain(input, size);
    if (IsRequestMessage(header.type)) {
        Send({kMsgVersion, ResponseType(header.type), header.seq, 0});
    }
    return true;
}

void Connection::Send(const SentrelAgentMsg& header)
{
    if (!mute_) {
        bufferevent_write(buffers_.get(), &header, sizeof(header));
    }
}

// Reads on or waits for the agent to read, and watches the time only while a message is incomplete.
void Connection::Settle()
{
    if (reading_ != HasRoom()) {
        reading_ = !reading_;
        (reading_ ? bufferevent_enable : bufferevent_disable)(buffers_.get(), EV_READ);
    }
    const bool incomplete = reading_ && evbuffer_get_length(bufferevent_get_input(buffers_.get())) > 0;
    if (incomplete_ != incomplete) {
        incomplete_ = incomplete;
        bufferevent_set_timeouts(buffers_.get(), incomplete ? &kStallLimit : nullptr, nullptr);
    }
}

std::size_t Connection::CountPending() const
{
    return evbuffer_get_length(bufferevent_get_output(buffers_.get()));
}
