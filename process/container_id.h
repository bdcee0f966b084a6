#pragma once

#include <string>
#include <string_view>

#include "neutils_api.h"

namespace ProcessUtils {

// Takes the first container id out of the text of a /proc/<pid>/cgroup. False where there is none.
// Exported for the library of the tracer.
NEUTILS_API bool FindContainerId(std::string_view cgroups, std::string& id);

}  // namespace ProcessUtils
