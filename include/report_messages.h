#pragma once

#include <cstdint>

namespace NEUtils {

// The messages that an agent reports with; a server that takes them includes this header too. A report is
// a request whose body is TLV items; its answer has the next type, the same number and no body.
// Example bytes: docs/FORMATS.md.

inline constexpr std::uint32_t kMsgProcess = 1;         // a process event
inline constexpr std::uint32_t kMsgDroppedReports = 3;  // reports that the agent had no room for
inline constexpr std::uint32_t kMsgFile = 5;            // a change of a watched file
inline constexpr std::uint32_t kMsgAccess = 7;          // somebody's use of a guarded file

inline constexpr std::uint32_t ResponseType(std::uint32_t request)
{
    return request + 1;
}

// The flag of TLVPacker::Pack and TLVAnalyzer::Analyze: tags and lengths in host order, as all else.
inline constexpr bool kSwapReport = false;

// Tags of the items. Texts end in NUL; what is not known is left out.
enum ReportTag : std::uint16_t {
    kTagTime = 1,       // 8 bytes, milliseconds since 1970
    kTagEvent = 2,      // 4 bytes, a ProcessEvent
    kTagPid = 3,        // 4 bytes
    kTagParentPid = 4,  // 4 bytes
    kTagUser = 5,       // text
    kTagCmdLine = 6,    // text, with its NUL cut at 2048 bytes
    kTagExitCode = 7,   // 4 bytes, of kProcessExited
    kTagSignal = 8,     // 4 bytes, of kProcessKilled
    kTagCount = 9,      // 8 bytes, how many reports were dropped since the last such message
    kTagAction = 10,    // text: what was done, such as "write"; several with a comma between them
    kTagPath = 11,      // text
    kTagOldPath = 12,   // text, of a rename
    kTagChange = 13,    // text, such as "osize=2 size=6 "
};

enum ProcessEvent : std::int32_t {
    kProcessExecuted = 1,
    kProcessExited = 2,
    kProcessKilled = 3,
};

}  // namespace NEUtils
