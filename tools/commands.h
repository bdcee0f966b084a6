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

// Who gives commands. Is told what the agents answer, and when a command has ended.
class Asker {
public:
    virtual ~Asker() = default;
    virtual void Say(const std::string& line) = 0;
    virtual void SayAnswer(const std::string& line) { Say(line); }
    virtual void OnCommandEnded() = 0;  // only of one that was left under way
};

// The agents that commands go to.
class AgentGroup {
public:
    // Sends a request to all of them. Gives the numbers of those who get it.
    virtual std::set<std::uint64_t> Broadcast(const std::string& message) = 0;

protected:
    ~AgentGroup() = default;
};

// The commands that are under way: to every agent that is connected, until all have answered or are gone, or
// the time is over.
class Commands {
public:
    Commands(event_base* base, Printer& printer, AgentGroup& agents) : base_(base), printer_(printer), agents_(agents)
    {
    }

    // Does what a line says, or says what is wrong with it. True if a command is under way then.
    bool Run(const std::string& line, Asker& asker);
    std::string FaultText(const std::string& fault) const;

    // Whether a response is the answer of this agent to a command that is under way.
    bool Expects(const Sender& sender, const NEUtils::SentrelAgentMsg& header) const;
    // Such a one; tells everybody. Gives what is wrong with it, or nothing.
    std::string TakeAnswer(const Sender& sender, const NEUtils::SentrelAgentMsg& header, unsigned char* body);

    void Forget(const Sender& sender);  // answers no more
    void Forget(const Asker& asker);    // listens no more; its commands go on

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
