#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "basecomm.h"
#include "event_ptr.h"
#include "report_text.h"

class Connection;

// What becomes of a message.
struct Verdict {
    enum Answer {
        kNow,
        kLater,  // the owner calls Connection::Answer once it may leave
        kNever,
    };
    std::string fault;  // what is wrong with the message, or nothing
    Answer answer = kNow;
};

// Who has the connections, and destroys them.
class ConnectionOwner {
public:
    // A whole message, whose body is as long as the header says.
    virtual Verdict Take(Connection& connection, const NEUtils::SentrelAgentMsg& header, unsigned char* body) = 0;
    virtual bool TakesMore() const = 0;

    // All that has come is taken. May refuse the connection, which destroys it.
    virtual void OnServed(Connection& connection) = 0;

    // The agent has closed the connection, in order or not; or it broke a rule.
    virtual void OnClosed(Connection& connection) = 0;
    virtual void Refuse(Connection& connection, const std::string& why) = 0;

    virtual void OnFinishing(Connection& connection) = 0;  // it takes no more commands
    virtual void Remove(Connection& connection) = 0;       // destroys it

protected:
    ~ConnectionOwner() = default;
};

// The conversation with one agent.
//
// Threads  the event loop's only.
// Limits   256 KiB of answers and commands that the agent does not read, and 1,000 requests whose answers must
//          not leave yet: beyond that nothing more is read.
class Connection {
public:
    using Time = std::chrono::steady_clock::time_point;

    Connection(ConnectionOwner& owner, Sender sender, EventPtr<bufferevent> buffers);

    const Sender& GetSender() const { return sender_; }
    Time GetLastMessage() const { return lastMessage_; }

    bool TakesCommands() const { return !finishing_ && !mute_; }

    // A whole request for the agent, of which connections share one copy. False, and nothing is sent, if it
    // takes no more or too much is pending.
    bool SendCommand(const std::shared_ptr<const std::string>& message);

    // To requests whose answers were to come later.
    void Answer(std::vector<NEUtils::SentrelAgentMsg> requests);

    // Reads no more and ends as soon as all answers are sent, or after two seconds.
    void Finish();

    // Gives what took the agent longer than our patience, or nothing. Not of one that finishes.
    std::string CheckTime(Time now, std::chrono::seconds patience);
    bool IsOverdue(Time now) const { return finishing_ && now >= finishBy_; }

    // Bytes that have come and could not be taken yet.
    std::size_t CountUnfinished() const { return evbuffer_get_length(bufferevent_get_input(buffers_.get())); }

private:
    static void OnRead(bufferevent* buffers, void* self);
    static void OnDrained(bufferevent* buffers, void* self);
    static void OnEvent(bufferevent* buffers, short what, void* self);

    void TakeMessages();
    bool TakeMessage();
    void SendAnswers(std::vector<NEUtils::SentrelAgentMsg> requests);
    void UpdateReading(std::size_t taken);
    bool HasRoom() const;
    bool HasNothingToSend() const { return unanswered_ == 0 && (mute_ || CountPending() == 0); }
    std::size_t CountPending() const { return evbuffer_get_length(bufferevent_get_output(buffers_.get())); }

    ConnectionOwner& owner_;
    Sender sender_;
    EventPtr<bufferevent> buffers_;
    std::string fault_;           // why it is refused
    std::size_t unanswered_ = 0;  // requests whose answers come later
    std::uint64_t queued_ = 0;    // bytes that were ever to be sent
    std::uint64_t mark_ = 0;      // as many of them are to be gone some time after markTime_
    Time markTime_;
    Time messageBegin_;  // of the message that is incomplete
    Time lastMessage_;   // when the last whole one came, or the connection
    Time finishBy_;
    bool reading_ = true;      // not held up by answers that the agent does not read, or must not get yet
    bool incomplete_ = false;  // a part of a message has come
    bool mute_ = false;        // the agent takes no more answers
    bool finishing_ = false;
};
