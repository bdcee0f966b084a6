#include "comm/message_reader.h"

#include <cstdint>
#include <cstring>

#include "util/bounded.h"

namespace NEUtils {

MessageReader::Result MessageReader::Next(SentrelAgentMsg& header, const unsigned char*& message)
{
    const std::size_t buffered = end_ - begin_;
    if (buffered >= sizeof(header)) {
        std::memcpy(&header, buffer_.get() + begin_, sizeof(header));
        const std::uint64_t total = sizeof(header) + std::uint64_t{header.length};
        if (total > kMaxMsgSize) {
            begin_ = end_ = 0;
            return kTooLong;
        }
        if (total <= buffered) {
            message = buffer_.get() + begin_;
            begin_ += static_cast<std::size_t>(total);
            return kMessage;
        }
    }
    memmove_s(buffer_.get(), kSize, buffer_.get() + begin_, buffered);
    begin_ = 0;
    end_ = buffered;
    return kIncomplete;
}

}  // namespace NEUtils
