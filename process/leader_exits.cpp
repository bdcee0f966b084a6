#include "process/leader_exits.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <ctime>
#include <string>

#include "byte_buffer.h"
#include "util/clock.h"
#include "util/file.h"
#include "util/text.h"

namespace NEUtils {

namespace {

constexpr std::size_t kMaxHeld = 1024;
constexpr std::size_t kMaxThreadExits = 100;  // between two looks
// Places of fields behind the name in /proc/<pid>/stat, counted from 0.
constexpr std::size_t kState = 0;
constexpr std::size_t kThreads = 17;
constexpr std::size_t kStartTicks = 19;
constexpr std::size_t kExitCode = 49;

struct Stat {
    bool ended = false;  // no thread but the first is left, and that has ended
    std::uint64_t startTicks = 0;
    std::uint32_t exitCode = 0;
};

template <typename Number>
bool ToNumber(const std::string& text, Number& number)
{
    const auto [stop, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc() && stop == text.data() + text.size();
}

// False where there is no such process any more. Mostly so, and a signal finds out cheaper than a file. It also
// fails for a thread of another process, which may have got the id.
bool ReadStat(int pid, Stat& stat)
{
    ByteBuffer content;
    if (syscall(SYS_tgkill, pid, pid, 0) != 0 && errno == ESRCH) {
        return false;
    }
    if (!FileOperation::ReadAllNosize("/proc/" + std::to_string(pid) + "/stat", content)) {
        return false;
    }
    const std::string text = content.ToString();
    const std::size_t behindName = text.rfind(") ");
    if (behindName == std::string::npos) {
        return false;
    }
    const auto fields = StringProcess::StrSplit(text.substr(behindName + 2), " ");
    unsigned int threads = 0;
    if (fields.size() <= kThreads + 2 || !ToNumber(fields[kThreads], threads) ||
        !ToNumber(fields[kStartTicks], stat.startTicks)) {
        return false;
    }
    const std::string& state = fields[kState];
    stat.ended = (state == "Z" || state == "X") && threads <= 1;
    if (fields.size() > kExitCode) {
        std::string code = fields[kExitCode];
        while (!code.empty() && code.back() == '\n') {
            code.pop_back();
        }
        ToNumber(code, stat.exitCode);
    }
    return true;
}

// The first thread's own code may differ from the process's. Without the right to see it the file says 0.
void SetExitCode(proc_event& exit, const Stat& stat)
{
    if (stat.exitCode != 0) {
        exit.event_data.exit.exit_code = stat.exitCode;
    }
}

// A process that began after the event has only taken the id over.
bool BeganAfter(const Stat& stat, const proc_event& event)
{
    timespec sinceBoot = {};
    clock_gettime(CLOCK_BOOTTIME, &sinceBoot);
    const std::int64_t suspendedNs =
        std::int64_t{sinceBoot.tv_sec} * Clock::kNsPerSecond + sinceBoot.tv_nsec - Clock::MonotonicNs();
    const auto ticksPerSecond = static_cast<std::uint64_t>(sysconf(_SC_CLK_TCK));
    const std::uint64_t eventNs = event.timestamp_ns + static_cast<std::uint64_t>(suspendedNs);
    return stat.startTicks > eventNs / (Clock::kNsPerSecond / ticksPerSecond);
}

}  // namespace

bool LeaderExits::HasEnded(proc_event& exit)
{
    Stat stat;
    const int pid = exit.event_data.exit.process_pid;
    Forget(pid);
    if (!ReadStat(pid, stat) || BeganAfter(stat, exit)) {
        return true;
    }
    if (stat.ended) {
        SetExitCode(exit, stat);
        return true;
    }
    if (held_.size() >= kMaxHeld) {
        return true;
    }
    held_[pid] = {exit, stat.startTicks};
    changed_ = true;
    return false;
}

void LeaderExits::Forget(int pid)
{
    changed_ = held_.erase(pid) != 0 || changed_;
}

bool LeaderExits::TakeReplaced(int pid, proc_event& exit)
{
    const auto found = held_.find(pid);
    if (found == held_.end()) {
        return false;
    }
    exit = found->second.exit;
    Forget(pid);
    return true;
}

void LeaderExits::TakeThreadExit(const proc_event& exit)
{
    changed_ = ++threadExits_ == kMaxThreadExits || changed_;
    const auto found = held_.find(exit.event_data.exit.process_tgid);
    if (found != held_.end()) {
        found->second.exit.event_data.exit.exit_code = exit.event_data.exit.exit_code;
    }
}

std::vector<int> LeaderExits::GetFollowed() const
{
    std::vector<int> pids;
    if (threadExits_ >= kMaxThreadExits) {
        return pids;
    }
    for (const auto& [pid, held] : held_) {
        pids.push_back(pid);
    }
    return pids;
}

std::vector<proc_event> LeaderExits::TakeEnded()
{
    std::vector<proc_event> ended;
    changed_ = threadExits_ >= kMaxThreadExits || changed_;
    threadExits_ = 0;
    for (auto entry = held_.begin(); entry != held_.end();) {
        auto& [pid, held] = *entry;
        Stat stat;
        const bool isThere = ReadStat(pid, stat) && stat.startTicks == held.startTicks;
        if (isThere && !stat.ended) {
            ++entry;
            continue;
        }
        if (isThere) {
            SetExitCode(held.exit, stat);
        }
        ended.push_back(held.exit);
        entry = held_.erase(entry);
        changed_ = true;
    }
    return ended;
}

}  // namespace NEUtils
