#pragma once

#include <chrono>
#include <cstdint>
#include <list>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "basecomm.h"
#include "commands.h"
#include "connection.h"
#include "control.h"
#include "endpoint.h"

struct CollectorOptions {
    std::vector<Endpoint> endpoints;
    std::vector<Endpoint> controls;  // for commands
    bool takesInput = false;         // commands from standard input too
    bool json = false;
    std::uint32_t count = 0;    // of messages; 0: no limit
    std::uint32_t seconds = 0;  // 0: no limit
};

enum ExitStatus {
    kExitDone = 0,
    kExitFailed = 1,
    kExitUsage = 2,
    kExitExpired = 3,
};

// One line on standard error.
void Complain(const std::string& text);

// Serves the agents: one thread, one event loop.
class Collector {
public:
    explicit Collector(CollectorOptions options);

    // Opens all endpoints and says so. False with a complaint if one fails.
    bool Start();

    // Until the limits or a stop signal.
    ExitStatus Run();

    // For the connections. IsDone: no further message may be taken, and Stop is due.
    bool IsDone() const { return stopping_ || failed_ || (options_.count > 0 && messages_ >= options_.count); }
    // Counts a message and prints it, unless nobody waits for it. Gives what is wrong with it, or nothing.
    std::string Take(const Sender& sender, const NEUtils::SentrelAgentMsg& header, unsigned char* body);
    void Flush();
    void Note(const Sender& sender, const std::string& what) const;  // for people only
    void Refuse(Connection& connection, const std::string& why);     // may destroy it
    void Forget(const Sender& sender);                               // it answers no more commands
    void Remove(const Connection& connection);                       // destroys it
    void Stop();                                                     // may destroy any

    // For commands and those who give them. Broadcast gives the agents that the request goes to.
    event_base* GetBase() const { return base_.get(); }
    bool IsJson() const { return options_.json; }
    std::set<std::uint64_t> Broadcast(const std::string& message);
    void Print(std::string line);
    void EndIfIdle();  // once it is stopping

private:
    struct Listener {
        ListenSocket socket;
        EventPtr<evconnlistener> events;
    };

    static void OnAccept(evconnlistener* listener, int fd, sockaddr* address, int length, void* self);
    static void OnAcceptClient(evconnlistener* listener, int fd, sockaddr* address, int length, void* self);
    static void OnAcceptError(evconnlistener* listener, void* self);
    static void OnResume(int fd, short what, void* self);
    static void OnExpired(int fd, short what, void* self);
    static void OnSignal(int signo, short what, void* self);

    bool Listen(const Endpoint& endpoint, evconnlistener_cb onAccept, const char* what);
    bool ListenAll();
    bool IsIdle() const { return connections_.empty() && control_.IsIdle(); }
    bool StartEvents();
    void Accept(int fd, const sockaddr* address, socklen_t length);
    void Fail();
    void PrintSummary();

    CollectorOptions options_;
    EventPtr<event_base> base_;  // before all that lives in it
    EventPtr<event> interrupt_;
    EventPtr<event> terminate_;
    EventPtr<event> expiry_;
    EventPtr<event> resume_;
    std::list<Listener> listeners_;
    std::map<std::uint64_t, Connection> connections_;
    Commands commands_;
    Control control_;
    std::chrono::steady_clock::time_point started_;
    std::uint64_t agents_ = 0;
    std::uint64_t messages_ = 0;
    std::uint64_t ignored_ = 0;
    std::uint64_t refused_ = 0;
    std::uint64_t bytes_ = 0;
    bool failed_ = false;  // standard output takes no more
    bool expired_ = false;
    bool stopping_ = false;
};
