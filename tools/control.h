#pragma once

#include <event2/buffer.h>
#include <event2/bufferevent.h>

#include <functional>
#include <list>
#include <memory>
#include <string>

#include "client.h"
#include "input_client.h"

class Control;

// A client of a control socket.
class SocketClient final : public Client {
public:
    SocketClient(Control& control, event_base* base, Commands& commands, EventPtr<bufferevent> buffers);

    // Runs no more commands; ends when those under way have ended and all is sent.
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

// Where commands come from: clients of the control sockets, and standard input.
//
// Threads  the event loop's only.
// Limits   16 clients; 256 KiB that one does not read, for 60 seconds.
class Control {
public:
    // onChange is called when the last client has gone.
    Control(event_base* base, Commands& commands, std::function<void()> onChange)
        : base_(base), commands_(commands), onChange_(std::move(onChange))
    {
    }

    bool ReadInput();     // false with a complaint
    void Accept(int fd);  // takes it
    void Remove(const SocketClient& client);
    void Stop();
    void Check();  // once a second
    bool IsIdle() const { return clients_.empty(); }

private:
    event_base* base_;
    Commands& commands_;
    const std::function<void()> onChange_;
    std::unique_ptr<InputClient> input_;
    std::list<SocketClient> clients_;
};
