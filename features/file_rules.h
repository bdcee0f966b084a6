#pragma once

#include <cstdint>
#include <string>

#include "file_watch.h"

// A file whose uses are logged and reported, or a directory with what is directly in it.
struct FileGuard {
    std::string path;
    std::uint32_t mask = 0;  // FAN_ bits
};

// Read a rule of a policy, "path;option;…" (docs/FORMATS.md). Give what is wrong with it, or nothing. What can never
// match is wrong.
std::string ParseWatch(const std::string& text, NEUtils::Monitor::FileWatchRule& rule);
std::string ParseGuard(const std::string& text, FileGuard& guard);

// The names of the bits of an event, with a comma between them.
std::string WatchEventNames(std::uint32_t mask);
std::string GuardEventNames(std::uint64_t mask);
