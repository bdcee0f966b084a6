#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "neutils_api.h"

namespace NEUtils {

// The header of every message between an agent and its server. The body follows it, often as TLV items
// (tlv.h). All fields are in the host's byte order, which must be the same on both sides.
struct SentrelAgentMsg {
    std::uint32_t version;  // kMsgVersion
    std::uint32_t type;     // odd: a request, even: a response
    std::uint32_t seq;      // a response has that of its request
    std::uint32_t length;   // of the body, in bytes
};

inline constexpr std::uint32_t kMsgVersion = 1;
inline constexpr std::size_t kMaxMsgSize = 524288;  // header and body
inline constexpr std::size_t kMaxMsgBody = kMaxMsgSize - sizeof(SentrelAgentMsg);

inline constexpr bool IsRequestMessage(std::uint32_t type)
{
    return (type & 1U) != 0;
}

inline constexpr bool IsResponseMessage(std::uint32_t type)
{
    return !IsRequestMessage(type);
}

// The next number for a request. All senders of a process take their numbers from here. Any thread.
NEUTILS_API std::uint32_t NextMsgSeq();

enum BaseCommMethod {
    kSocketClient = 0,
    kKafkaClient = 1,
    kRestfulClient = 2,
    kWebSocket = 3,
};

// The result of SendControlMsg.
enum SendResult {
    kSendDone = 0,
    kSendRefused = 1,  // a wrong argument, or no memory
    kSendFailed = 2,   // the channel is down, or the send failed
};

// Gets a whole message, header first. It is aligned for any type, and valid during the call.
using MsgHandler = void (*)(std::uint32_t type, void* message, void* userData);

// A way to the server. Each component decides what an operation does, beyond what its name says.
class NEUTILS_API NetCommBase {
public:
    virtual ~NetCommBase();
    virtual bool Init() = 0;
    virtual bool Start() = 0;
    virtual bool Stop() = 0;
    virtual bool DeInit() = 0;
    virtual bool StatusCheck() = 0;  // whether it is up
    virtual int SendControlMsg(const char* message, unsigned int length) = 0;
    virtual int SendLogWithTopicHeader(const std::string& topic, const std::string& log, bool withHeader) = 0;
    virtual bool RegisterMsgHandler(std::uint32_t type, MsgHandler handler, void* userData) = 0;
    virtual bool UnregisterMsgHandler(std::uint32_t type, MsgHandler handler) = 0;
};

// The process's components, driven together: each function calls the operation of that name on every
// registered component.
//
// Threads  any. No lock is held while a component works, so the component must allow what runs at once.
// Blocks   as long as the components do, one after the other.
// Errors   false if there is no component or one of them fails. The functions for handlers log nothing then.

// Adds a component, or replaces the one of this method: stop that one first. False, with a log record, for null.
NEUTILS_API bool RegisterComponent(BaseCommMethod method, std::shared_ptr<NetCommBase> component);

// Also gives SIGPIPE an empty handler, so that it does not end the process; child programs do not inherit that.
// A second call does nothing and gives true.
NEUTILS_API bool BaseCommInit();
NEUTILS_API bool BaseCommStart();
NEUTILS_API bool BaseCommStop();
NEUTILS_API bool BaseCommDeInit();

// Stops and starts every component that is down. True if all are up at the end.
NEUTILS_API bool BaseCommStatusCheck();

// A SendResult: kSendDone if at least one component has sent the message, otherwise the last one's result.
NEUTILS_API int SendControlMsg(const char* message, unsigned int length);
NEUTILS_API int SendLogWithTopicHeader(const std::string& topic, const std::string& log, bool withHeader);

NEUTILS_API bool RegisterControlMsgHandler(std::uint32_t type, MsgHandler handler, void* userData);
NEUTILS_API bool UnregisterControlMsgHandler(std::uint32_t type, MsgHandler handler);

}  // namespace NEUtils
