#pragma once

// What every set of trace programs has: the ring, the state that its reader shares, and how the reader is woken up.
// Comes behind the kernel's types and bpf_helpers.h.
#include "process/trace_state.h"

struct {
    __uint(type, BPF_MAP_TYPE_RINGBUF);
    __uint(max_entries, 4 << 20); /* set anew before loading */
} ring SEC(".maps");

struct trace_state state = {};
const volatile __u64 wake_size = 0; /* in the ring, to wake a resting reader; 0: each record wakes it */

static __always_inline void count(__u64* counter)
{
    __sync_fetch_and_add(counter, 1);
}

static __always_inline __u64 wake_flags(void)
{
    if (wake_size == 0)
        return 0;
    if (state.waiting == TRACE_READING)
        return BPF_RB_NO_WAKEUP;
    if (state.waiting == TRACE_RESTING && bpf_ringbuf_query(&ring, BPF_RB_AVAIL_DATA) < wake_size)
        return BPF_RB_NO_WAKEUP;
    state.waiting = TRACE_READING;
    return BPF_RB_FORCE_WAKEUP;
}

/* Room for a record of a kind. Null where there is none: then it is counted as lost. */
static __always_inline void* reserve(__u32 kind, __u64 size)
{
    void* record = bpf_ringbuf_reserve(&ring, size, 0);
    count(&state.seen[kind]);
    if (!record)
        count(&state.lost[kind]);
    return record;
}
