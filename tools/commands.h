#pragma once

#include <event2/event.h>

#include <cstdint>
#include <map>
#include <set>
#include <string>

#include "basecomm.h"
#include "command.h"
#include "event_ptr.h"
#include "printer.h"
#include "report_text.h"

// Whoever gives commands.
class Asker {
public:
    virtual ~Asker() = default;
    virtual void Say(const std::string& line) = 0;                  // a result or a fault
    virtual void SayAnswer(const std::string& line) { Say(line); }  // what an agent has answered
    virtual void OnCommandEnded() = 0;                              // of one for which Run gave true
};

// The agents that commands go to.
class AgentGroup {
public:
    // Sends a request to all of them. Gives the numbers of those who get it.
    virtual std::set<std::uint64_t> Broadcast(const std::string& message) = 0;

protected:
    ~AgentGroup() = default;
};

// The commands that are under way. A command goes to every agent that is connected, and ends when all of them have
// answered or are gone, after 10 seconds at most.
//
// Threads  the event loop's only.
// Limits   512 commands at once.
class Commands {
public:
    Commands(event_base* base, Printer& printer, AgentGroup& agents) : base_(base), printer_(printer), agents_(agents)
    {
    }

    // Carries out a line, or says to the asker what is wrong with it. True if a command is under way then.
    bool Run(const std::string& line, Asker& asker);
    std::string FaultText(const std::string& fault) const;

    // Whether a command waits for this response of this agent.
    bool Expects(const Sender& sender, const NEUtils::SentrelAgentMsg& header) const;
    // Takes such a response: prints it and gives it to the asker. Gives what is wrong with it, or nothing.
    std::string TakeAnswer(const Sender& sender, const NEUtils::SentrelAgentMsg& header, unsigned char* body);

    void Forget(const Sender& sender);  // waits for this agent no more
    void Forget(const Asker& asker);    // says nothing more to this asker; its commands go on

private:
    struct UnderWay {
        Commands& owner;
        std::uint32_t seq;
        Command command;
        Asker* asker;                     // null: gone
        std::set<std::uint64_t> waiting;  // for these agents
        std::size_t sent;
        std::size_t answered = 0;
        EventPtr<event> limit = {};
    };

    static void OnLimit(int fd, short what, void* underWay);

    void SayHelp(Asker& asker) const;
    bool Send(Command command, Asker& asker);
    bool Watch(UnderWay& underWay) const;
    void SayDone(const UnderWay& underWay) const;
    void End(std::uint32_t seq);

    event_base* base_;
    Printer& printer_;
    AgentGroup& agents_;
    std::map<std::uint32_t, UnderWay> underWay_;  // by seq
    std::uint32_t seq_ = 0;
};
