#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <variant>
#include <vector>

#include "basecomm.h"
#include "report_messages.h"

// An item that is known by its tag and its size.
struct ItemKind {
    NEUtils::ReportTag tag;
    const char* name;
    std::size_t size;  // 0: text; kList: a list of texts
};

inline constexpr std::size_t kList = static_cast<std::size_t>(-1);

// In the order of printing. The last of a report's texts is printed as it is.
inline constexpr ItemKind kItemKinds[] = {
    {NEUtils::kTagTime, "time", 8},
    {NEUtils::kTagEvent, "event", 4},
    {NEUtils::kTagCount, "count", 8},
    {NEUtils::kTagTotal, "total", 8},
    {NEUtils::kTagPid, "pid", 4},
    {NEUtils::kTagParentPid, "ppid", 4},
    {NEUtils::kTagUser, "user", 0},
    {NEUtils::kTagContainer, "container", 0},
    {NEUtils::kTagExitCode, "exitCode", 4},
    {NEUtils::kTagSignal, "signal", 4},
    {NEUtils::kTagDuration, "duration", 8},
    {NEUtils::kTagStartTime, "startTime", 8},
    {NEUtils::kTagEffectiveUser, "effectiveUser", 0},
    {NEUtils::kTagLoginUser, "loginUser", 0},
    {NEUtils::kTagSession, "session", 4},
    {NEUtils::kTagExe, "exe", 0},
    {NEUtils::kTagScript, "script", 0},
    {NEUtils::kTagParentExe, "parentExe", 0},
    {NEUtils::kTagNotes, "notes", 0},
    {NEUtils::kTagArgs, "args", kList},
    {NEUtils::kTagArgsSize, "argsSize", 8},
    {NEUtils::kTagAction, "action", 0},
    {NEUtils::kTagDigest, "sha256", 0},
    {NEUtils::kTagMode, "mode", 0},
    {NEUtils::kTagOwner, "owner", 0},
    {NEUtils::kTagChange, "change", 0},
    {NEUtils::kTagFault, "fault", 0},
    {NEUtils::kTagNetNs, "netNs", 0},
    {NEUtils::kTagLocalAddress, "localAddress", 0},
    {NEUtils::kTagLocalPort, "localPort", 4},
    {NEUtils::kTagRemotePort, "remotePort", 4},
    {NEUtils::kTagError, "error", 0},
    {NEUtils::kTagRemoteAddress, "remoteAddress", 0},
    {NEUtils::kTagOldPath, "oldPath", 0},
    {NEUtils::kTagPath, "path", 0},
    {NEUtils::kTagProgram, "program", 0},
    {NEUtils::kTagCmdLine, "cmdLine", 0},
    {NEUtils::kTagProblem, "problem", 0},
};

// A request of an agent, taken apart.
struct Report {
    // What only a newer agent knows: an item with a tag or a size that is not known.
    struct Other {
        std::uint16_t tag;
        std::string bytes;
    };

    NEUtils::SentrelAgentMsg header = {};
    const char* type = nullptr;  // null: unknown
    using Item = std::variant<std::monostate, std::int64_t, std::string, std::vector<std::string>>;

    std::array<Item, std::size(kItemKinds)> items;  // as the kinds
    std::vector<Other> others;
    std::size_t omitted = 0;  // items beyond those
    std::string body;         // the first bytes of one that is not made of items; of an unknown type only
};

// The body must be the header's length. Gives what is wrong with it, or nothing.
std::string ReadReport(const NEUtils::SentrelAgentMsg& header, unsigned char* body, Report& report);

// The place of a tag among the kinds; their number if it is none of them.
std::size_t KindOf(std::uint16_t tag);

// An item that is a number; null without one.
const std::int64_t* FindNumber(const Report& report, NEUtils::ReportTag tag);
