#include "util/file.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <memory>

#include "util/unique_fd.h"

namespace NEUtils {

namespace {

constexpr std::size_t kMaxContent = 0xA00000;
constexpr std::size_t kFirstPiece = 4096;

UniqueFd OpenToRead(const std::string& path)
{
    return UniqueFd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));  // a FIFO must not hold the caller
}

// Makes room behind `used` bytes: doubles the buffer, up to the limit.
bool Grow(ByteBuffer& content, std::size_t used)
{
    if (content.GetCapacity() == 0) {
        return content.Alloc(kFirstPiece);
    }
    const std::size_t capacity = content.GetCapacity();
    if (used + 1 < capacity) {
        return true;
    }
    const std::size_t more = std::min(capacity, kMaxContent - std::min(capacity, kMaxContent));
    if (more == 0) {
        errno = EFBIG;
        return false;
    }
    return content.Extend(static_cast<unsigned>(more));
}

}  // namespace

bool FileAttribute::AccessFile(const std::string& path)
{
    return access(path.c_str(), F_OK) == 0;
}

ssize_t FileOperation::Read(int fd, void* data, std::size_t length)
{
    ssize_t count;
    do {
        count = read(fd, data, length);
    } while (count < 0 && errno == EINTR);
    return count;
}

bool FileOperation::ReadAll(const std::string& path, ByteBuffer& content)
{
    content.FreeBuf();
    const UniqueFd fd = OpenToRead(path);
    struct stat status = {};
    if (!fd.IsValid() || fstat(fd.Get(), &status) != 0) {
        return false;
    }
    if (status.st_size == 0 && S_ISREG(status.st_mode)) {
        return true;
    }
    if (!S_ISREG(status.st_mode) && !S_ISDIR(status.st_mode)) {
        errno = EINVAL;
        return false;
    }
    if (status.st_size < 0 || static_cast<unsigned long long>(status.st_size) > kMaxContent) {
        errno = EFBIG;
        return false;
    }
    const auto size = static_cast<std::size_t>(status.st_size);
    if (!content.Alloc(static_cast<unsigned>(size))) {
        return false;
    }
    std::size_t used = 0;
    while (used < size) {
        const ssize_t count = Read(fd.Get(), content.GetBuffer() + used, size - used);
        if (count < 0) {
            content.FreeBuf();
            return false;
        }
        if (count == 0) {
            break;
        }
        used += static_cast<std::size_t>(count);
    }
    content.SetSize(static_cast<unsigned>(used));
    return true;
}

bool FileOperation::ReadAllNosize(const std::string& path, ByteBuffer& content)
{
    content.FreeBuf();
    const UniqueFd fd = OpenToRead(path);
    return fd.IsValid() && ReadAllNosize(fd.Get(), content);
}

bool FileOperation::ReadAllNosize(int fd, ByteBuffer& content)
{
    content.FreeBuf();
    std::size_t used = 0;
    while (Grow(content, used)) {
        const ssize_t count = Read(fd, content.GetBuffer() + used, content.GetCapacity() - 1 - used);
        if (count == 0) {
            content.SetSize(static_cast<unsigned>(used));
            return true;
        }
        if (count < 0) {
            break;
        }
        used += static_cast<std::size_t>(count);
    }
    content.FreeBuf();
    return false;
}

bool FileOperation::WriteByDirect(const std::string& path, const void* data, std::size_t length, bool truncate)
{
    const int flags = O_WRONLY | O_CREAT | O_CLOEXEC | O_NONBLOCK | (truncate ? O_TRUNC : 0);
    const UniqueFd fd(open(path.c_str(), flags, 0640));
    if (!fd.IsValid()) {
        return false;
    }
    const auto* bytes = static_cast<const char*>(data);
    while (length > 0) {
        const ssize_t count = write(fd.Get(), bytes, length);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            return false;
        }
        bytes += count;
        length -= static_cast<std::size_t>(count);
    }
    return true;
}

bool FileOperation::ListDirectory(const std::string& path, std::vector<std::string>& names)
{
    struct Close {
        void operator()(DIR* stream) const { closedir(stream); }
    };
    const std::unique_ptr<DIR, Close> directory(opendir(path.c_str()));
    if (directory == nullptr) {
        return false;
    }
    while (const dirent* entry = readdir(directory.get())) {
        const std::string name = entry->d_name;
        if (name != "." && name != "..") {
            names.push_back(name);
        }
    }
    return true;
}

std::FILE* File::RunCmdWithPopen(const std::string& command)
{
    return popen(command.c_str(), "re");  // NOLINT(cert-env33-c): a shell command is what is asked for
}

}  // namespace NEUtils
