#include "collector.h"

#include <signal.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <nlohmann/json.hpp>
#include <utility>

namespace {

constexpr std::size_t kMaxConnections = 1024;
constexpr timeval kAcceptPause = {1, 0};
constexpr timeval kStopLimit = {2, 0};

}  // namespace

void Complain(const std::string& text)
{
    std::fprintf(stderr, "sentrel-collector: %s\n", text.c_str());
}

Collector::Collector(CollectorOptions options)
    : options_(std::move(options)),
      base_(event_base_new()),
      commands_(*this),
      control_(*this, commands_),
      started_(std::chrono::steady_clock::now())
{
}

bool Collector::Start()
{
    if (!StartEvents()) {
        Complain("no event loop");
        return false;
    }
    const bool ready = ListenAll() && (!options_.takesInput || control_.ReadInput());
    Flush();
    return ready && !failed_;
}

bool Collector::ListenAll()
{
    for (const Endpoint& endpoint : options_.endpoints) {
        if (!Listen(endpoint, &OnAccept, "listening")) {
            return false;
        }
    }
    for (const Endpoint& endpoint : options_.controls) {
        if (!Listen(endpoint, &OnAcceptClient, "control")) {
            return false;
        }
    }
    return true;
}

bool Collector::StartEvents()
{
    if (base_ == nullptr) {
        return false;
    }
    interrupt_.reset(evsignal_new(base_.get(), SIGINT, &OnSignal, this));
    terminate_.reset(evsignal_new(base_.get(), SIGTERM, &OnSignal, this));
    expiry_.reset(evtimer_new(base_.get(), &OnExpired, this));
    resume_.reset(evtimer_new(base_.get(), &OnResume, this));
    const timeval limit = {static_cast<std::time_t>(options_.seconds), 0};
    return interrupt_ != nullptr && terminate_ != nullptr && expiry_ != nullptr && resume_ != nullptr &&
           evsignal_add(interrupt_.get(), nullptr) == 0 && evsignal_add(terminate_.get(), nullptr) == 0 &&
           (options_.seconds == 0 || evtimer_add(expiry_.get(), &limit) == 0);
}

bool Collector::Listen(const Endpoint& endpoint, evconnlistener_cb onAccept, const char* what)
{
    Listener& listener = listeners_.emplace_back();
    std::string fault = listener.socket.Open(endpoint);
    const std::string name = listener.socket.GetName();
    if (fault.empty()) {
        listener.events.reset(
            evconnlistener_new(base_.get(), onAccept, this, LEV_OPT_CLOSE_ON_EXEC, 0, listener.socket.GetFd()));
        fault = listener.events == nullptr ? "no listener" : "";
    }
    if (!fault.empty()) {
        Complain("cannot listen on " + name + ": " + fault);
        return false;
    }
    evconnlistener_set_error_cb(listener.events.get(), &OnAcceptError);
    Print(options_.json ? nlohmann::json{{what, name}}.dump(-1, ' ', true, nlohmann::json::error_handler_t::replace)
                        : std::string(what) + " on " + name);
    return true;
}

ExitStatus Collector::Run()
{
    event_base_dispatch(base_.get());
    PrintSummary();
    Flush();
    return failed_ ? kExitFailed : expired_ ? kExitExpired : kExitDone;
}

void Collector::OnAccept(evconnlistener*, int fd, sockaddr* address, int length, void* self)
{
    static_cast<Collector*>(self)->Accept(fd, address, static_cast<socklen_t>(length));
}

void Collector::OnAcceptClient(evconnlistener*, int fd, sockaddr*, int, void* self)
{
    static_cast<Collector*>(self)->control_.Accept(fd);
}

// Without descriptors, for example, the same connection would come up again at once.
void Collector::OnAcceptError(evconnlistener* listener, void* self)
{
    Complain(std::string("cannot accept for now: ") + std::strerror(errno));
    evconnlistener_disable(listener);
    evtimer_add(static_cast<Collector*>(self)->resume_.get(), &kAcceptPause);
}

void Collector::OnResume(int, short, void* self)
{
    for (const Listener& listener : static_cast<Collector*>(self)->listeners_) {
        evconnlistener_enable(listener.events.get());
    }
}

void Collector::OnExpired(int, short, void* self)
{
    auto& collector = *static_cast<Collector*>(self);
    collector.expired_ = collector.options_.count > 0 && !collector.IsDone();
    collector.Stop();
}

void Collector::OnSignal(int, short, void* self)
{
    static_cast<Collector*>(self)->Stop();
}

void Collector::Accept(int fd, const sockaddr* address, socklen_t length)
{
    std::string peer = PeerName(fd, address, length);
    EventPtr<bufferevent> buffers;
    if (connections_.size() < kMaxConnections) {
        buffers.reset(bufferevent_socket_new(base_.get(), fd, BEV_OPT_CLOSE_ON_FREE));
    }
    if (buffers == nullptr) {
        close(fd);
        ++refused_;
        Complain("connection from " + peer + " refused: " + std::to_string(connections_.size()) + " are open");
        return;
    }
    const Sender sender = {++agents_, std::move(peer)};
    connections_.try_emplace(agents_, *this, sender, std::move(buffers));
    Note(sender, "connected from " + sender.peer);
}

std::string Collector::Take(const Sender& sender, const NEUtils::SentrelAgentMsg& header, unsigned char* body)
{
    if (NEUtils::IsResponseMessage(header.type)) {
        if (!commands_.Expects(sender, header)) {
            ++ignored_;
        } else if (std::string fault = commands_.TakeAnswer(sender, header, body); !fault.empty()) {
            return fault;
        }
    } else {
        Report report;
        std::string fault = ReadReport(header, body, report);
        if (!fault.empty()) {
            return fault;
        }
        ++messages_;
        Print(options_.json ? ReportJson(sender, report) : ReportText(sender, report));
    }
    bytes_ += sizeof(header) + header.length;
    return {};
}

void Collector::Print(std::string line)
{
    line.push_back('\n');
    if (!failed_ && std::fwrite(line.data(), line.size(), 1, stdout) != 1) {
        Fail();
    }
}

void Collector::Flush()
{
    if (!failed_ && std::fflush(stdout) != 0) {
        Fail();
    }
}

void Collector::Fail()
{
    Complain(std::string("standard output: ") + std::strerror(errno));
    failed_ = true;
}

void Collector::Note(const Sender& sender, const std::string& what) const
{
    if (!options_.json) {
        Complain("agent " + std::to_string(sender.number) + " " + what);
    }
}

void Collector::Refuse(Connection& connection, const std::string& why)
{
    const Sender& sender = connection.GetSender();
    ++refused_;
    Complain("agent " + std::to_string(sender.number) + " (" + sender.peer + ") refused: " + why);
    connection.Finish();
}

void Collector::Forget(const Sender& sender)
{
    commands_.Forget(sender);
}

void Collector::Remove(const Connection& connection)
{
    connections_.erase(connection.GetSender().number);
    EndIfIdle();
}

void Collector::EndIfIdle()
{
    if (stopping_ && IsIdle()) {
        event_base_loopbreak(base_.get());
    }
}

std::set<std::uint64_t> Collector::Broadcast(const std::string& message)
{
    std::set<std::uint64_t> reached;
    for (auto& [number, connection] : connections_) {
        if (connection.SendCommand(message)) {
            reached.insert(reached.end(), number);
        }
    }
    return reached;
}

void Collector::Stop()
{
    if (stopping_) {
        return;
    }
    stopping_ = true;
    listeners_.clear();
    control_.Stop();
    event_base_loopexit(base_.get(), IsIdle() ? nullptr : &kStopLimit);
    for (auto next = connections_.begin(); next != connections_.end();) {
        (next++)->second.Finish();
    }
}

void Collector::PrintSummary()
{
    const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - started_;
    const nlohmann::ordered_json summary = {
        {"messages", messages_}, {"ignored", ignored_}, {"agents", agents_},
        {"refused", refused_},   {"bytes", bytes_},     {"seconds", std::round(seconds.count() * 1000) / 1000},
    };
    if (options_.json) {
        Print(nlohmann::ordered_json{{"summary", summary}}.dump());
        return;
    }
    std::string line = "summary:";
    for (const auto& [name, value] : summary.items()) {
        line.append(" ").append(name).append("=").append(value.dump());
    }
    Print(line);
}
