#pragma once

#include <stdlib.h>

#include <cerrno>
#include <filesystem>
#include <string>
#include <system_error>

// A fresh folder below the system's folder for temporary files, removed with all that is in it.
class TempFolder {
public:
    TempFolder() : path_((std::filesystem::temp_directory_path() / "neutils-bench-XXXXXX").string())
    {
        if (mkdtemp(path_.data()) == nullptr) {
            throw std::system_error(errno, std::generic_category(), path_);
        }
    }
    ~TempFolder()
    {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    TempFolder(const TempFolder&) = delete;
    TempFolder& operator=(const TempFolder&) = delete;

    std::string File(const std::string& name) const { return path_ + "/" + name; }

private:
    std::string path_;
};
