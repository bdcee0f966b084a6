#pragma once

#include <stdlib.h>

#include <cerrno>
#include <filesystem>
#include <string>
#include <system_error>

// A fresh directory below that of the system for temporary files, removed with all that is in it.
class TempDirectory {
public:
    TempDirectory() : path_((std::filesystem::temp_directory_path() / "neutils-bench-XXXXXX").string())
    {
        if (mkdtemp(path_.data()) == nullptr) {
            throw std::system_error(errno, std::generic_category(), path_);
        }
    }
    ~TempDirectory()
    {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    TempDirectory(const TempDirectory&) = delete;
    TempDirectory& operator=(const TempDirectory&) = delete;

    std::string File(const std::string& name) const { return path_ + "/" + name; }

private:
    std::string path_;
};
