#pragma once

#include <sys/socket.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <set>
#include <string>

#include "commands.h"
#include "connection.h"
#include "printer.h"

struct AgentLimits {
    std::size_t count = 1024;           // of connections
    std::chrono::seconds patience{60};  // for a message, and for an agent to read what was sent to it
    std::uint64_t messages = 0;         // to be taken in all; 0: any number
};

// What the summary says.
struct Figures {
    std::uint64_t messages = 0;
    std::uint64_t ignored = 0;     // responses that nobody waited for
    std::uint64_t agents = 0;      // connections
    std::uint64_t refused = 0;     // connections too
    std::uint64_t unanswered = 0;  // reports that the output had no room for
    std::uint64_t bytes = 0;
};

// The agents that are connected. Prints what they report, and answers a report once its line is written.
//
// Threads  the event loop's only.
// Limits   the number of connections: beyond it, the one that was silent longest makes room, if that is longer
//          than our patience. Unfinished messages: 64 MiB over all and 8 MiB of one address or process.
class Agents final : public ConnectionOwner, public AgentGroup {
public:
    // onChange is called when the last agent has gone and when all messages are taken. It must not call back.
    Agents(event_base* base, Printer& printer, Commands& commands, AgentLimits limits, std::function<void()> onChange)
        : base_(base), printer_(printer), commands_(commands), limits_(limits), onChange_(std::move(onChange))
    {
    }

    void Accept(int fd, const sockaddr* address, socklen_t length);  // takes the descriptor
    void AnswerWritten(std::uint64_t lines);                         // the output has taken so many lines
    void CheckTime();                                                // once a second
    void FinishAll();                                                // takes no further messages

    bool IsEmpty() const { return connections_.empty(); }
    bool IsDone() const { return limits_.messages > 0 && figures_.messages >= limits_.messages; }
    const Figures& GetFigures() const { return figures_; }

    // AgentGroup.
    std::set<std::uint64_t> Broadcast(const std::string& message) override;

    // ConnectionOwner.
    Verdict Take(Connection& connection, const NEUtils::SentrelAgentMsg& header, unsigned char* body) override;
    bool TakesMore() const override { return !finishing_ && !IsDone(); }
    void OnServed(Connection& connection) override;
    void OnClosed(Connection& connection) override;
    void Refuse(Connection& connection, const std::string& why) override;
    void OnFinishing(Connection& connection) override;
    void Remove(Connection& connection) override;

private:
    // A report whose line is not written yet.
    struct Waiting {
        std::uint64_t line;
        std::uint64_t agent;
        NEUtils::SentrelAgentMsg header;
    };
    // Bytes of unfinished messages.
    struct Unfinished {
        std::map<std::uint64_t, std::size_t> ofAgents;
        std::map<std::string, std::size_t> ofPeers;
        std::size_t all = 0;
        std::size_t most = 0;  // since memory was given back
    };

    Verdict TakeAnswer(Connection& connection, const NEUtils::SentrelAgentMsg& header, unsigned char* body);
    void MakeRoom();
    void SetUnfinished(const Sender& sender, std::size_t bytes);
    void RefuseGreediest();
    void GiveMemoryBack();
    void Note(const Sender& sender, const char* type, const std::string& text);

    event_base* base_;
    Printer& printer_;
    Commands& commands_;
    const AgentLimits limits_;
    const std::function<void()> onChange_;
    std::map<std::uint64_t, Connection> connections_;
    std::deque<Waiting> waiting_;  // in the order of their lines
    Unfinished unfinished_;
    Figures figures_;
    std::size_t removed_ = 0;  // connections, since memory was given back
    bool finishing_ = false;
};
