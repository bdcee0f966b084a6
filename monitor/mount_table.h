#pragma once

#include <string>
#include <unordered_map>
#include <vector>

namespace NEUtils {

// The mounts of the process's namespace, from /proc/self/mountinfo.
class MountTable {
public:
    struct Mount {
        std::string id;         // the kernel's ids of mount and device: another one is another mount
        bool isPseudo = false;  // of a file system that shows the kernel's state instead of files
    };

    // Takes over the text of mountinfo; lines that are not of its form are passed over. Gives the mount points at
    // which something is mounted now that was not, or not any more.
    std::vector<std::string> Update(const std::string& text);

    // The mount on a path that is a mount point; null otherwise.
    [[nodiscard]] const Mount* At(const std::string& path) const;
    // The mount that a path lies on.
    [[nodiscard]] const Mount* Of(const std::string& path) const;

private:
    std::unordered_map<std::string, Mount> mounts_;  // by mount point; of several on one the last
};

}  // namespace NEUtils
