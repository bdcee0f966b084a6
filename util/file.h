#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdio>
#include <string>
#include <vector>

#include "byte_buffer.h"

// File helpers. They return results and leave errno set; their callers log.
namespace NEUtils {

class FileAttribute {
public:
    // The path exists; a dangling link does not.
    static bool AccessFile(const std::string& path);
};

class FileOperation {
public:
    // Reads a file whole by its size, at most 10 MiB (EFBIG beyond). An empty file is a success of size 0.
    static bool ReadAll(const std::string& path, ByteBuffer& content);

    // Reads to the end of the file whatever its size claims to be, for /proc and pipes; less than 10 MiB.
    static bool ReadAllNosize(const std::string& path, ByteBuffer& content);
    static bool ReadAllNosize(int fd, ByteBuffer& content);

    // Writes length bytes to the start of a file, which is created with mode 0640 where it is missing
    // and emptied first when truncate is set.
    static bool WriteByDirect(const std::string& path, const void* data, std::size_t length, bool truncate);

    // The names in a directory but for "." and "..".
    static bool ListDirectory(const std::string& path, std::vector<std::string>& names);

    // read(2) that is taken up again after a signal.
    static ssize_t Read(int fd, void* data, std::size_t length);
};

class File {
public:
    // Starts a shell command and gives its standard output, to be closed with pclose; null on failure.
    static std::FILE* RunCmdWithPopen(const std::string& command);
};

}  // namespace NEUtils
