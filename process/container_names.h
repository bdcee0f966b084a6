#pragma once

#include <cstdint>
#include <string>
#include <unordered_map>

#include "process_record.h"
#include "util/unique_fd.h"

namespace NEUtils {

// Finds the container of a record by the control group that the kernel named.
//
// Where the host has one hierarchy of control groups, an id is looked up once, whether its processes still live or
// not. With several, the id says nothing, and only a living process with a mount namespace of its own is asked.
//
// Threads  of the tracer's thread alone, but for the constructor.
class ContainerNames {
public:
    // Opens what it needs while there are rights to do so.
    ContainerNames();

    // Fills in the container. False if it could not be found out.
    bool Complete(ProcessRecord& record);

private:
    bool FindByGroup(std::uint64_t group, std::string& id) const;

    UniqueFd root_;  // of the one hierarchy, if there is one
    std::unordered_map<std::uint64_t, std::string> known_;
};

}  // namespace NEUtils
