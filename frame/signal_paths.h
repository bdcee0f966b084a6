#pragma once

#include <limits.h>

#include <string>

namespace NEUtils::SignalPaths {

// Copies of the frame's paths for the signal handler, which must not touch a std::string.
// Empty until published; a path that does not fit stays empty.
extern char crashReport[PATH_MAX];
extern char pidFile[PATH_MAX];

// Removes a pid file. Without the lock of the one instance not where it names a living process that is neither this one
// nor its child: that is another instance's. Safe in a signal handler; an empty path has no effect.
void RemovePidFile(const char* path, int child, bool hasLock);

void Publish(char (&target)[PATH_MAX], const std::string& path);

}  // namespace NEUtils::SignalPaths
