#pragma once

#include <stdbool.h>
#include <stdint.h>

#include "neutils_api.h"

// The guard: runs the agent's long-lived threads in time slices, watches their heartbeats, ends the
// process when one of them hangs, and watches what the process itself uses.
//
// A guarded thread sleeps its slice, then calls its routine, and so on until the routine returns
// non-zero. Coming round is its heartbeat. A checker thread, "CheckManager", looks every 60 s: a thread
// that has not come round since is reported, and after more than two misses the main thread gets
// SIGTERM. A routine that runs or waits longer than a minute by design calls KeepCurrentThreadAlive()
// now and then.
//
// A handle is a number that is never used twice. A stale or closed one is safe to pass and refused.
//
// Threads  any. Nothing is joined under a lock.
// Errors   0 or false, with an ERROR record, also for every call before InitHipsGuard; KeepCurrentThreadAlive
//          alone says nothing where the caller is not a guarded thread.
#ifdef __cplusplus
extern "C" {
#endif

// On the main thread, once. Limits of the process's own use: resident KiB, descriptors (0 or less: none)
// and processor percent of one core; without memory and processor limit 66560 and 5.0 hold. For the role
// "broker" (configuration key TrivaneRole) the processor limit is halved. 0: done, -1: failed.
NEUTILS_API int InitHipsGuard(long memLimitKiB, int fdLimit, double cpuPercent);

// Stops every guarded thread and the checker and waits for them. Afterwards InitHipsGuard works again.
NEUTILS_API bool UninitHipsGuard(void);

// The name is cut to 15 characters. The first call of the routine comes after the first slice.
NEUTILS_API uintptr_t CreateHipsThreadEx(int (*routine)(void*), void* arg, int timeSliceUs, const char* name);

// Clears the running flag and waits for the thread: at most the sleep of its slice (3 s of a long one) and
// one call of the routine. On the thread itself it does not wait; two threads that stop each other wait for
// ever. The handle stays valid.
NEUTILS_API bool StopHipsThreadEx(uintptr_t handle);

// Clears the running flag of one thread, or of all, without waiting.
NEUTILS_API bool FastStopHipsThreadEx(uintptr_t handle);
NEUTILS_API bool FastStopAll(void);

// Releases a handle. A thread that still runs is asked to end and does so by itself; UninitHipsGuard waits
// for it.
NEUTILS_API bool CloseHipsThreadHandleEx(uintptr_t handle);

NEUTILS_API bool IsHipsThreadRunningEx(uintptr_t handle);
NEUTILS_API unsigned long GetHipsThreadIdEx(uintptr_t handle);

// A heartbeat, of a thread by its handle or of the guarded thread that calls.
NEUTILS_API bool KeepHipsThreadAlive(uintptr_t handle);
NEUTILS_API bool KeepCurrentThreadAlive(void);

NEUTILS_API bool SetResourceLimit(long memLimitKiB, int fdLimit, double cpuPercent);

// As of the checker's last round, or of InitHipsGuard; 0 before.
NEUTILS_API double GetCpuUsage(void);
NEUTILS_API long GetMemoryUsage(void);
NEUTILS_API int GetFdUsage(void);

#ifdef __cplusplus
}
#endif
