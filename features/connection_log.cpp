#include "connection_log.h"

#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstddef>
#include <iterator>

#include "connection_tracer.h"
#include "describe.h"
#include "event.h"
#include "util/clock.h"
#include "util/errno_text.h"

namespace {

using NEUtils::ConnectionRecord;
using NEUtils::ConnectionTracer;

struct Action {
    const char* name;
    const char* title;
};

enum ActionNumber : std::uint8_t { kPending, kOpened, kFailed, kAccepted, kListening, kClosed };

constexpr Action kActions[] = {
    {"pending", "Connection pending."},   {"opened", "Connection opened."},  {"failed", "Connection failed."},
    {"accepted", "Connection accepted."}, {"listening", "Listening began."}, {"closed", "Listening ended."},
};

ActionNumber ActionOf(const ConnectionRecord& record)
{
    switch (record.kind) {
    case ConnectionRecord::kAccept:
        return kAccepted;
    case ConnectionRecord::kListen:
        return kListening;
    case ConnectionRecord::kListenEnd:
        return kClosed;
    default:
        return record.result == ConnectionRecord::kOpened   ? kOpened
               : record.result == ConnectionRecord::kFailed ? kFailed
                                                            : kPending;
    }
}

// The name of the program's file, as the kernel knew it, or what the process calls itself.
std::string NameOf(const ConnectionRecord& record)
{
    return record.program.empty() ? "[" + record.comm + "]" : record.program;
}

// Its path, where the process still lives and still runs it.
std::string ProgramOf(const ConnectionRecord& record)
{
    char path[PATH_MAX] = {};
    const ssize_t size = readlink(("/proc/" + std::to_string(record.pid) + "/exe").c_str(), path, sizeof(path));
    const std::string found(path, size > 0 ? static_cast<std::size_t>(size) : 0);
    const bool isIt = !record.program.empty() && found.substr(found.rfind('/') + 1) == record.program;
    return isIt ? found : NameOf(record);
}

void AddSockets(const ConnectionRecord& record, Event& event)
{
    if (record.foreignNetNs) {
        event.Add("netNs", NEUtils::kTagNetNs, std::to_string(record.netNs));
    }
    event.Add("localAddress", NEUtils::kTagLocalAddress, ConnectionTracer::GetAddressText(record.local))
        .Add("localPort", NEUtils::kTagLocalPort, record.localPort);
    if (record.kind == ConnectionRecord::kConnect || record.kind == ConnectionRecord::kAccept) {
        event.Add("remotePort", NEUtils::kTagRemotePort, record.remotePort);
    }
    if (record.error != 0) {
        event.Add("error", NEUtils::kTagError, std::string(NEUtils::ErrnoText(record.error).Get()));
    }
}

}  // namespace

void ConnectionLog::Handle(const ConnectionRecord& record)
{
    if (IsLeftOut(record)) {
        ++leftOut_;
        return;
    }
    if (!Admit(record)) {
        return;
    }
    const Action& action = kActions[ActionOf(record)];
    const std::string remote = ConnectionTracer::GetAddressText(record.remote);
    Event event({NEUtils::kMsgConnection, "connection", action.title}, record.wallNs / NEUtils::Clock::kNsPerMs);
    event.Add("action", NEUtils::kTagAction, action.name);
    if (record.pid == 0) {
        AddSockets(record, event);
        event.Send("remoteAddress", NEUtils::kTagRemoteAddress, remote);
        return;
    }
    event.Add("pid", NEUtils::kTagPid, record.pid).Add("user", NEUtils::kTagUser, UserName(record.uid));
    AddSockets(record, event);
    event.Add("remoteAddress", NEUtils::kTagRemoteAddress, record.remotePort == 0 ? "" : remote)
        .Send("program", NEUtils::kTagProgram, ProgramOf(record));
}

bool ConnectionLog::IsLeftOut(const ConnectionRecord& record) const
{
    const auto matches = [&record](const NetworkRule& rule) { return Matches(rule, record); };
    const auto isIn = [&matches](const auto& rules) { return std::any_of(rules.begin(), rules.end(), matches); };
    return record.pid == getpid() || (!settings_.includes.empty() && !isIn(settings_.includes)) ||
           isIn(settings_.excludes);
}

// Whoever floods chooses his processes, but neither his program, nor, from outside, his address that easily; beyond ten
// times the rate all of one kind are summed up.
bool ConnectionLog::Admit(const ConnectionRecord& record)
{
    Repeats::Sum sum;
    sum.event = static_cast<NEUtils::ProcessEvent>(ActionOf(record));  // kinds of its own
    sum.program = record.pid == 0 ? ConnectionTracer::GetAddressText(record.remote) : NameOf(record);
    sum.lastMs = record.wallNs / NEUtils::Clock::kNsPerMs;
    return repeats_.Admit(sum, static_cast<std::int64_t>(record.bootNs));
}

void ConnectionLog::LogRepeats()
{
    for (const Repeats::Sum& sum : repeats_.Take()) {
        Event event({NEUtils::kMsgRepeats, "repeats", "Connection repeated."}, sum.lastMs);
        event.Add("action", NEUtils::kTagAction, kActions[sum.event].name).AddCount(sum.count);
        if (sum.event == static_cast<NEUtils::ProcessEvent>(kAccepted)) {
            event.Send("remoteAddress", NEUtils::kTagRemoteAddress, sum.program);
        } else {
            event.Send("program", NEUtils::kTagProgram, sum.program);
        }
    }
}
