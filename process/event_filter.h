#pragma once

#include <linux/cn_proc.h>

#include <cstdint>
#include <vector>

namespace NEUtils {

// Has the kernel drop the events that nobody asked for, before they take room in the socket's buffer. Forks and
// exits of processes always come through, since the white list follows them; of threads, unless only processes
// are wanted; then the exits of threads come through for the followed processes alone, the first 500 of them.
// Takes the place of a filter attached before. 0, or an error number.
int AttachEventFilter(int fd, std::uint32_t kinds, bool processesOnly, const std::vector<int>& followed = {});

// The beginning or end of a thread that is not the first of its process.
bool IsOfFurtherThread(const proc_event& event);

}  // namespace NEUtils
