#pragma once

#include "logger.h"

namespace NEUtils {

// Kept because log readers look for the guard's records under this name, whichever of its files writes them.
inline constexpr char kGuardFile[] = "hips_guard.cpp";

// A record of the guard, in the form of NE_LOG.
#define GUARD_LOG(level, ...)                                                                                \
    ::LoggerWriteLog(::NEUtils::kNormalLog, (level), ::NEUtils::kGuardFile, static_cast<unsigned>(__LINE__), \
                     __VA_ARGS__)

}  // namespace NEUtils
