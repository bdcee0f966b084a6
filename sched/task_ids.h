#pragma once

#include <atomic>
#include <cstdint>

namespace NEUtils::TaskIds {

// The last id handed out, by whichever manager: an id means one task in the whole process.
// Kept at 1 because callers know the first id as 2.
inline std::atomic<std::uint32_t> last{1};

inline std::uint32_t Next()
{
    const std::uint32_t id = ++last;
    return id == 0 ? ++last : id;  // 0 is no id
}

}  // namespace NEUtils::TaskIds
