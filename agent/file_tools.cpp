#include "file_tools.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>

namespace {

std::string Fault(const char* what, int error)
{
    return std::string(what) + ": " + std::strerror(error);
}

// Writes all of it and syncs it. Gives what went wrong.
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

std::string WriteNew(int folder, const std::string& name, const std::string& text)
{
    unlinkat(folder, name.c_str(), 0);  // of a crash
    const int fd = openat(folder, name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0) {
        return Fault("cannot be created", errno);
    }
    std::string fault = WriteAndSync(fd, text);
    if (close(fd) != 0 && fault.empty()) {
        fault = Fault("cannot be written", errno);
    }
    return fault;
}

// As far as it can: what is in the folder counts more.
void SyncFolder(const std::string& folder)
{
    const int fd = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd >= 0) {
        fsync(fd);
        close(fd);
    }
}

std::string Replace(int folder, const std::string& name, const std::string& text)
{
    const std::string beside = name + ".new";
    std::string fault = WriteNew(folder, beside, text);
    if (fault.empty() && renameat(folder, beside.c_str(), folder, name.c_str()) != 0) {
        fault = Fault("cannot be renamed", errno);
    }
    if (!fault.empty()) {
        unlinkat(folder, beside.c_str(), 0);
        return fault;
    }
    return fsync(folder) == 0 ? std::string() : Fault("its folder cannot be synced", errno);
}

}  // namespace

std::string ReadFile(const std::string& path, std::size_t mostBytes, std::string& text)
{
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(path.c_str(), "re"), &std::fclose);
    if (file == nullptr) {
        return Fault("cannot be opened", errno);
    }
    text.clear();
    char piece[4096];
    while (const std::size_t count = std::fread(piece, 1, sizeof(piece), file.get())) {
        text.append(piece, count);
        if (text.size() > mostBytes) {
            return "is larger than " + std::to_string(mostBytes >> 10U) + " KiB";
        }
    }
    return std::ferror(file.get()) == 0 ? std::string() : Fault("cannot be read", errno);
}

std::vector<std::string> ListFolder(const std::string& path)
{
    std::vector<std::string> names;
    std::error_code error;
    for (std::filesystem::directory_iterator entry(path, error), end; !error && entry != end; entry.increment(error)) {
        names.push_back(entry->path().filename().string());
    }
    return names;
}

std::string Between(const std::string& text, const std::string& before, const std::string& after)
{
    const bool fits = text.size() > before.size() + after.size() && text.compare(0, before.size(), before) == 0 &&
                      text.compare(text.size() - after.size(), after.size(), after) == 0;
    return fits ? text.substr(before.size(), text.size() - before.size() - after.size()) : std::string();
}

std::string ReplaceFile(const std::string& folder, const std::string& name, const std::string& text)
{
    if (mkdir(folder.c_str(), 0700) == 0) {
        SyncFolder(folder + "/..");
    } else if (errno != EEXIST) {
        return folder + Fault(" cannot be made", errno);
    }
    const int fd = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) {
        return folder + Fault(" cannot be opened", errno);
    }
    const std::string fault = Replace(fd, name, text);
    close(fd);
    return fault.empty() ? fault : folder + "/" + name + " " + fault;
}
