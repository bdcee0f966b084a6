#pragma once

#include <array>

namespace NEUtils {

// The platform's own processes, whose activity nobody is notified of: what their command line holds.
inline constexpr std::array<const char*, 8> kPlatformPatterns = {
    "/opt/omx/envs/DBAgent",
    "tools/pyscript/deployagent/DeployAgent.pyc",
    "/opt/omx/manager/agent/DeployAgent/tools/pyscript/watchdog.pyc",
    "/opt/omx/envs/NodeAgent",
    "/usr/bin/sysmonitor --daemon",
    "/bin/bash /opt/omx/envs/Product-Etcd",
    "/opt/omx/envs/ServiceAwareWatchAgent",
    "/usr/sbin/setroubleshootd",
};

}  // namespace NEUtils
