#pragma once

#include <event2/buffer.h>
#include <event2/bufferevent.h>
#include <event2/event.h>

#include <memory>

// Owners of what the event loop's library hands out.
struct EventFree {
    void operator()(event_base* base) const { event_base_free(base); }
    void operator()(event_config* config) const { event_config_free(config); }
    void operator()(event* timer) const { event_free(timer); }
    void operator()(bufferevent* buffers) const { bufferevent_free(buffers); }
    void operator()(evbuffer* bytes) const { evbuffer_free(bytes); }
};

template <class T>
using EventPtr = std::unique_ptr<T, EventFree>;

// Events of a lower number are served first. Those of kUrgent come seldom: signals, timers, the output.
enum EventPriority { kUrgent = 0, kUsual = 1, kPriorities = 2 };
