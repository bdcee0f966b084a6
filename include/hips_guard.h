#pragma once

#include <stdbool.h>
#include <stdint.h>

#include "neutils_api.h"

// The guard: runs the agent's long-lived threads in time slices, checks their heartbeats, ends the process
// when a thread hangs, and measures what the process itself uses.
//
// A guarded thread sleeps its slice, calls its routine, and so on until the routine returns non-zero. Each
// time it comes round is a heartbeat. Every 60 s a checker thread, "CheckManager", logs the threads that have
// not come round since. After more than two misses in a row it ends the process: it logs that, then sends
// SIGTERM to the main thread. A program whose main thread takes SIGTERM itself (blocked, through a signalfd,
// or with a handler) can stop in good order then. If the process is still there 10 s later, because the main
// thread hangs too or SIGTERM is ignored, the checker restores the signal's default action and raises it.
// A log that hangs delays that by at most four seconds, and costs the records.
//
// A routine that runs or waits longer than a minute by design calls KeepCurrentThreadAlive() now and then.
//
// A handle is a number that is never used twice. A closed one is safe to pass and refused.
//
// Threads  any. Nothing is joined under a lock.
// Errors   0 or false, with an ERROR record, also for every call before InitHipsGuard. KeepCurrentThreadAlive
//          alone logs nothing where the caller is not a guarded thread. Nothing throws, also when memory
//          has run out.
#ifdef __cplusplus
extern "C" {
#endif

// On the main thread, once. The limits are of the process's own use: resident KiB, open descriptors (0 or
// less: no limit), and processor percent of one core. Without a limit of memory or of processor time the
// defaults 66560 and 5.0 hold for both. For the role "broker" (configuration key TrivaneRole) the processor
// limit is halved. 0: done, -1: failed.
NEUTILS_API int InitHipsGuard(long memLimitKiB, int fdLimit, double cpuPercent);

// Asks all guarded threads to stop, then waits for each and for the checker. Afterwards InitHipsGuard works
// again.
NEUTILS_API bool UninitHipsGuard(void);

// The name is cut to 15 characters. The first call of the routine comes after the first slice.
NEUTILS_API uintptr_t CreateHipsThreadEx(int (*routine)(void*), void* arg, int timeSliceUs, const char* name);

// Clears the running flag and waits for the thread: at most the sleep of its slice (3 s of a long one) and
// one call of the routine. On the thread itself it does not wait; two threads that stop each other wait for
// ever. The handle stays valid.
NEUTILS_API bool StopHipsThreadEx(uintptr_t handle);

// Ask one thread, or all, to stop, without waiting. Who stops several calls FastStopAll() first: then their
// sleeps end side by side, and the stops that follow take no longer than the longest one. A thread that was
// asked still runs its routine once, if it sleeps now, and is not checked any more.
NEUTILS_API bool FastStopHipsThreadEx(uintptr_t handle);
NEUTILS_API bool FastStopAll(void);

// Releases a handle. A thread that still runs is asked to stop and ends by itself; UninitHipsGuard waits
// for it.
NEUTILS_API bool CloseHipsThreadHandleEx(uintptr_t handle);

NEUTILS_API bool IsHipsThreadRunningEx(uintptr_t handle);
NEUTILS_API unsigned long GetHipsThreadIdEx(uintptr_t handle);

// A heartbeat, of the thread with the handle, or of the calling thread if it is a guarded one.
NEUTILS_API bool KeepHipsThreadAlive(uintptr_t handle);
NEUTILS_API bool KeepCurrentThreadAlive(void);

// Supervises a thread that is not guarded, beside those that are: it stands in the list of the instance
// manager (hips_instance_manager.h), and when it hangs the process ends as for a guarded one. The function
// tells how many milliseconds ago the thread last came round, or -1 while there is no such thread, which
// then is not checked. It is called from any thread, also under the guard's lock: it reads a variable
// and calls no function of the guard.
// The handle is for UnwatchPlainThread alone, after which the function is not called any more; UninitHipsGuard
// ends the supervision too. 0: failed.
NEUTILS_API uintptr_t WatchPlainThread(const char* name, long long (*beatAgeMs)(void* arg), void* arg);
NEUTILS_API bool UnwatchPlainThread(uintptr_t handle);

NEUTILS_API bool SetResourceLimit(long memLimitKiB, int fdLimit, double cpuPercent);

// What the process used in the checker's last round, or at InitHipsGuard; 0 before.
NEUTILS_API double GetCpuUsage(void);
NEUTILS_API long GetMemoryUsage(void);
NEUTILS_API int GetFdUsage(void);

#ifdef __cplusplus
}
#endif
