#include "client.h"

#include <sys/time.h>

#include <string>

namespace {

constexpr std::size_t kMaxUnderWay = 16;  // of one client
constexpr timeval kAtOnce = {0, 0};

}  // namespace

Client::Client(event_base* base, Commands& commands) : commands_(commands), resume_(evtimer_new(base, &OnResume, this))
{
}

// Later, since the caller is in the middle of something.
void Client::OnCommandEnded()
{
    --underWay_;
    ServeSoon();
}

void Client::ServeSoon()
{
    evtimer_add(resume_.get(), &kAtOnce);
}

void Client::OnResume(int, short, void* self)
{
    static_cast<Client*>(self)->Serve();
}

bool Client::HasRoom() const
{
    return underWay_ < kMaxUnderWay;
}

void Client::TakeLines(evbuffer* in)
{
    while (HasRoom() && TakeLine(in)) {
    }
}

void Client::DropLines(evbuffer* in)
{
    if (evbuffer_get_length(in) > 0) {
        Say(commands_.FaultText("the collector ends, further commands are not carried out"));
        evbuffer_drain(in, evbuffer_get_length(in));
    }
}

// False without a whole line; the last one may lack its end.
bool Client::TakeLine(evbuffer* in)
{
    std::size_t end = 0;
    const ev_ssize_t found = evbuffer_search_eol(in, nullptr, &end, EVBUFFER_EOL_CRLF).pos;
    const bool isWhole = found >= 0;
    const std::size_t length = isWhole ? static_cast<std::size_t>(found) : evbuffer_get_length(in);
    if (skipping_ || length > kMaxCommandLine) {
        return SkipLongLine(in, length, isWhole ? end : 0);
    }
    if (!isWhole && (!ended_ || length == 0)) {
        return false;
    }
    std::string line(length, '\0');
    evbuffer_remove(in, line.data(), length);
    evbuffer_drain(in, isWhole ? end : 0);
    if (!isWhole && line.back() == '\r') {
        line.pop_back();
    }
    underWay_ += commands_.Run(line, *this) ? 1 : 0;
    return true;
}

bool Client::SkipLongLine(evbuffer* in, std::size_t length, std::size_t end)
{
    if (!skipping_) {
        Say(commands_.FaultText("a line has more than " + std::to_string(kMaxCommandLine) + " bytes"));
    }
    evbuffer_drain(in, length + end);
    skipping_ = end == 0;
    return !skipping_;
}
