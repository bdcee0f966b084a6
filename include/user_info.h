#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <unordered_map>

#include "neutils_api.h"

namespace NEUtils {

// The names of the local users, cached from /etc/passwd and read again when that file changes.
// Users of a directory service are not in it: a lookup there could hold an agent for seconds.
//
// Threads  any.
class NEUTILS_API UserInfo {
public:
    static UserInfo& GetInstance();

    UserInfo(const UserInfo&) = delete;
    UserInfo& operator=(const UserInfo&) = delete;

    // False for a user id without an entry.
    bool GetUserName(unsigned int uid, std::string& name);

private:
    UserInfo() = default;

    struct FileState {
        std::uint64_t inode = 0;
        std::int64_t size = -1;
        std::int64_t changedNs = 0;
        bool operator==(const FileState& other) const
        {
            return inode == other.inode && size == other.size && changedNs == other.changedNs;
        }
    };
    void Refresh();

    std::mutex mutex_;
    FileState state_;
    std::unordered_map<unsigned int, std::string> names_;
};

}  // namespace NEUtils
