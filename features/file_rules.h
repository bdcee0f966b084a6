#pragma once

#include <cstdint>
#include <string>

#include "monitor.h"

// A file or folder whose users are told.
struct FileGuard {
    std::string path;
    std::uint32_t mask = 0;  // FAN_ bits
};

// Read a rule of a policy, "path;option;…" (docs/FORMATS.md). Give what is wrong with it, or nothing.
std::string ParseWatch(const std::string& text, NEUtils::Monitor::FileWatchRule& rule);
std::string ParseGuard(const std::string& text, FileGuard& guard);

// The names of the bits of an event, with a comma between them.
std::string WatchEventNames(std::uint32_t mask);
std::string GuardEventNames(std::uint64_t mask);
