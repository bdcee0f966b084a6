#include "control.h"

#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <utility>

#include "errors.h"

namespace {

constexpr std::size_t kMaxClients = 16;
constexpr std::size_t kMaxInput = 2 * kMaxCommandLine;
constexpr std::size_t kMaxOutput = std::size_t{256} << 10U;
constexpr timeval kStallLimit = {60, 0};

}  // namespace

SocketClient::SocketClient(Control& control, event_base* base, Commands& commands, EventPtr<bufferevent> buffers)
    : Client(base, commands), control_(control), buffers_(std::move(buffers))
{
    bufferevent_setcb(buffers_.get(), &OnChange, &OnChange, &OnEvent, this);
    bufferevent_setwatermark(buffers_.get(), EV_READ, 0, kMaxInput);
    bufferevent_set_timeouts(buffers_.get(), nullptr, &kStallLimit);
    bufferevent_enable(buffers_.get(), EV_READ);
}

void SocketClient::Finish()
{
    ended_ = true;
    bufferevent_disable(buffers_.get(), EV_READ);
    DropLines(In());
    ServeSoon();
}

void SocketClient::OnChange(bufferevent*, void* self)
{
    static_cast<SocketClient*>(self)->Serve();
}

void SocketClient::OnEvent(bufferevent*, short what, void* self)
{
    auto& client = *static_cast<SocketClient*>(self);
    if (what == (BEV_EVENT_READING | BEV_EVENT_EOF)) {  // of its own direction only, perhaps
        client.ended_ = true;
        client.Serve();
    } else {
        if ((what & BEV_EVENT_TIMEOUT) != 0) {
            Complain("a control client is cut off: it has not read for 60 seconds");
        }
        client.control_.Remove(client);
    }
}

// The last call destroys this client.
void SocketClient::Serve()
{
    if (!dropped_) {
        TakeLines(In());
    }
    if (dropped_ || (IsDone() && evbuffer_get_length(In()) == 0 && evbuffer_get_length(Out()) == 0)) {
        control_.Remove(*this);
    }
}

// Many agents may answer at once: before a client counts as slow, what it can take is sent on the spot.
void SocketClient::Say(const std::string& line)
{
    if (dropped_) {
        return;
    }
    bufferevent_write(buffers_.get(), (line + "\n").data(), line.size() + 1);
    if (evbuffer_get_length(Out()) > kMaxOutput) {
        evbuffer_unfreeze(Out(), 1);
        evbuffer_write(Out(), bufferevent_getfd(buffers_.get()));
        evbuffer_freeze(Out(), 1);
    }
    if (evbuffer_get_length(Out()) > kMaxOutput) {
        dropped_ = true;
        Complain("a control client is cut off: it does not read");
        ServeSoon();
    }
}

bool Control::ReadInput()
{
    input_ = std::make_unique<InputClient>(base_, commands_);
    const std::string fault = input_->Open();
    if (!fault.empty()) {
        Complain("cannot read standard input: " + fault);
    }
    return fault.empty();
}

void Control::Accept(int fd)
{
    EventPtr<bufferevent> buffers;
    if (clients_.size() < kMaxClients) {
        buffers.reset(bufferevent_socket_new(base_, fd, BEV_OPT_CLOSE_ON_FREE));
    } else {
        Complain("a control client is refused: there are 16");
        const std::string line = commands_.FaultText("too many clients") + "\n";
        send(fd, line.data(), line.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    }
    if (buffers == nullptr) {
        close(fd);
        return;
    }
    clients_.emplace_back(*this, base_, commands_, std::move(buffers));
}

void Control::Remove(const SocketClient& client)
{
    commands_.Forget(client);
    clients_.remove_if([&client](const SocketClient& other) { return &other == &client; });
    if (clients_.empty()) {
        onChange_();
    }
}

void Control::Check()
{
    if (input_ != nullptr) {
        input_->Check();
    }
}

void Control::Stop()
{
    if (input_ != nullptr) {
        input_->Finish();
    }
    for (SocketClient& client : clients_) {
        client.Finish();
    }
}
