#pragma once

#include <cstdint>
#include <string>

#include "monitor/tracker_state.h"

namespace NEUtils {

// Sets and takes away the watches of files, as the rules need them.
class WatchKeeper {
public:
    explicit WatchKeeper(TrackerState& state) : state_(state) {}

    // Watches a file if a rule needs that. Where the kernel says that the directory at the path is one that is known
    // by another path, which does not lead to it any more, it has been moved and the record of that is to come: it
    // keeps its watch there, and the result is that other file. Null otherwise.
    WatchedFile* Ensure(WatchedFile& file, const std::string& path);

    // Takes from a watch what nobody needs any more.
    void Narrow(WatchedFile& file, const std::string& path);
    void Drop(WatchedFile& file);

private:
    [[nodiscard]] std::uint32_t MaskOf(const WatchedFile& file, const std::string& path) const;
    [[nodiscard]] WatchedFile* FindMoved(const WatchedFile& file, WatchId watch);
    void CountLack(WatchedFile& file, const std::string& path);

    TrackerState& state_;
};

}  // namespace NEUtils
