#pragma once

#include <cstring>

namespace NEUtils {

// The text of a system error, for log records: ErrnoText(errno).Get().
class ErrnoText {
public:
    explicit ErrnoText(int error) : text_(Select(strerror_r(error, buffer_, sizeof(buffer_)))) {}
    ErrnoText(const ErrnoText&) = delete;
    ErrnoText& operator=(const ErrnoText&) = delete;

    [[nodiscard]] const char* Get() const { return text_; }

private:
    // strerror_r gives the text in glibc's form of it and a number in the POSIX form.
    const char* Select(const char* text) { return text; }
    const char* Select(int result) { return result == 0 ? buffer_ : "Unknown error"; }

    char buffer_[256] = {};
    const char* text_;
};

}  // namespace NEUtils
