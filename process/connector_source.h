#pragma once

#include <memory>

#include "process/trace_source.h"

namespace NEUtils {

// The source that works without trace programs: the process connector, completed from /proc.
std::unique_ptr<TraceSource> MakeConnectorSource(const TracerSettings& settings);

}  // namespace NEUtils
