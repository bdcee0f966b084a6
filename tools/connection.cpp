#include "connection.h"

#include <utility>

namespace {

using namespace NEUtils;
using std::chrono::steady_clock;

constexpr std::chrono::seconds kFinishLimit{2};
constexpr std::size_t kMaxRead = std::size_t{128} << 10U;
constexpr std::size_t kMaxPending = std::size_t{256} << 10U;
constexpr std::size_t kMaxUnanswered = 1000;

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

void DropReference(const void*, std::size_t, void* message)
{
    delete static_cast<std::shared_ptr<const std::string>*>(message);
}

}  // namespace

Connection::Connection(ConnectionOwner& owner, Sender sender, EventPtr<bufferevent> buffers)
    : owner_(owner),
      sender_(std::move(sender)),
      buffers_(std::move(buffers)),
      markTime_(steady_clock::now()),
      lastMessage_(markTime_)
{
    bufferevent_priority_set(buffers_.get(), kUsual);
    bufferevent_setcb(buffers_.get(), &OnRead, &OnDrained, &OnEvent, this);
    bufferevent_setwatermark(buffers_.get(), EV_READ, 0, kMaxMsgSize);
    bufferevent_set_max_single_read(buffers_.get(), kMaxRead);
    bufferevent_enable(buffers_.get(), EV_READ);
}

// Commands alone never fill what may be pending, so they do not keep the agent's messages from being read.
bool Connection::SendCommand(const std::shared_ptr<const std::string>& message)
{
    if (!TakesCommands() || CountPending() + message->size() >= kMaxPending) {
        return false;
    }
    auto reference = std::make_unique<std::shared_ptr<const std::string>>(message);
    if (evbuffer_add_reference(bufferevent_get_output(buffers_.get()), message->data(), message->size(), &DropReference,
                               reference.get()) != 0) {
        return false;
    }
    static_cast<void>(reference.release());
    queued_ += message->size();
    return true;
}

// What follows from it comes with the next turn of the event loop, since it may destroy this connection.
void Connection::Answer(std::vector<SentrelAgentMsg> requests)
{
    unanswered_ -= requests.size();
    SendAnswers(std::move(requests));
    if (finishing_ && HasNothingToSend()) {
        bufferevent_trigger(buffers_.get(), EV_WRITE, BEV_TRIG_DEFER_CALLBACKS);
    } else if (!finishing_ && !reading_ && HasRoom()) {
        bufferevent_trigger(buffers_.get(), EV_READ, BEV_TRIG_DEFER_CALLBACKS);
    }
}

void Connection::Finish()
{
    if (finishing_) {
        return;
    }
    finishing_ = true;
    evbuffer_drain(bufferevent_get_input(buffers_.get()), CountUnfinished());
    owner_.OnFinishing(*this);
    if (HasNothingToSend()) {
        owner_.Remove(*this);
        return;
    }
    bufferevent_disable(buffers_.get(), EV_READ);
    finishBy_ = steady_clock::now() + kFinishLimit;
}

void Connection::OnRead(bufferevent*, void* self)
{
    auto& connection = *static_cast<Connection*>(self);
    if (!connection.finishing_) {
        connection.TakeMessages();
    }
}

void Connection::OnDrained(bufferevent*, void* self)
{
    auto& connection = *static_cast<Connection*>(self);
    if (connection.finishing_ && connection.HasNothingToSend()) {
        connection.owner_.Remove(connection);
    } else if (!connection.finishing_ && !connection.reading_) {
        connection.TakeMessages();
    }
}

void Connection::OnEvent(bufferevent*, short what, void* self)
{
    auto& connection = *static_cast<Connection*>(self);
    if (connection.finishing_) {
        connection.owner_.Remove(connection);
    } else if ((what & BEV_EVENT_WRITING) != 0) {  // what it had sent before may still be here
        connection.mute_ = true;
        connection.TakeMessages();
    } else if (connection.incomplete_) {
        connection.owner_.Refuse(connection, "closed in the middle of a message");
    } else {
        connection.owner_.OnClosed(connection);
    }
}

// The last call may destroy this connection.
void Connection::TakeMessages()
{
    std::size_t taken = 0;
    while (HasRoom() && owner_.TakesMore() && TakeMessage()) {
        ++taken;
    }
    if (fault_.empty()) {
        UpdateReading(taken);
        owner_.OnServed(*this);
    } else {
        owner_.Refuse(*this, fault_);
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
    if (message == nullptr) {
        fault_ = "no memory";
        return false;
    }
    const Verdict verdict = owner_.Take(*this, header, message + sizeof(header));
    fault_ = verdict.fault;
    if (!fault_.empty()) {
        return false;
    }
    evbuffer_drain(input, size);
    if (verdict.answer == Verdict::kNow && IsRequestMessage(header.type)) {
        SendAnswers({header});
    }
    unanswered_ += verdict.answer == Verdict::kLater ? 1 : 0;
    return true;
}

void Connection::SendAnswers(std::vector<SentrelAgentMsg> requests)
{
    for (SentrelAgentMsg& header : requests) {
        header = {kMsgVersion, ResponseType(header.type), header.seq, 0};
    }
    const std::size_t size = requests.size() * sizeof(SentrelAgentMsg);
    if (!mute_ && bufferevent_write(buffers_.get(), requests.data(), size) == 0) {
        queued_ += size;
    }
}

// Reads on or waits until answers have left. The time of a message runs from its first byte, and stands still
// while nothing is read.
void Connection::UpdateReading(std::size_t taken)
{
    if (reading_ != HasRoom()) {
        reading_ = !reading_;
        (reading_ ? bufferevent_enable : bufferevent_disable)(buffers_.get(), EV_READ);
    }
    const Time now = steady_clock::now();
    const bool wasIncomplete = std::exchange(incomplete_, reading_ && CountUnfinished() > 0);
    if (!wasIncomplete || taken > 0) {
        messageBegin_ = now;
    }
    if (taken > 0) {
        lastMessage_ = now;
    }
}

bool Connection::HasRoom() const
{
    return unanswered_ < kMaxUnanswered && (mute_ || CountPending() < kMaxPending);
}

std::string Connection::CheckTime(Time now, std::chrono::seconds patience)
{
    if (finishing_) {
        return {};
    }
    const std::size_t pending = CountPending();
    if (pending == 0 || queued_ - pending >= mark_) {
        mark_ = queued_;
        markTime_ = now;
    }
    if (now - markTime_ > patience) {
        return "what was sent to it is not read for " + std::to_string(patience.count()) + " seconds";
    }
    if (incomplete_ && now - messageBegin_ > patience) {
        return "a message is incomplete for " + std::to_string(patience.count()) + " seconds";
    }
    return {};
}
