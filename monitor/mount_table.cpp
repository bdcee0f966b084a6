#include "monitor/mount_table.h"

#include <algorithm>
#include <iterator>
#include <sstream>
#include <utility>

#include "monitor/watch_scope.h"
#include "util/text.h"

namespace NEUtils {

namespace {

constexpr const char* kPseudo[] = {"autofs",     "binfmt_misc", "bpf",       "cgroup", "cgroup2", "configfs", "debugfs",
                                   "devpts",     "efivarfs",    "fusectl",   "mqueue", "nsfs",    "proc",     "pstore",
                                   "rpc_pipefs", "securityfs",  "selinuxfs", "sysfs",  "tracefs"};

bool IsOctal(char character)
{
    return character >= '0' && character <= '7';
}

// The kernel writes blanks and the like as a backslash and three octal digits.
std::string Unescaped(const std::string& text)
{
    std::string plain;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '\\' && text.size() - i > 3 && IsOctal(text[i + 1]) && IsOctal(text[i + 2]) &&
            IsOctal(text[i + 3])) {
            plain += static_cast<char>((text[i + 1] - '0') * 64 + (text[i + 2] - '0') * 8 + (text[i + 3] - '0'));
            i += 3;
        } else {
            plain += text[i];
        }
    }
    return plain;
}

}  // namespace

std::vector<std::string> MountTable::Update(const std::string& text)
{
    std::unordered_map<std::string, Mount> mounts;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        // id, parent's id, device, root, mount point, options, tags up to "-", file system, ...
        // Blanks alone divide them: other white space in a name is not escaped.
        const std::vector<std::string> fields = StringProcess::StrSplit(line, " ");
        const auto dash = std::find(fields.begin(), fields.end(), "-");
        if (fields.size() < 6 || std::distance(dash, fields.end()) < 2) {
            continue;
        }
        const std::string& type = *std::next(dash);
        const bool isPseudo = std::find(std::begin(kPseudo), std::end(kPseudo), type) != std::end(kPseudo);
        mounts[Unescaped(fields[4])] = {fields[0] + ' ' + fields[2], isPseudo};
    }
    std::vector<std::string> changed;
    for (const auto& [path, mount] : mounts) {
        if (const auto old = mounts_.find(path); old == mounts_.end() || old->second.id != mount.id) {
            changed.push_back(path);
        }
    }
    for (const auto& [path, mount] : mounts_) {
        if (mounts.count(path) == 0) {
            changed.push_back(path);
        }
    }
    mounts_ = std::move(mounts);
    return changed;
}

const MountTable::Mount* MountTable::At(const std::string& path) const
{
    const auto mount = mounts_.find(path);
    return mount == mounts_.end() ? nullptr : &mount->second;
}

const MountTable::Mount* MountTable::Of(const std::string& path) const
{
    const Mount* mount = At(path);
    for (std::string at = path; mount == nullptr && at != "/";) {
        at = Monitor::ParentOf(at);
        mount = At(at);
    }
    return mount;
}

}  // namespace NEUtils
