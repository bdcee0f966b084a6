#include "process_utils.h"

#include <fcntl.h>

#include <algorithm>
#include <charconv>
#include <string_view>

#include "byte_buffer.h"
#include "process/container_id.h"
#include "util/file.h"
#include "util/text.h"
#include "util/unique_fd.h"

namespace ProcessUtils {

namespace {

using NEUtils::ByteBuffer;
using NEUtils::Convert;
using NEUtils::FileOperation;
using NEUtils::UniqueFd;

constexpr std::size_t kContainerIdSize = 64;

std::string ProcPath(int pid, const char* file)
{
    return "/proc/" + std::to_string(pid) + "/" + file;
}

// The text behind "<key>:\t" on a line of its own.
bool FindField(std::string_view text, std::string_view key, std::string_view& value)
{
    while (!text.empty()) {
        const std::string_view line = text.substr(0, text.find('\n'));
        if (line.size() > key.size() + 1 && line.substr(0, key.size()) == key && line[key.size()] == ':') {
            value = line.substr(key.size() + 1);
            value.remove_prefix(std::min(value.find_first_not_of(" \t"), value.size()));
            return true;
        }
        text.remove_prefix(std::min(line.size() + 1, text.size()));
    }
    return false;
}

// Reads numbers one after the other from a field, such as "0\t0\t0\t0".
template <typename Number>
bool TakeNumber(std::string_view& field, Number& number)
{
    field.remove_prefix(std::min(field.find_first_not_of(" \t"), field.size()));
    const auto [stop, error] = std::from_chars(field.data(), field.data() + field.size(), number);
    field.remove_prefix(static_cast<std::size_t>(stop - field.data()));
    return error == std::errc();
}

// One element of a path: the digits alone, or behind '-' or ':', with ".scope" behind them or not.
bool TakeContainerId(std::string_view element, std::string& id)
{
    constexpr std::string_view kScope = ".scope";
    if (element.size() > kScope.size() && element.substr(element.size() - kScope.size()) == kScope) {
        element.remove_suffix(kScope.size());
    }
    if (element.size() < kContainerIdSize) {
        return false;
    }
    const std::string_view digits = element.substr(element.size() - kContainerIdSize);
    const std::string_view before = element.substr(0, element.size() - kContainerIdSize);
    if (digits.find_first_not_of("0123456789abcdef") != std::string_view::npos ||
        !(before.empty() || before.back() == '-' || before.back() == ':')) {
        return false;
    }
    id = digits;
    return true;
}

}  // namespace

bool GetProcessStatus(int pid, ProcessStatus& status)
{
    ByteBuffer content;
    if (!FileOperation::ReadAllNosize(ProcPath(pid, "status"), content)) {
        return false;
    }
    const std::string text = content.ToString();
    std::string_view name;
    std::string_view parent;
    std::string_view users;
    std::string_view threads;
    std::string_view state;
    if (!FindField(text, "Name", name) || !FindField(text, "PPid", parent) || !FindField(text, "Uid", users) ||
        !FindField(text, "Threads", threads) || !FindField(text, "State", state) || state.empty()) {
        return false;
    }
    ProcessStatus found;
    found.pid = pid;
    found.name = name;
    found.state = state[0];
    if (!TakeNumber(parent, found.parentPid) || !TakeNumber(users, found.uid) ||
        !TakeNumber(users, found.effectiveUid) || !TakeNumber(threads, found.threads)) {
        return false;
    }
    status = found;
    return true;
}

bool GetCmdLine(int pid, std::string& cmdLine, std::size_t maxLength)
{
    const UniqueFd fd(open(ProcPath(pid, "cmdline").c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd.IsValid()) {
        return false;
    }
    std::string text(maxLength, '\0');
    std::size_t used = 0;
    while (used < maxLength) {
        const ssize_t count = FileOperation::Read(fd.Get(), text.data() + used, maxLength - used);
        if (count < 0) {
            return false;
        }
        if (count == 0) {
            break;
        }
        used += static_cast<std::size_t>(count);
    }
    text.resize(used);
    while (!text.empty() && text.back() == '\0') {
        text.pop_back();
    }
    std::replace(text.begin(), text.end(), '\0', ' ');
    cmdLine = std::move(text);
    return true;
}

bool FindContainerId(std::string_view cgroups, std::string& id)
{
    while (!cgroups.empty()) {
        const std::size_t end = std::min(cgroups.find_first_of("/\n"), cgroups.size());
        if (TakeContainerId(cgroups.substr(0, end), id)) {
            return true;
        }
        cgroups.remove_prefix(std::min(end + 1, cgroups.size()));
    }
    return false;
}

bool GetContainerId(int pid, std::string& id)
{
    ByteBuffer content;
    return FileOperation::ReadAllNosize(ProcPath(pid, "cgroup"), content) && FindContainerId(content.ToString(), id);
}

bool GetProcessIds(std::vector<int>& pids)
{
    std::vector<std::string> names;
    if (!FileOperation::ListDirectory("/proc", names)) {
        return false;
    }
    std::vector<int> found;
    for (const std::string& name : names) {
        int pid = 0;
        if (Convert::StringToInt(name, pid)) {
            found.push_back(pid);
        }
    }
    pids.swap(found);
    return true;
}

}  // namespace ProcessUtils
