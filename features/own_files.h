#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <set>
#include <string>
#include <utility>
#include <vector>

// The files that the agent writes its records and events to, with their rolled copies. What happens to them is left
// out of the records, since each record would make the next one. They are known by device and inode, so that a bind
// mount or another name does not hide them.
//
// Threads  one.
class OwnFiles {
public:
    OwnFiles();  // as LOG_FILE, which the agent makes absolute, and the event file say now

    // Whether a path in a watched tree leads to one of them. The status of the file may be missing.
    bool Hold(const std::string& path, const struct stat* status);

    // Whether a path is one of them, or a directory that holds one.
    bool AreAt(const std::string& path);

private:
    using Identity = std::pair<dev_t, ino_t>;

    struct File {
        std::string directory;
        std::string name;
    };

    bool AreInDirectory(const std::string& directory, const std::string& name) const;
    bool IsAppendedTo(const struct stat& status);
    void ReadDescriptors();

    std::vector<File> files_;
    std::set<Identity> appended_;  // that this process has open to append to
    std::int64_t readAtNs_ = 0;
};
