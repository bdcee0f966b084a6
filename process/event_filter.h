#pragma once

#include <linux/cn_proc.h>

#include <cstdint>

namespace NEUtils {

// Has the kernel drop the events that nobody asked for, before they take room in the socket's buffer. Forks and
// exits of processes always come through, since the white list follows them; of threads, unless only processes
// are wanted. 0, or an error number.
int AttachEventFilter(int fd, std::uint32_t kinds, bool processesOnly);

// The beginning or end of a thread that is not the first of its process.
bool IsOfFurtherThread(const proc_event& event);

}  // namespace NEUtils
