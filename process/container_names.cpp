#include "process/container_names.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/vfs.h>

#include <array>
#include <cstring>

#include "process/container_id.h"
#include "process/proc_directory.h"

namespace NEUtils {

namespace {

constexpr const char* kHierarchy = "/sys/fs/cgroup";
constexpr std::size_t kMaxKnown = 4096;
constexpr int kHandleOfNode = 0xfe;  // the kind of file handle that is a control group's id

// Room behind a handle's head for the id.
struct GroupHandle {
    alignas(file_handle) std::array<unsigned char, sizeof(file_handle) + sizeof(std::uint64_t)> bytes{};

    explicit GroupHandle(std::uint64_t group)
    {
        const int head[] = {sizeof(group), kHandleOfNode};
        static_assert(sizeof(head) == sizeof(file_handle));
        std::memcpy(bytes.data(), head, sizeof(head));
        std::memcpy(bytes.data() + sizeof(head), &group, sizeof(group));
    }
    file_handle* Get() { return static_cast<file_handle*>(static_cast<void*>(bytes.data())); }
};

}  // namespace

ContainerNames::ContainerNames()
{
    struct statfs system = {};
    UniqueFd root(open(kHierarchy, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (root.IsValid() && fstatfs(root.Get(), &system) == 0 && system.f_type == CGROUP2_SUPER_MAGIC) {
        root_ = std::move(root);
    }
}

bool ContainerNames::FindByGroup(std::uint64_t group, std::string& id) const
{
    GroupHandle handle(group);
    const UniqueFd directory(open_by_handle_at(root_.Get(), handle.Get(), O_PATH | O_CLOEXEC));
    if (!directory.IsValid()) {
        return false;
    }
    std::array<char, 4096> path;
    const std::string link = "/proc/self/fd/" + std::to_string(directory.Get());
    const ssize_t size = readlink(link.c_str(), path.data(), path.size());
    if (size <= 0) {
        return false;
    }
    ProcessUtils::FindContainerId({path.data(), static_cast<std::size_t>(size)}, id);
    return true;
}

bool ContainerNames::Complete(ProcessRecord& record)
{
    if (!root_.IsValid() && (record.kind != ProcessRecord::kExec || !record.foreignMountNs)) {
        return true;
    }
    const auto known = known_.find(record.cgroupId);
    if (root_.IsValid() && known != known_.end()) {
        record.containerId = known->second;
        return true;
    }
    std::string id;
    if (!root_.IsValid() || !FindByGroup(record.cgroupId, id)) {
        const ProcDirectory process(record.pid);
        if (!process.IsOpen() || !process.StartedAt(record.startNs)) {
            return false;
        }
        id = process.ReadContainerId();
    }
    if (root_.IsValid()) {
        if (known_.size() >= kMaxKnown) {
            known_.clear();
        }
        known_.emplace(record.cgroupId, id);
    }
    record.containerId = std::move(id);
    return true;
}

}  // namespace NEUtils
