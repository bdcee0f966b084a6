#pragma once

#include <event2/buffer.h>
#include <event2/event.h>

#include <cstddef>

#include "commands.h"
#include "event_ptr.h"

// Reads commands, a line each, and runs at most 16 of them at a time.
class Client : public Asker {
public:
    Client(event_base* base, Commands& commands);
    void OnCommandEnded() override;

protected:
    virtual void Serve() = 0;      // takes what has come
    void ServeSoon();              // calls Serve from the event loop
    void TakeLines(evbuffer* in);  // runs whole lines, as long as there is room for another command
    void DropLines(evbuffer* in);  // removes them, and says so
    bool HasRoom() const;
    bool IsDone() const { return ended_ && underWay_ == 0; }

    bool ended_ = false;  // no more will come

private:
    static void OnResume(int fd, short what, void* self);

    bool TakeLine(evbuffer* in);
    bool SkipLongLine(evbuffer* in, std::size_t length, std::size_t end);

    Commands& commands_;
    EventPtr<event> resume_;
    std::size_t underWay_ = 0;
    bool skipping_ = false;  // the rest of a line that is too long
};
