#pragma once

#include <string>

#include "file_watch.h"

namespace NEUtils::Monitor {

// Does the rule speak of this path: its own, an entry of it, or with recursion anything below that no
// exclude leaves out?
bool Covers(const FileWatchRule& rule, const std::string& path);

// Does it need a watch on a directory at this path, to learn of the entries?
bool LooksInto(const FileWatchRule& rule, const std::string& directory);

// Is it the path itself or below it?
bool IsAtOrBelow(const std::string& path, const std::string& top);

std::string ParentOf(const std::string& path);
std::string EntryOf(const std::string& directory, const std::string& name);

bool IsSame(const FileWatchRule& one, const FileWatchRule& other);

}  // namespace NEUtils::Monitor
