#include "monitor/fanotify_decoder.h"

#include <unistd.h>

#include <cstring>
#include <iterator>

#include "util/bounded.h"
#include "util/unique_fd.h"

namespace NEUtils {

static_assert(sizeof(fanotify_event_metadata) == 24, "the kernel's record");

FanotifyDecoder::FanotifyDecoder(const void* data, ssize_t length)
    : data_(static_cast<const unsigned char*>(data)),
      left_(data != nullptr && length > 0 ? static_cast<std::size_t>(length) : 0)
{
}

bool FanotifyDecoder::Next(fanotify_event_metadata& record)
{
    if (left_ < sizeof(record)) {
        return false;
    }
    fanotify_event_metadata decoded;
    std::memcpy(&decoded, data_, sizeof(decoded));
    if (decoded.event_len < sizeof(decoded) || decoded.event_len > left_) {
        left_ = 0;
        return false;
    }
    data_ += decoded.event_len;
    left_ -= decoded.event_len;
    record = decoded;
    return true;
}

FanotifyBatch::~FanotifyBatch()
{
    fanotify_event_metadata record;
    while (Next(record)) {
        const UniqueFd closed(record.fd);
    }
}

bool ReadFanotifyPath(int fd, char* path)
{
    char link[64];
    if (snprintf_s(link, std::size(link), "/proc/self/fd/%d", fd) < 0) {
        return false;
    }
    constexpr std::size_t kSpace = kFanotifyPathSize - 1;
    const ssize_t length = readlink(link, path, kSpace);
    if (length <= 0 || static_cast<std::size_t>(length) >= kSpace) {
        return false;
    }
    path[length] = '\0';
    return true;
}

}  // namespace NEUtils
