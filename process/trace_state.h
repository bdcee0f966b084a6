#pragma once

// What every set of trace programs shares with its reader. C, since the programs are C.
#include <linux/types.h>

// Each set of programs numbers its kinds of records from 1.
enum { TRACE_KINDS = 8 };

// How the reader waits, and so when a program wakes it up.
enum trace_wait { TRACE_READING = 0, TRACE_RESTING = 1, TRACE_IDLE = 2 };

// Shared memory of the programs and the reader, who needs no rights to read it.
struct trace_state {
    __u64 seen[TRACE_KINDS];
    __u64 lost[TRACE_KINDS];  // of those, for want of room in the ring
    __u32 waiting;            // trace_wait
};
