#pragma once

#include <event2/buffer.h>
#include <event2/bufferevent.h>
#include <event2/event.h>
#include <event2/listener.h>

#include <cstddef>
#include <memory>
#include <string>

#include "basecomm.h"
#include "report_text.h"

class Collector;

struct EventFree {
    void operator()(event_base* base) const { event_base_free(base); }
    void operator()(event* timer) const { event_free(timer); }
    void operator()(evconnlistener* listener) const { evconnlistener_free(listener); }
    void operator()(bufferevent* buffers) const { bufferevent_free(buffers); }
    void operator()(evbuffer* bytes) const { evbuffer_free(bytes); }
};

template <class T>
using EventPtr = std::unique_ptr<T, EventFree>;

// The conversation with one agent. Tells its collector of every message and when it has ended, upon which
// the collector destroys it.
class Connection {
public:
    Connection(Collector& collector, Sender sender, EventPtr<bufferevent> buffers);

    const Sender& GetSender() const { return sender_; }

    // A whole request for the agent. False, and nothing is sent, if it takes no more or too much is pending.
    bool SendCommand(const std::string& message);

    // Reads no more and ends as soon as what is pending has been sent.
    void Finish();

private:
    static void OnRead(bufferevent* buffers, void* self);
    static void OnDrained(bufferevent* buffers, void* self);
    static void OnEvent(bufferevent* buffers, short what, void* self);

    void TakeMessages();
    bool TakeMessage();
    void Send(const NEUtils::SentrelAgentMsg& header);
    void Settle();
    void OnPeerGone();
    bool HasRoom() const { return mute_ || CountPending() < kMaxPending; }
    std::size_t CountPending() const;

    static constexpr std::size_t kMaxPending = std::size_t{256} << 10U;

    Collector& collector_;
    Sender sender_;
    EventPtr<bufferevent> buffers_;
    std::string fault_;        // why it is refused
    bool reading_ = true;      // not held up by answers that the agent does not read
    bool incomplete_ = false;  // a part of a message has come
    bool mute_ = false;        // the agent takes no more answers
    bool finishing_ = false;
};
