#include "process/proc_directory.h"

#include <fcntl.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <string_view>

#include "process/container_id.h"
#include "process/trace_decoder.h"
#include "process/trace_layout.h"
#include "util/file.h"

namespace NEUtils {

namespace {

constexpr std::uint64_t kNsPerTick = 10000000;  // of the numbers in /proc, on every architecture
constexpr std::uint64_t kStartTolerance = 10 * kNsPerTick;
constexpr std::size_t kSmallFile = 4096;
constexpr std::size_t kLongestComm = 15;
// Fields of /proc/<pid>/stat, counted from the state behind the name.
enum StatField {
    kState,
    kParent,
    kThreads = 17,
    kStart = 19,
    kStackStart = 25,
    kArgsStart = 45,
    kArgsEnd,
    kStatFields
};

template <typename Number>
Number ToNumber(std::string_view text)
{
    Number number = 0;
    std::from_chars(text.data(), text.data() + text.size(), number);
    return number;
}

// Takes the text up to a separator off the front.
std::string_view TakeWord(std::string_view& text, const char* separators)
{
    text.remove_prefix(std::min(text.find_first_not_of(separators), text.size()));
    const std::string_view word = text.substr(0, text.find_first_of(separators));
    text.remove_prefix(word.size());
    return word;
}

// The line of /proc/<pid>/status behind "<key>:".
std::string_view FindLine(std::string_view text, std::string_view key)
{
    const std::size_t at = text.find(key);
    if (at == std::string_view::npos) {
        return {};
    }
    text.remove_prefix(at + key.size());
    return text.substr(0, text.find('\n'));
}

std::string_view BaseName(std::string_view path)
{
    return path.substr(path.rfind('/') + 1);
}

// A script's process is named after the script, which stands among the interpreter's first arguments.
void FindScript(ProcessRecord& record)
{
    if (record.comm.empty() || BaseName(record.exe).substr(0, kLongestComm) == record.comm) {
        return;
    }
    for (std::size_t i = 1; i < std::min<std::size_t>(record.args.size(), 3); ++i) {
        if (BaseName(record.args[i]).substr(0, kLongestComm) == record.comm) {
            record.script = record.args[i];
            return;
        }
    }
}

}  // namespace

std::uint32_t HostMountNs()
{
    struct stat space = {};
    const bool known = stat("/proc/1/ns/mnt", &space) == 0 || stat("/proc/self/ns/mnt", &space) == 0;
    return known ? static_cast<std::uint32_t>(space.st_ino) : 0;
}

void ResolvePaths(ProcessRecord& record)
{
    constexpr std::string_view kDescriptors = "/dev/fd/";
    const bool isScript = !record.script.empty();
    const std::string& given = isScript ? record.script : record.exe;
    const bool isDescriptor = given.compare(0, kDescriptors.size(), kDescriptors) == 0;
    if (given.empty() || (given[0] == '/' && !isDescriptor)) {
        return;
    }
    record.exeGiven = given;
    const ProcDirectory process(record.pid);
    struct stat file = {};
    std::string exe = process.IsOpen() ? process.ReadExecutable(file) : std::string();
    if (exe.empty() || file.st_ino != record.exeInode || !process.StartedAt(record.startNs)) {
        return;
    }
    if (!isScript) {
        record.exe = std::move(exe);
    } else if (!isDescriptor) {
        const std::string directory = process.ReadLink("cwd");
        const std::size_t skip = given.compare(0, 2, "./") == 0 ? 2 : 0;
        record.script = (directory == "/" ? "" : directory) + "/" + given.substr(skip);
    }
}

bool IsSameStart(std::uint64_t one, std::uint64_t other)
{
    return std::max(one, other) - std::min(one, other) < kStartTolerance;
}

ProcDirectory::ProcDirectory(int pid)
    : fd_(open(("/proc/" + std::to_string(pid)).c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC))
{
}

std::string ProcDirectory::ReadText(const char* name, std::size_t limit) const
{
    const UniqueFd file(openat(fd_.Get(), name, O_RDONLY | O_CLOEXEC));
    std::string text(limit, '\0');
    std::size_t used = 0;
    while (file.IsValid() && used < limit) {
        const ssize_t count = FileOperation::Read(file.Get(), text.data() + used, limit - used);
        if (count <= 0) {
            break;
        }
        used += static_cast<std::size_t>(count);
    }
    text.resize(used);
    return text;
}

std::string ProcDirectory::ReadLink(const char* name) const
{
    std::array<char, TRACE_PATH_MAX> target;
    const ssize_t size = readlinkat(fd_.Get(), name, target.data(), target.size());
    return size > 0 ? std::string(target.data(), static_cast<std::size_t>(size)) : std::string();
}

std::uint32_t ProcDirectory::ReadNumber(const char* name) const
{
    const std::string text = ReadText(name, 32);
    return text.empty() ? ProcessRecord::kNoId : ToNumber<std::uint32_t>(text);
}

std::uint32_t ProcDirectory::ReadNamespace(const char* name) const
{
    const std::string link = ReadLink(name);  // such as "mnt:[4026531841]"
    return ToNumber<std::uint32_t>(std::string_view(link).substr(std::min(link.find('[') + 1, link.size())));
}

bool ProcDirectory::ReadStat(ProcStat& stat) const
{
    const std::string text = ReadText("stat", kSmallFile);
    const std::size_t open = text.find('(');
    const std::size_t close = text.rfind(')');  // the name may hold any character
    if (open == std::string::npos || close == std::string::npos || close < open) {
        return false;
    }
    std::array<std::string_view, kStatFields> fields;
    std::string_view rest = std::string_view(text).substr(close + 1);
    for (std::string_view& field : fields) {
        field = TakeWord(rest, " \n");
    }
    if (fields[kStart].empty()) {
        return false;
    }
    stat.comm = text.substr(open + 1, close - open - 1);
    stat.state = fields[kState][0];
    stat.parentPid = ToNumber<int>(fields[kParent]);
    stat.threads = ToNumber<int>(fields[kThreads]);
    stat.startNs = ToNumber<std::uint64_t>(fields[kStart]) * kNsPerTick;
    stat.stackStart = ToNumber<std::uint64_t>(fields[kStackStart]);
    stat.argsStart = ToNumber<std::uint64_t>(fields[kArgsStart]);
    stat.argsEnd = ToNumber<std::uint64_t>(fields[kArgsEnd]);
    return true;
}

bool ProcDirectory::StartedAt(std::uint64_t startNs) const
{
    ProcStat stat;
    return ReadStat(stat) && IsSameStart(stat.startNs, startNs);
}

std::string ProcDirectory::ReadExecutable(struct stat& file) const
{
    constexpr std::string_view kDeleted = " (deleted)";
    std::string path = ReadLink("exe");
    if (path.empty() || fstatat(fd_.Get(), "exe", &file, 0) != 0) {
        return {};
    }
    if (file.st_nlink == 0 && path.size() > kDeleted.size() &&
        path.compare(path.size() - kDeleted.size(), kDeleted.size(), kDeleted) == 0) {
        path.resize(path.size() - kDeleted.size());
    }
    return path;
}

bool ProcDirectory::ReadProgram(ProcessRecord& record) const
{
    const std::string args = ReadText("cmdline", TRACE_ARGS_MAX);
    struct stat file = {};
    record.exe = ReadExecutable(file);
    SplitArguments(args.data(), args.size(), record.args);
    record.argsSize = args.size();
    record.argsCut = args.size() == TRACE_ARGS_MAX;
    record.exeDeleted = file.st_nlink == 0 && !record.exe.empty();
    record.exeInMemory = record.exeDeleted && record.exe.compare(0, 7, "/memfd:") == 0;
    record.exeSetUid = (file.st_mode & S_ISUID) != 0;
    record.exeSetGid = (file.st_mode & S_ISGID) != 0;
    record.exeInode = file.st_ino;
    return !record.exe.empty() && !args.empty();
}

bool ProcDirectory::ReadStatus(ProcessRecord& record) const
{
    const std::string status = ReadText("status", kSmallFile);
    std::string_view users = FindLine(status, "\nUid:");
    std::string_view groups = FindLine(status, "\nGid:");
    if (users.empty() || groups.empty()) {
        return false;
    }
    record.uid = ToNumber<std::uint32_t>(TakeWord(users, "\t "));
    record.euid = ToNumber<std::uint32_t>(TakeWord(users, "\t "));
    record.gid = ToNumber<std::uint32_t>(TakeWord(groups, "\t "));
    record.egid = ToNumber<std::uint32_t>(TakeWord(groups, "\t "));
    const std::string_view ids = FindLine(status, "\nNSpid:");
    record.nsPid = ToNumber<int>(ids.substr(ids.rfind('\t') + 1));
    return true;
}

void ProcDirectory::ReadIdentity(ProcessRecord& record) const
{
    record.loginUid = ReadNumber("loginuid");
    record.session = ReadNumber("sessionid");
    record.mountNs = ReadNamespace("ns/mnt");
    record.pidNs = ReadNamespace("ns/pid");
    record.containerId = ReadContainerId();
}

std::string ProcDirectory::ReadContainerId() const
{
    std::string id;
    ProcessUtils::FindContainerId(ReadText("cgroup", 4 * kSmallFile), id);
    return id;
}

bool ProcDirectory::ReadRecord(ProcessRecord& record, ProcStat& stat) const
{
    ProcessRecord found;
    found.kind = ProcessRecord::kExec;
    const bool hasProgram = ReadProgram(found);
    const bool hasStatus = ReadStatus(found);
    if (!ReadStat(stat)) {
        return false;
    }
    ReadIdentity(found);
    if (stat.argsEnd > stat.argsStart) {
        found.argsSize = stat.argsEnd - stat.argsStart;
        found.argsCut = found.argsSize > TRACE_ARGS_MAX;
    }
    found.comm = stat.comm;
    found.parentPid = stat.parentPid;
    found.startNs = stat.startNs;
    FindScript(found);
    found.whole = hasProgram && hasStatus && found.mountNs != 0;
    record = std::move(found);
    return true;
}

}  // namespace NEUtils
