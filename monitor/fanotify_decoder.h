#pragma once

#include <sys/fanotify.h>
#include <sys/types.h>

#include <cstddef>

namespace NEUtils {

constexpr unsigned int kFanotifyFlags = FAN_CLOEXEC | FAN_NONBLOCK | FAN_CLASS_CONTENT;
// Kept because these flags are fixed: events' descriptors are read-only and nothing more, not even close-on-exec.
constexpr unsigned int kFanotifyFileFlags = 0;
constexpr unsigned int kFanotifyDirectoryMask = FAN_ONDIR | FAN_EVENT_ON_CHILD;
constexpr std::size_t kFanotifyReadSize = 4800;
constexpr std::size_t kFanotifyPathSize = 4097;

// Walks the records of one read. It ends where less than a record is left, and at a record whose length is
// less than its 24 bytes or more than what is left.
class FanotifyDecoder {
public:
    FanotifyDecoder(const void* data, ssize_t length);

    bool Next(fanotify_event_metadata& record);

private:
    const unsigned char* data_;
    std::size_t left_;
};

// The same, for the owner of the descriptors: those of records that were not taken are closed at the end of
// the scope, so that neither an early return nor an exception leaks one. A taken one is its taker's.
class FanotifyBatch {
public:
    FanotifyBatch(const void* data, ssize_t length) : decoder_(data, length) {}
    ~FanotifyBatch();
    FanotifyBatch(const FanotifyBatch&) = delete;
    FanotifyBatch& operator=(const FanotifyBatch&) = delete;

    bool Next(fanotify_event_metadata& record) { return decoder_.Next(record); }

private:
    FanotifyDecoder decoder_;
};

// Finds the path of an event's open file; false if there is none, or none that fits. The output has
// kFanotifyPathSize bytes.
bool ReadFanotifyPath(int fd, char* path);

}  // namespace NEUtils
