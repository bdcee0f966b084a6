#pragma once

#include <event2/buffer.h>
#include <event2/bufferevent.h>

#include <list>
#include <memory>
#include <string>

#include "client.h"
#include "input_client.h"

class Control;

// Of a control socket.
class SocketClient final : public Client {
public:
    SocketClient(Control& control, Collector& collector, Commands& commands, EventPtr<bufferevent> buffers);

    // Runs no more commands; ends when those under way have, and all is sent.
    void Finish();

    void Say(const std::string& line) override;

private:
    static void OnChange(bufferevent* buffers, void* self);
    static void OnEvent(bufferevent* buffers, short what, void* self);

    void Serve() override;
    evbuffer* In() const { return bufferevent_get_input(buffers_.get()); }
    evbuffer* Out() const { return bufferevent_get_output(buffers_.get()); }

    Control& control_;
    EventPtr<bufferevent> buffers_;
    bool dropped_ = false;  // reads too slowly
};

// Where commands come from.
class Control {
public:
    Control(Collector& collector, Commands& commands) : collector_(collector), commands_(commands) {}

    bool ReadInput();     // false with a complaint
    void Accept(int fd);  // takes it
    void Remove(const SocketClient& client);
    void Stop();
    bool IsIdle() const { return clients_.empty(); }

private:
    Collector& collector_;
    Commands& commands_;
    std::unique_ptr<InputClient> input_;
    std::list<SocketClient> clients_;
};
