#include "collector.h"

#include <signal.h>
#include <sys/time.h>
#include <unistd.h>

#include <cmath>
#include <nlohmann/json.hpp>
#include <utility>

#include "errors.h"

namespace {

using namespace std::chrono_literals;
using std::chrono::steady_clock;

constexpr timeval kSecond = {1, 0};
constexpr timeval kDispatchLimit = {0, 50000};  // of usual events, before urgent ones are looked for
constexpr timeval kStopLimit = {1, 0};          // for agents and clients
constexpr auto kOutputLimit = 300ms;            // for what is not written after that

event_base* MakeBase()
{
    const EventPtr<event_config> config(event_config_new());
    if (config == nullptr || event_config_set_max_dispatch_interval(config.get(), &kDispatchLimit, -1, kUsual) != 0) {
        return nullptr;
    }
    event_base* base = event_base_new_with_config(config.get());
    if (base != nullptr) {
        event_base_priority_init(base, kPriorities);
    }
    return base;
}

}  // namespace

Collector::Collector(CollectorOptions options)
    : options_(std::move(options)),
      base_(MakeBase()),
      printer_(lines_, options_.json),
      commands_(base_.get(), printer_, agents_),
      agents_(base_.get(), printer_, commands_, options_.agents,
              [this] { event_active(change_.get(), EV_TIMEOUT, 0); }),
      control_(base_.get(), commands_, [this] { event_active(change_.get(), EV_TIMEOUT, 0); }),
      started_(steady_clock::now())
{
}

ExitStatus Collector::Run()
{
    const bool hasStarted = Start();
    if (hasStarted) {
        event_base_dispatch(base_.get());
        PrintSummary();
    }
    const bool isWritten = CloseOutput();
    return !hasStarted || !isWritten ? kExitFailed : expired_ ? kExitExpired : kExitDone;
}

bool Collector::Start()
{
    if (base_ == nullptr || !lines_.Start("OutputWriter") || !AddEvents()) {
        Complain("no event loop or no thread");
        return false;
    }
    return ListenAll() && (!options_.takesInput || control_.ReadInput());
}

bool Collector::AddEvents()
{
    event_base* base = base_.get();
    interrupt_.reset(evsignal_new(base, SIGINT, &OnSignal, this));
    terminate_.reset(evsignal_new(base, SIGTERM, &OnSignal, this));
    second_.reset(event_new(base, -1, EV_PERSIST, &OnSecond, this));
    written_.reset(event_new(base, lines_.GetWakeFd(), EV_READ | EV_PERSIST, &OnOutput, this));
    expiry_.reset(evtimer_new(base, &OnExpired, this));
    stopLimit_.reset(evtimer_new(base, &OnStopLimit, this));
    change_.reset(evtimer_new(base, &OnChange, this));
    for (const auto* urgent : {&interrupt_, &terminate_, &second_, &written_, &expiry_, &stopLimit_, &change_}) {
        if (*urgent == nullptr || event_priority_set(urgent->get(), kUrgent) != 0) {
            return false;
        }
    }
    const timeval limit = {static_cast<std::time_t>(options_.seconds), 0};
    return event_add(interrupt_.get(), nullptr) == 0 && event_add(terminate_.get(), nullptr) == 0 &&
           event_add(second_.get(), &kSecond) == 0 && event_add(written_.get(), nullptr) == 0 &&
           (options_.seconds == 0 || event_add(expiry_.get(), &limit) == 0);
}

bool Collector::ListenAll()
{
    const auto acceptAgent = [this](int fd, const sockaddr* address, socklen_t length) {
        agents_.Accept(fd, address, length);
    };
    const auto acceptClient = [this](int fd, const sockaddr*, socklen_t) { control_.Accept(fd); };
    for (const Endpoint& endpoint : options_.endpoints) {
        if (!Listen(endpoint, acceptAgent)) {
            return false;
        }
    }
    for (const Endpoint& endpoint : options_.controls) {
        if (!Listen(endpoint, acceptClient)) {
            return false;
        }
    }
    PrintEndpoints();
    return true;
}

bool Collector::Listen(const Endpoint& endpoint, const Listener::OnAccept& onAccept)
{
    Listener& listener = listeners_.emplace_back(base_.get(), endpoint, onAccept);
    const std::string fault = listener.Open();
    const std::string name = listener.GetName();
    if (!fault.empty()) {
        Complain("cannot listen on " + name + ": " + fault);
        return false;
    }
    return true;
}

// Not before all are open, since whoever reads this may connect to any of them.
void Collector::PrintEndpoints()
{
    std::size_t i = 0;
    for (const Listener& listener : listeners_) {
        const char* what = i++ < options_.endpoints.size() ? "listening" : "control";
        const std::string name = listener.GetName();
        printer_.Print(options_.json
                           ? nlohmann::json{{what, name}}.dump(-1, ' ', true, nlohmann::json::error_handler_t::replace)
                           : std::string(what) + " on " + name);
    }
}

void Collector::OnSecond(int, short, void* self)
{
    auto& collector = *static_cast<Collector*>(self);
    collector.printer_.CheckStall();
    collector.agents_.CheckTime();
    collector.control_.Check();
    for (Listener& listener : collector.listeners_) {
        listener.Check();
    }
}

void Collector::OnOutput(int, short, void* self)
{
    auto& collector = *static_cast<Collector*>(self);
    collector.lines_.ClearWake();
    collector.agents_.AnswerWritten(collector.printer_.Update());
    if (collector.printer_.HasFailed()) {
        collector.Stop();
    }
}

void Collector::OnExpired(int, short, void* self)
{
    auto& collector = *static_cast<Collector*>(self);
    collector.expired_ = collector.options_.agents.messages > 0 && !collector.agents_.IsDone();
    collector.Stop();
}

void Collector::OnSignal(int, short, void* self)
{
    auto& collector = *static_cast<Collector*>(self);
    if (collector.stopping_) {
        collector.hurries_ = true;
        event_base_loopbreak(collector.base_.get());
    }
    collector.Stop();
}

void Collector::OnStopLimit(int, short, void* self)
{
    event_base_loopbreak(static_cast<Collector*>(self)->base_.get());
}

// Asked for by agents and clients, and done here since none of them is in the middle of something.
void Collector::OnChange(int, short, void* self)
{
    auto& collector = *static_cast<Collector*>(self);
    if (collector.agents_.IsDone()) {
        collector.Stop();
    }
    if (collector.stopping_ && collector.IsIdle()) {
        event_base_loopbreak(collector.base_.get());
    }
}

void Collector::Stop()
{
    if (stopping_) {
        return;
    }
    stopping_ = true;
    event_add(stopLimit_.get(), &kStopLimit);
    listeners_.clear();
    control_.Stop();
    agents_.FinishAll();
    event_active(change_.get(), EV_TIMEOUT, 0);
}

// False if lines are left that standard output has not taken. Their reports are not answered, so that the
// agents still have them.
bool Collector::CloseOutput()
{
    const auto limit = hurries_ ? 0ms : kOutputLimit;
    const bool isWritten = lines_.WaitUntilWritten(steady_clock::now() + limit);
    const bool hasEnded = lines_.Stop();
    printer_.Update();
    const std::uint64_t unwritten = lines_.CountAdded() - lines_.GetProgress().written + printer_.GetLost();
    if (unwritten > 0) {
        Complain(std::to_string(unwritten) + " lines are not written to standard output");
    }
    if (!hasEnded) {
        Complain("standard output hangs in the kernel");
        StopErrorLog();
        _exit(kExitFailed);
    }
    return isWritten && unwritten == 0;
}

void Collector::PrintSummary()
{
    const std::chrono::duration<double> seconds = steady_clock::now() - started_;
    const Figures& figures = agents_.GetFigures();
    const nlohmann::ordered_json summary = {
        {"messages", figures.messages},     {"ignored", figures.ignored},
        {"agents", figures.agents},         {"refused", figures.refused},
        {"bytes", figures.bytes},           {"seconds", std::round(seconds.count() * 1000) / 1000},
        {"unanswered", figures.unanswered},
    };
    if (options_.json) {
        printer_.Print(nlohmann::ordered_json{{"summary", summary}}.dump());
        return;
    }
    std::string line = "summary:";
    for (const auto& [name, value] : summary.items()) {
        line.append(" ").append(name).append("=").append(value.dump());
    }
    printer_.Print(line);
}
