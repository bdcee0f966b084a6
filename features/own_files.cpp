#include "own_files.h"

#include <fcntl.h>

#include <algorithm>
#include <charconv>

#include "config.h"
#include "event_file.h"
#include "util/clock.h"
#include "util/file.h"

namespace {

constexpr std::int64_t kKeepNs = NEUtils::Clock::kNsPerSecond;

std::string DirectoryOf(const std::string& path)
{
    const std::size_t slash = path.rfind('/');
    return slash == 0 ? "/" : path.substr(0, slash);
}

bool IsSame(const struct stat& one, const struct stat& other)
{
    return one.st_dev == other.st_dev && one.st_ino == other.st_ino;
}

}  // namespace

OwnFiles::OwnFiles()
{
    std::string log;
    NEUtils::Config::GetConfigValue("LOG_FILE", log);
    for (const std::string& path : {log, NEUtils::EventFile::GetInstance().GetPath()}) {
        if (!path.empty() && path[0] == '/') {
            files_.push_back({DirectoryOf(path), path.substr(path.rfind('/') + 1)});
        }
    }
}

bool OwnFiles::Hold(const std::string& path, const struct stat* status)
{
    const std::string name = path.substr(path.rfind('/') + 1);
    return AreInDirectory(DirectoryOf(path), name) || (status != nullptr && IsAppendedTo(*status));
}

// A file's directory is looked up only where the name fits. Its copies bear its name and a dot before the rest.
bool OwnFiles::AreInDirectory(const std::string& directory, const std::string& name) const
{
    return std::any_of(files_.begin(), files_.end(), [&](const File& file) {
        const bool fits = name.compare(0, file.name.size(), file.name) == 0 &&
                          (name.size() == file.name.size() || name[file.name.size()] == '.');
        struct stat there = {};
        struct stat own = {};
        return fits && stat(directory.c_str(), &there) == 0 && stat(file.directory.c_str(), &own) == 0 &&
               IsSame(there, own);
    });
}

bool OwnFiles::AreAt(const std::string& path)
{
    struct stat there = {};
    if (stat(path.c_str(), &there) != 0) {
        return false;
    }
    readAtNs_ = 0;
    return IsAppendedTo(there) || std::any_of(files_.begin(), files_.end(), [&there](const File& file) {
               struct stat own = {};
               const auto isThere = [&](const std::string& name) {
                   return stat(name.c_str(), &own) == 0 && IsSame(there, own);
               };
               return isThere(file.directory) || isThere(file.directory + "/" + file.name);
           });
}

// Also where the file was moved, or has another name by now.
bool OwnFiles::IsAppendedTo(const struct stat& status)
{
    const std::int64_t now = NEUtils::Clock::MonotonicNs();
    if (readAtNs_ == 0 || now - readAtNs_ > kKeepNs) {
        readAtNs_ = now;
        ReadDescriptors();
    }
    return appended_.count({status.st_dev, status.st_ino}) != 0;
}

void OwnFiles::ReadDescriptors()
{
    appended_.clear();
    std::vector<std::string> names;
    NEUtils::FileOperation::ListDirectory("/proc/self/fd", names);
    for (const std::string& name : names) {
        int fd = -1;
        std::from_chars(name.data(), name.data() + name.size(), fd);
        struct stat status = {};
        const int flags = fcntl(fd, F_GETFL);
        if (flags >= 0 && (flags & O_APPEND) != 0 && fstat(fd, &status) == 0 && S_ISREG(status.st_mode)) {
            appended_.emplace(status.st_dev, status.st_ino);
        }
    }
}
