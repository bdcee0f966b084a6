#pragma once

#include <memory>
#include <string>

#include "process/trace_source.h"

namespace NEUtils {

// The source that loads trace programs into the kernel and reads their ring. Null in a library built without them.
std::unique_ptr<TraceSource> MakeTraceRing(const TracerSettings& settings);

}  // namespace NEUtils
