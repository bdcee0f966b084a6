#include "text_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "util/errno_text.h"
#include "util/file.h"
#include "util/unique_fd.h"

using NEUtils::UniqueFd;

namespace {

std::string Fault(const char* what, int error)
{
    return std::string(what) + ": " + NEUtils::ErrnoText(error).Get();
}

std::string WriteAndSync(int fd, const std::string& text)
{
    for (std::size_t done = 0; done < text.size();) {
        const ssize_t count = write(fd, text.data() + done, text.size() - done);
        if (count < 0 && errno != EINTR) {
            return Fault("cannot be written", errno);
        }
        done += count < 0 ? 0 : static_cast<std::size_t>(count);
    }
    return fsync(fd) == 0 ? std::string() : Fault("cannot be synced", errno);
}

std::string WriteNew(int directory, const std::string& name, const std::string& text)
{
    unlinkat(directory, name.c_str(), 0);  // left by a crash
    UniqueFd fd(openat(directory, name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!fd.IsValid()) {
        return Fault("cannot be created", errno);
    }
    std::string fault = WriteAndSync(fd.Get(), text);
    if (close(fd.Release()) != 0 && fault.empty()) {
        fault = Fault("cannot be written", errno);
    }
    return fault;
}

UniqueFd OpenDirectory(const std::string& path)
{
    return UniqueFd(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
}

std::string Replace(int directory, const std::string& name, const std::string& text)
{
    const std::string beside = name + ".new";
    std::string fault = WriteNew(directory, beside, text);
    if (fault.empty() && renameat(directory, beside.c_str(), directory, name.c_str()) != 0) {
        fault = Fault("cannot be renamed", errno);
    }
    if (!fault.empty()) {
        unlinkat(directory, beside.c_str(), 0);
        return fault;
    }
    return fsync(directory) == 0 ? std::string() : Fault("its directory cannot be synced", errno);
}

}  // namespace

std::string ReadTextFile(const std::string& path, std::size_t mostBytes, std::string& text)
{
    const UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));  // a FIFO would wait for a writer
    if (!fd.IsValid()) {
        return Fault("cannot be opened", errno);
    }
    struct stat status = {};
    if (fstat(fd.Get(), &status) != 0 || !S_ISREG(status.st_mode)) {
        return "is not a regular file";
    }
    text.clear();
    char piece[4096];
    while (text.size() <= mostBytes) {
        const ssize_t count = NEUtils::FileOperation::Read(fd.Get(), piece, sizeof(piece));
        if (count <= 0) {
            return count == 0 ? std::string() : Fault("cannot be read", errno);
        }
        text.append(piece, static_cast<std::size_t>(count));
    }
    return "is larger than " + std::to_string(mostBytes >> 10U) + " KiB";
}

std::string ReplaceFile(const std::string& directory, const std::string& name, const std::string& text)
{
    if (mkdir(directory.c_str(), 0700) == 0) {
        if (const UniqueFd above = OpenDirectory(directory + "/.."); above.IsValid()) {
            fsync(above.Get());  // as far as it can: what is in the directory counts more
        }
    } else if (errno != EEXIST) {
        return directory + Fault(" cannot be made", errno);
    }
    const UniqueFd fd = OpenDirectory(directory);
    if (!fd.IsValid()) {
        return directory + Fault(" cannot be opened", errno);
    }
    const std::string fault = Replace(fd.Get(), name, text);
    return fault.empty() ? fault : directory + "/" + name + " " + fault;
}
