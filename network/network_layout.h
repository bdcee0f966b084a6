#pragma once

// What the trace programs of the network write and the connection tracer reads. C, since the programs are C.
#include <linux/types.h>

enum connection_kind {
    CONNECTION_ATTEMPT = 1,     // a process connects
    CONNECTION_OPENED = 2,      // an attempt came to its end
    CONNECTION_FAILED = 3,      // so did this one
    CONNECTION_ACCEPTED = 4,    // a listening socket has a new connection
    CONNECTION_LISTEN = 5,      // a process begins to listen
    CONNECTION_LISTEN_END = 6,  // the last one that had the listening socket closes it
    CONNECTION_KINDS = 7
};

enum connection_limit { CONNECTION_COMM_MAX = 16, CONNECTION_PROGRAM_MAX = 64 };

// A record: this head, and behind it the process where its kind has one.
struct connection_head {
    __u32 kind;
    __s32 error;   // of the socket, an errno
    __u64 time;    // nanoseconds since the boot
    __u64 socket;  // tells the sockets that live at the same time apart
    __u8 local[16];
    __u8 remote[16];  // an IPv4 address stands in the first four bytes
    __u16 local_port;
    __u16 remote_port;
    __u16 family;  // of the socket: AF_INET or AF_INET6
    __u16 unused;
    __u32 net_ns;
    __u32 unused_too;
};

struct connection_process {
    __u64 start;
    __s32 pid;
    __s32 tid;
    __u32 uid;
    __u32 unused;
    char comm[CONNECTION_COMM_MAX];
    char program[CONNECTION_PROGRAM_MAX];  // the name of the executable's file; empty for a thread of the kernel
};

struct connection_event {
    struct connection_head head;
    struct connection_process process;
};
