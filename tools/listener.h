#pragma once

#include <functional>
#include <string>

#include "endpoint.h"
#include "event_ptr.h"

// An endpoint that others connect to, as long as it lives.
//
// Threads  the event loop's only.
class Listener {
public:
    using OnAccept = std::function<void(int fd, const sockaddr* address, socklen_t length)>;

    // What is accepted belongs to onAccept, which may destroy connections but not this.
    Listener(event_base* base, Endpoint endpoint, OnAccept onAccept)
        : base_(base), endpoint_(endpoint), onAccept_(std::move(onAccept))
    {
    }

    // Gives why it could not be opened, or nothing.
    std::string Open();
    std::string GetName() const { return socket_->GetName(); }

    // Once a second: goes on after a failure, and makes a socket file anew that was removed.
    void Check();

private:
    static void OnReady(int fd, short what, void* self);

    void AcceptSome();
    void CheckFile();

    event_base* base_;
    const Endpoint endpoint_;
    const OnAccept onAccept_;
    std::unique_ptr<ListenSocket> socket_;
    EventPtr<event> ready_;
    bool isPaused_ = false;
    bool isReplaced_ = false;  // another one's file is where its own was
};
