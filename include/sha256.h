#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

#include "neutils_api.h"

namespace NEUtils {

// SHA-256 digests as 64 hexadecimal digits.
//
// Threads  any.
// Blocks   DigestFile as long as reading the file takes; never on a FIFO or a device.
// Limits   a file is read in pieces of 64 KiB, so its size costs time and no memory.
// Errors   the output is set on success only.
class NEUTILS_API Sha256 {
public:
    enum Result {
        kOk,
        kGone,        // no such file
        kNotRegular,  // a directory, a link, a FIFO, a device
        kTooLarge,
        kUnreadable,  // no permission, an error of the disk or of the digest itself
        kStopped,
    };

    static bool Digest(const void* data, std::size_t length, std::string& digest);

    // A last link in the path is not followed. A file that changes meanwhile has a digest of neither state,
    // and one that grows beyond maxSize bytes is too large. goOn, if there is one, is asked before each piece;
    // false stops it.
    static Result DigestFile(const std::string& path, std::uint64_t maxSize, std::string& digest,
                             const std::function<bool()>& goOn = {});
};

}  // namespace NEUtils
