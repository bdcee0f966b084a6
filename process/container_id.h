#pragma once

#include <string>
#include <string_view>

namespace ProcessUtils {

// Takes the first container id out of the text of a /proc/<pid>/cgroup. False where there is none.
bool FindContainerId(std::string_view cgroups, std::string& id);

}  // namespace ProcessUtils
