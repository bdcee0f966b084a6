#pragma once

#include <limits.h>

#include <string>

namespace NEUtils::SignalPaths {

// Copies of the frame's paths for the signal handler, which must not touch a std::string.
// Empty until published; a path that does not fit stays empty.
extern char crashReport[PATH_MAX];
extern char pidFile[PATH_MAX];

void Publish(char (&target)[PATH_MAX], const std::string& path);

}  // namespace NEUtils::SignalPaths
