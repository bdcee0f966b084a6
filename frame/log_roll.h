#pragma once

#include <string>

// Rolls a log file away: compresses it and moves its numbered copies up.
namespace NEUtils::LogRoll {

// Why a log file cannot have this path; null if it can. The path becomes part of a shell command, and gzip refuses
// some names.
const char* PathFault(const std::string& path);

// Compresses <path> to <path>.1.gz and keeps at most count copies, older ones under higher numbers. False, and
// nothing moved, if the path has a fault or gzip fails; true also where a copy could not be moved.
bool Roll(const std::string& path, unsigned int count);

}  // namespace NEUtils::LogRoll
