#pragma once

#include <unistd.h>

#include <utility>

namespace NEUtils {

// Owns a file descriptor and closes it at the end of its scope.
class UniqueFd {
public:
    explicit UniqueFd(int fd = -1) : fd_(fd) {}
    ~UniqueFd() { Reset(); }
    UniqueFd(UniqueFd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept
    {
        Reset(std::exchange(other.fd_, -1));
        return *this;
    }

    [[nodiscard]] int Get() const { return fd_; }
    [[nodiscard]] bool IsValid() const { return fd_ >= 0; }
    [[nodiscard]] int Release() { return std::exchange(fd_, -1); }

    void Reset(int fd = -1)
    {
        const int old = std::exchange(fd_, fd);
        if (old >= 0) {
            close(old);
        }
    }

private:
    int fd_;
};

}  // namespace NEUtils
