#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <string>
#include <unordered_map>

// The times of files as of their last event. They say what a change of the status was about that has left mode, owner,
// links and size as they were.
//
// Threads  one.
// Limits   20,000 files, some 150 bytes each; then all are forgotten.
class KnownTimes {
public:
    // Stores the times of a path, and gives what is different: "omtime=T mtime=T " for the time of the content,
    // likewise "oatime=" "atime=" for that of the last use, or "octime=" "ctime=" alone where only the status has
    // changed: extended attributes, an access control list, flags. "ctime=" alone: the last event has said all that is
    // different. Without former times the present ones.
    std::string Update(const std::string& path, const struct stat& status);

    void Forget(const std::string& path) { times_.erase(path); }

private:
    struct Times {
        std::int64_t mtimeMs = 0;
        std::int64_t atimeMs = 0;
        std::int64_t ctimeMs = 0;
    };

    std::unordered_map<std::string, Times> times_;
};
