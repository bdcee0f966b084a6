#pragma once

#include <atomic>
#include <string>

#include "util/unique_fd.h"

namespace NEUtils {

// The kernel's notices that something was mounted or unmounted, and its table of mounts. A mount that has come and gone
// has its notice too, while the table reads as before.
//
// Threads  any.
class MountWatch {
public:
    void Open();
    [[nodiscard]] int GetFd() const { return fd_.Get(); }  // has POLLPRI where there is a notice
    void SetChanged() { isChanged_ = true; }
    [[nodiscard]] bool IsChanged() const { return isChanged_; }

    // Whether there was a notice since the last call, or SetChanged.
    bool TakeChange();
    // The text of /proc/self/mountinfo. False if it cannot be read.
    [[nodiscard]] bool Read(std::string& text) const;

private:
    UniqueFd fd_;
    std::atomic<bool> isChanged_{true};
};

}  // namespace NEUtils
