#pragma once

#include <sys/types.h>
#include <cstddef>
#include <string>
#include <string_view>

// Where lines go to. A LineQueue calls it on a thread of its own, so it may block.
class Output {
public:
    struct Result {
        std::size_t count = 0;  // of bytes that are now the receiver's
        std::string fault;      // why no more of them are; empty where nothing is wrong
        bool isFinal = false;   // it takes nothing any more
    };

    virtual ~Output() = default;

    // Hands over the bytes or the first of them. Blocks until the receiver takes some or SIGURG comes.
    virtual Result Write(std::string_view bytes) = 0;
};

// An inherited descriptor of any kind: a file, a pipe, a terminal, a socket. Its flags stay as they are, since
// other processes may share it.
class StreamOutput final : public Output {
public:
    explicit StreamOutput(int fd);
    Result Write(std::string_view bytes) override;

private:
    bool IsRemoved() const;

    const int fd_;
    bool isNamedFile_ = false;
};
