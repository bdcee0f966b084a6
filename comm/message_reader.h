#pragma once

#include <cstddef>
#include <memory>

#include "basecomm.h"

namespace NEUtils {

// Cuts a received stream of bytes into messages.
//
//     reader.Filled(read(fd, reader.Space(), reader.SpaceSize()));
//     while (reader.Next(header, message) == MessageReader::kMessage) ...
//
// Threads  one at a time.
class MessageReader {
public:
    enum Result {
        kMessage,     // one whole message
        kIncomplete,  // read more
        kTooLong,     // a message above kMaxMsgSize was announced; all bytes in the buffer are discarded
    };

    // The free part of the buffer. It is never empty after Next has given anything but kMessage.
    unsigned char* Space() { return buffer_.get() + end_; }
    std::size_t SpaceSize() const { return kSize - end_; }
    void Filled(std::size_t count) { end_ += count; }  // at most SpaceSize()

    // The next message and its header. The bytes are not aligned, and stay until the next call.
    Result Next(SentrelAgentMsg& header, const unsigned char*& message);

private:
    static constexpr std::size_t kSize = kMaxMsgSize + 1;

    std::unique_ptr<unsigned char[]> buffer_{new unsigned char[kSize]};
    std::size_t begin_ = 0;
    std::size_t end_ = 0;
};

}  // namespace NEUtils
