#pragma once

// What the trace programs in the kernel write and the tracer reads. C, since the programs are C.
#include <linux/types.h>

enum trace_kind { TRACE_FORK = 1, TRACE_EXEC = 2, TRACE_EXIT = 3 };

enum trace_flag {
    TRACE_NO_ARGS = 1,    // the arguments could not be read
    TRACE_NO_PATH = 2,    // nor the path
    TRACE_SCRIPT = 4,     // the path is a script's, the interpreter's follows
    TRACE_DELETED = 8,    // the executable has no name any more
    TRACE_IN_MEMORY = 16  // nor ever had one: it comes from memfd_create
};

enum trace_limit { TRACE_PATH_MAX = 4096, TRACE_INTERPRETER_MAX = 256, TRACE_ARGS_MAX = 16384, TRACE_COMM_MAX = 16 };

// A record: this head, and behind it the path, the interpreter's path and the arguments, of exec only.
struct trace_head {
    __u32 kind;
    __u32 flags;
    __u64 time;          // nanoseconds since the boot, as all times here
    __u64 start;         // of the process
    __u64 parent_start;  // of its parent
    __u64 cgroup;
    __u64 exe_inode;
    __u64 args_total;  // size of the arguments; args_size is the part that is here
    __s32 pid;         // the process
    __s32 tid;         // the thread; at an exec the id that it had before
    __s32 parent;
    __s32 ns_pid;  // the process's id in its own namespace
    __u32 pid_ns;
    __u32 mount_ns;
    __u32 uid;
    __u32 gid;
    __u32 euid;
    __u32 egid;
    __u32 login_uid;
    __u32 session;
    __s32 exit_status;  // as wait gives it
    __u32 arg_count;
    __u32 exe_mode;
    __u32 path_size;  // with the terminator, as the next
    __u32 interpreter_size;
    __u32 args_size;
    char comm[TRACE_COMM_MAX];
};
