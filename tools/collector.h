#pragma once

#include <chrono>
#include <list>
#include <string>

#include "agents.h"
#include "commands.h"
#include "control.h"
#include "event_ptr.h"
#include "line_queue.h"
#include "listener.h"
#include "options.h"
#include "printer.h"

// The server as a whole: its event loop, what the loop serves, and its end. One a process.
//
// Threads  one, with the event loop; "OutputWriter" writes standard output.
// Blocks   a stop takes 2 s at most, whatever agents, clients and outputs do.
class Collector {
public:
    explicit Collector(CollectorOptions options);

    // Until the limits or a stop signal. Ends the process if standard output hangs in the kernel.
    ExitStatus Run();

private:
    static void OnSecond(int fd, short what, void* self);
    static void OnOutput(int fd, short what, void* self);
    static void OnExpired(int fd, short what, void* self);
    static void OnSignal(int signo, short what, void* self);
    static void OnStopLimit(int fd, short what, void* self);
    static void OnChange(int fd, short what, void* self);

    bool Start();
    bool AddEvents();
    bool Listen(const Endpoint& endpoint, const Listener::OnAccept& onAccept);
    bool ListenAll();
    void PrintEndpoints();
    bool IsIdle() const { return agents_.IsEmpty() && control_.IsIdle(); }
    void Stop();
    void End();
    bool CloseOutput();
    void PrintSummary();

    const CollectorOptions options_;
    EventPtr<event_base> base_;  // before all that lives in it
    StreamOutput output_{1};
    LineQueue lines_{output_};
    Printer printer_;
    EventPtr<event> interrupt_;
    EventPtr<event> terminate_;
    EventPtr<event> second_;
    EventPtr<event> written_;
    EventPtr<event> expiry_;
    EventPtr<event> stopLimit_;
    EventPtr<event> change_;
    std::list<Listener> listeners_;
    Commands commands_;
    Agents agents_;
    Control control_;
    std::chrono::steady_clock::time_point started_;
    bool expired_ = false;
    bool stopping_ = false;
    bool hurries_ = false;  // a second signal has come
};
