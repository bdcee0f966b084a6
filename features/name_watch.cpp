#include "name_watch.h"

#include <fcntl.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <iterator>

#include "util/file.h"

namespace {

constexpr std::uint32_t kMask = IN_CREATE | IN_DELETE | IN_MOVE | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;
constexpr std::size_t kReadSize = 65536;
constexpr int kMostLinks = 40;  // as in the kernel

// What a link leads to; empty where the path is no link.
std::string TargetOf(const std::string& path)
{
    char target[PATH_MAX];
    const ssize_t length = readlink(path.c_str(), target, sizeof(target));
    return length <= 0 ? std::string() : std::string(target, static_cast<std::size_t>(length));
}

// Takes the first name off a path.
std::string TakeName(std::string& path)
{
    const std::size_t end = path.find('/');
    std::string name = path.substr(0, end);
    path.erase(0, end == std::string::npos ? end : end + 1);
    return name;
}

bool IsAbsence(int error)
{
    return error == ENOENT || error == ENOTDIR || error == ELOOP;
}

}  // namespace

bool NameWatch::Init()
{
    inotify_.Reset(inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    const int error = errno;
    mounts_.Reset(open("/proc/self/mountinfo", O_RDONLY | O_CLOEXEC));
    errno = error;
    return inotify_.IsValid();
}

bool NameWatch::Follow(std::size_t number, const std::string& path)
{
    Forget(number);
    followed_.insert(number);
    const bool isWatched = FollowNames(number, path);
    const int error = errno;
    DropUnused();
    errno = error;
    return isWatched;
}

// From the root on, so that whatever happens to a directory after its own watch has been set is noticed in the one
// above it.
bool NameWatch::FollowNames(std::size_t number, const std::string& path)
{
    std::string directory = "/";
    int links = 0;
    for (std::string rest = path; !rest.empty();) {
        const std::string name = TakeName(rest);
        if (name.empty() || name == ".") {
            continue;
        }
        if (name == "..") {
            directory.erase(directory.rfind('/', std::max<std::size_t>(directory.size(), 2) - 2) + 1);
            continue;
        }
        if (!WatchDirectory(number, directory, name)) {
            return IsAbsence(errno);
        }
        const std::string target = TargetOf(directory + name);
        if (target.empty()) {
            directory += name + "/";
        } else if (++links > kMostLinks) {
            return true;
        } else {
            directory = target[0] == '/' ? "/" : directory;
            rest.insert(0, target + "/");
        }
    }
    return true;
}

bool NameWatch::WatchDirectory(std::size_t number, const std::string& directory, const std::string& name)
{
    const int watch = inotify_add_watch(inotify_.Get(), directory.c_str(), kMask);
    if (watch >= 0) {
        names_[watch][name].insert(number);
    }
    return watch >= 0;
}

void NameWatch::Forget(std::size_t number)
{
    for (auto& [watch, names] : names_) {
        for (auto next = names.begin(); next != names.end();) {
            next->second.erase(number);
            next = next->second.empty() ? names.erase(next) : std::next(next);
        }
    }
}

void NameWatch::DropUnused()
{
    for (auto next = names_.begin(); next != names_.end();) {
        if (next->second.empty()) {
            inotify_rm_watch(inotify_.Get(), next->first);
            next = names_.erase(next);
        } else {
            ++next;
        }
    }
}

NameWatch::Paths NameWatch::Read()
{
    alignas(inotify_event) char buffer[kReadSize];
    const ssize_t got = NEUtils::FileOperation::Read(inotify_.Get(), buffer, sizeof(buffer));
    const std::size_t length = got > 0 ? static_cast<std::size_t>(got) : 0;
    Paths concerned;
    inotify_event record = {};
    for (std::size_t start = 0; start + sizeof(record) <= length; start += sizeof(record) + record.len) {
        std::memcpy(&record, buffer + start, sizeof(record));
        if (record.len > length - start - sizeof(record)) {
            return followed_;
        }
        const char* name = buffer + start + sizeof(record);
        AddConcerned(record.wd, record.mask, std::string(name, strnlen(name, record.len)), concerned);
    }
    return concerned;
}

void NameWatch::AddConcerned(int watch, std::uint32_t mask, const std::string& name, Paths& concerned)
{
    if ((mask & IN_Q_OVERFLOW) != 0) {
        concerned = followed_;
        return;
    }
    const auto found = names_.find(watch);
    if (found == names_.end()) {
        return;
    }
    for (const auto& [wanted, paths] : found->second) {
        if (name.empty() || name == wanted) {  // without a name it is about the directory itself
            concerned.insert(paths.begin(), paths.end());
        }
    }
    if ((mask & IN_IGNORED) != 0) {
        names_.erase(found);
    }
}
