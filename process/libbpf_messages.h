#pragma once

#include <cstdarg>
#include <string>

#include <bpf/libbpf.h>

namespace NEUtils {

// Keeps what libbpf writes on this thread while it lives, instead of the standard error output. libbpf has one
// function for that in a process: what other threads cause goes to the one that was set before.
//
// Threads  several threads may have one each at the same time.
class LibbpfMessages {
public:
    LibbpfMessages();
    ~LibbpfMessages();
    LibbpfMessages(const LibbpfMessages&) = delete;
    LibbpfMessages& operator=(const LibbpfMessages&) = delete;

    // The first warning, without its line end: the later ones only say what follows from it.
    const std::string& GetFirst() const { return first_; }

private:
    static int Print(libbpf_print_level level, const char* format, va_list args) __attribute__((format(printf, 2, 0)));

    std::string first_;
};

}  // namespace NEUtils
