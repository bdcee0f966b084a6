#pragma once

#include <cstddef>
#include <cstdint>

namespace NEUtils {

// The messages between an agent and its server, which includes this header too. A request's body is TLV items;
// its answer has the next type and the same number. Example bytes: docs/FORMATS.md.

// Reports of the agent; the server's answer has no body.

inline constexpr std::uint32_t kMsgProcess = 1;         // a process event
inline constexpr std::uint32_t kMsgDroppedReports = 3;  // reports that the agent had no room for
inline constexpr std::uint32_t kMsgFile = 5;            // a change of a watched file
inline constexpr std::uint32_t kMsgAccess = 7;          // somebody's use of a guarded file
inline constexpr std::uint32_t kMsgRepeats = 13;        // process events or connections that were only counted
inline constexpr std::uint32_t kMsgProblem = 17;        // the agent is not well, or is again
inline constexpr std::uint32_t kMsgConnection = 19;     // a TCP connection, or a begin or end of listening

// Asks the server for a sign of life, with no items; it answers like to a report. A server answers every
// request, also of a type that it does not know: an agent that gets no answer for 30 seconds gives the
// connection up.
inline constexpr std::uint32_t kMsgHeartbeat = 15;

// Commands of the server. The agent's answer holds kTagResult, kTagReason where that is not 0, and
// kTagStatus, but for commands that are too long or too many.
inline constexpr std::uint32_t kMsgPolicy = 9;   // kTagFeature, kTagEnable and, where a new one is to hold, kTagPolicy
inline constexpr std::uint32_t kMsgStatus = 11;  // no items

inline constexpr std::uint32_t ResponseType(std::uint32_t request)
{
    return request + 1;
}

// The flag of TLVPacker::Pack and TLVAnalyzer::Analyze: tags and lengths in host order, as all else.
inline constexpr bool kSwapReport = false;

// Tags of the items. Texts end in NUL; long texts have none and may be several items, to be joined
// (TLVPacker::AddText, TLVAnalyzer::JoinText). What is not known is left out.
enum ReportTag : std::uint16_t {
    kTagTime = 1,        // 8 bytes, milliseconds since 1970
    kTagEvent = 2,       // 4 bytes, a ProcessEvent
    kTagPid = 3,         // 4 bytes
    kTagParentPid = 4,   // 4 bytes
    kTagUser = 5,        // text
    kTagCmdLine = 6,     // text, with its NUL cut at 2048 bytes
    kTagExitCode = 7,    // 4 bytes, of kProcessExited
    kTagSignal = 8,      // 4 bytes, of kProcessKilled
    kTagCount = 9,       // 8 bytes, of how many reports or events the message tells
    kTagAction = 10,     // text: what was done, such as "write"; several with a comma between them
    kTagPath = 11,       // text
    kTagOldPath = 12,    // text, of a rename
    kTagChange = 13,     // text, such as "osize=2 size=6 "
    kTagContainer = 14,  // text: 64 hexadecimal digits, of a process in a container
    kTagDigest = 15,     // text: the SHA-256 of a file, 64 hexadecimal digits
    kTagFeature = 16,    // text: the name of a feature
    kTagEnable = 17,     // 4 bytes: 1 starts it, 0 stops it
    kTagPolicy = 18,     // long text: its policy; without it the one that the agent keeps goes on to hold
    kTagResult = 19,     // 4 bytes: 0 done, otherwise a CommandResult
    kTagReason = 20,     // long text: why it could not be done
    kTagStatus = 21,     // long text: the agent's status, one JSON object
    kTagMode = 22,       // text: the permissions of a file in octal, such as "4755"
    kTagOwner = 23,      // text: its user
    kTagProgram = 24,    // text: a command line without its arguments
    kTagTotal = 25,      // 8 bytes, how many reports were dropped since the agent's start
    kTagFault = 26,      // text: why a file has no digest
    kTagProblem = 27,    // text: what is not well

    // More about a process:
    kTagExe = 28,            // text: the path of its program; of a script that of the interpreter
    kTagStartTime = 29,      // 8 bytes, microseconds since the host's boot; with the pid it names a process for good
    kTagParentExe = 30,      // text: the program of the parent
    kTagLoginUser = 31,      // text: who logged in, whatever user became since
    kTagSession = 32,        // 4 bytes, of the login
    kTagEffectiveUser = 33,  // text, where it is not the user
    kTagDuration = 34,       // 8 bytes, milliseconds from its start to its end
    kTagArgs = 35,           // long text: each argument and a NUL behind it
    kTagNotes = 36,          // text: what is unusual about it, with a comma between several
    kTagScript = 37,         // text: the path of a script
    kTagArgsSize = 38,       // 8 bytes: the size of all arguments, where kTagArgs holds only the first ones

    // More about a connection:
    kTagLocalAddress = 46,   // text, such as "10.0.0.1" or "fe80::1"
    kTagLocalPort = 47,      // 4 bytes, 0: unknown
    kTagRemoteAddress = 48,  // text
    kTagRemotePort = 49,     // 4 bytes
    kTagError = 50,          // text: why it failed
    kTagNetNs = 51,          // text: the number of its network namespace, where that is not the host's
};

enum ProcessEvent : std::int32_t {
    kProcessExecuted = 1,
    kProcessExited = 2,
    kProcessKilled = 3,
};

inline constexpr std::size_t kMaxStatusText = 65536;  // a longer kTagStatus is malformed

enum CommandResult : std::int32_t {
    kCommandDone = 0,
    kCommandMalformed = 1,  // items are missing or wrong
    kCommandUnknown = 2,    // the agent has no such feature
    kCommandRefused = 3,    // the feature does not take the policy, or could not be loaded
    kCommandBusy = 4,       // too many commands wait already
    kCommandFailed = 5,     // done, but the policy could not be kept for the next start
};

}  // namespace NEUtils
