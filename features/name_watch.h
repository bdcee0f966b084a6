#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <set>
#include <string>

#include "util/unique_fd.h"

// Notices when paths come to lead to other files: a name on the way is created, deleted or moved, or something is
// mounted. It does not say what is there now: the caller looks.
//
// Links on the way are followed by the names of both, their own and those that they lead to.
//
// Threads  one.
// Limits   one inotify watch for each directory on the way to a path.
// Source   inotify and /proc/self/mountinfo of the kernel. Lengths in its records are checked.
class NameWatch {
public:
    using Paths = std::set<std::size_t>;  // by their numbers

    // False, and errno, without inotify; then nothing is noticed.
    bool Init();

    // Watches the names on the way to a path, as far as they are there now. False, and errno, if one cannot be
    // watched. Once more for the same number: what it watched before is forgotten.
    bool Follow(std::size_t number, const std::string& path);

    // To poll: the first for POLLIN, the second for POLLPRI. -1 where there is none.
    [[nodiscard]] int GetFd() const { return inotify_.Get(); }
    [[nodiscard]] int GetMountFd() const { return mounts_.Get(); }

    // The paths that may lead elsewhere now, by what has happened since the last call.
    Paths Read();

private:
    bool FollowNames(std::size_t number, const std::string& path);
    bool WatchDirectory(std::size_t number, const std::string& directory, const std::string& name);
    void Forget(std::size_t number);
    void DropUnused();
    void AddConcerned(int watch, std::uint32_t mask, const std::string& name, Paths& concerned);

    NEUtils::UniqueFd inotify_;
    NEUtils::UniqueFd mounts_;
    Paths followed_;
    std::map<int, std::map<std::string, Paths>> names_;  // by watch: which paths go through which names
};
