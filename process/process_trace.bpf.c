// Programs that run in the kernel at every fork, exec and exit, and write a record about it into a ring.
//
// Each counts what it sees and what does not fit, so that seen = in the ring + lost holds exactly.
// Loads on kernels from 5.8 with a description of their types (BTF).
#include "trace_kernel.h"

#include <bpf/bpf_core_read.h>
#include <bpf/bpf_helpers.h>
#include <bpf/bpf_tracing.h>

#include "process/trace_common.bpf.h"
#include "trace_layout.h"

char LICENSE[] SEC("license") = "Dual MIT/GPL";

#define NO_ID 0xFFFFFFFFU
#define GROUP_EXIT 4 /* flag of signal_struct: group_exit_code holds */
#define EEXIST 17
#define MAX_PID_LEVEL 32
#define MAX_ENDED 4096

/* Room behind the longest offset that the mask of an offset lets through. */
#define OFFSET_MASK 8191
#define DATA_SIZE (OFFSET_MASK + 1 + TRACE_ARGS_MAX)

/* An upper limit that the verifier of any version understands and the compiler cannot move. */
#define LIMIT(value, limit) asm volatile("if %0 <= %1 goto +1; %0 = %1" : "+r"(value) : "i"(limit))

struct exec_record {
    struct trace_head head;
    char data[DATA_SIZE];
};

struct ended_key {
    __u64 start;
    __u32 pid, unused;
};

/* An exec is too large for the stack. Nothing else runs on this processor between lookup and output. */
struct {
    __uint(type, BPF_MAP_TYPE_PERCPU_ARRAY);
    __uint(max_entries, 1);
    __type(key, __u32);
    __type(value, struct exec_record);
} scratch SEC(".maps");

/* Processes with several threads whose end has a record. */
struct {
    __uint(type, BPF_MAP_TYPE_LRU_HASH);
    __uint(max_entries, MAX_ENDED);
    __type(key, struct ended_key);
    __type(value, __u32);
} ended SEC(".maps");

static __always_inline void put_ids(struct trace_head* head, struct task_struct* task)
{
    const struct cred* cred = task->cred;
    struct task_struct* parent = task->real_parent;
    head->pid = task->tgid;
    head->tid = task->pid;
    head->start = task->group_leader->start_boottime;
    head->parent = parent->tgid;
    head->parent_start = parent->group_leader->start_boottime;
    head->uid = cred->uid.val;
    head->gid = cred->gid.val;
    head->euid = cred->euid.val;
    head->egid = cred->egid.val;
    head->login_uid = bpf_core_field_exists(task->loginuid) ? task->loginuid.val : NO_ID;
    head->session = bpf_core_field_exists(task->sessionid) ? task->sessionid : NO_ID;
    head->cgroup = task->cgroups->dfl_cgrp->kn->id;
}

static __always_inline void put_namespaces(struct trace_head* head, struct task_struct* task)
{
    struct nsproxy* spaces = task->nsproxy;
    struct pid* pid = task->group_leader->thread_pid;
    struct pid_namespace* space = 0;
    __u32 level;
    head->mount_ns = spaces ? spaces->mnt_ns->ns.inum : 0;
    head->pid_ns = 0;
    head->ns_pid = 0;
    if (!pid)
        return;
    level = pid->level;
    if (level < MAX_PID_LEVEL) {
        /* The array's length is not in the type: its last element is that of the process's own namespace. */
        const char* number =
            (const char*)pid + bpf_core_field_offset(pid->numbers) + level * bpf_core_type_size(struct upid);
        bpf_probe_read_kernel(&head->ns_pid, sizeof(head->ns_pid),
                              number + bpf_core_field_offset(((struct upid*)0)->nr));
        bpf_probe_read_kernel(&space, sizeof(space), number + bpf_core_field_offset(((struct upid*)0)->ns));
        head->pid_ns = space ? BPF_CORE_READ(space, ns.inum) : 0;
    }
}

static __always_inline void put_head(struct trace_head* head, struct task_struct* task, __u32 kind)
{
    head->kind = kind;
    head->flags = 0;
    head->time = bpf_ktime_get_boot_ns();
    put_ids(head, task);
    put_namespaces(head, task);
    head->exit_status = 0;
    head->arg_count = 0;
    head->exe_mode = 0;
    head->exe_inode = 0;
    head->args_total = 0;
    head->path_size = 0;
    head->interpreter_size = 0;
    head->args_size = 0;
    bpf_core_read_str(head->comm, sizeof(head->comm), &task->comm);
}

static __always_inline void put_file(struct trace_head* head, struct mm_struct* mm)
{
    struct file* file = mm->exe_file;
    struct inode* inode;
    char name[8] = {};
    if (!file)
        return;
    inode = file->f_inode;
    head->exe_mode = inode->i_mode;
    head->exe_inode = inode->i_ino;
    if (inode->i_nlink != 0)
        return;
    head->flags |= TRACE_DELETED;
    bpf_probe_read_kernel_str(name, sizeof(name), file->f_path.dentry->d_name.name);
    if (name[0] == 'm' && name[1] == 'e' && name[2] == 'm' && name[3] == 'f' && name[4] == 'd' && name[5] == ':')
        head->flags |= TRACE_IN_MEMORY;
}

/* Give the offset behind what they have put. */
static __always_inline __u32 put_paths(struct exec_record* record, struct linux_binprm* program)
{
    struct trace_head* head = &record->head;
    const char* filename = program->filename;
    const char* interpreter = program->interp;
    __u32 at = 0;
    long size = bpf_probe_read_kernel_str(record->data, TRACE_PATH_MAX, filename);
    if (size <= 0) {
        head->flags |= TRACE_NO_PATH;
        return 0;
    }
    at = size;
    barrier_var(at);
    at &= OFFSET_MASK;
    head->path_size = at;
    if (interpreter == filename)
        return at;
    size = bpf_probe_read_kernel_str(record->data + at, TRACE_INTERPRETER_MAX, interpreter);
    if (size <= 0) {
        head->flags |= TRACE_NO_PATH;
        return at;
    }
    head->flags |= TRACE_SCRIPT;
    head->interpreter_size = size;
    at += size;
    return at;
}

static __always_inline __u32 put_args(struct exec_record* record, __u32 at, struct mm_struct* mm)
{
    struct trace_head* head = &record->head;
    unsigned long begin = mm->arg_start;
    __u64 size = mm->arg_end - begin;
    head->args_total = size;
    LIMIT(size, TRACE_ARGS_MAX);
    if (bpf_probe_read_user(record->data + at, size, (const void*)begin) != 0) {
        head->flags |= TRACE_NO_ARGS;
        size = 0;
    }
    head->args_size = size;
    return size;
}

SEC("tp_btf/sched_process_exec")
int BPF_PROG(trace_exec, struct task_struct* task, int old_tid, struct linux_binprm* program)
{
    __u32 zero = 0, at;
    __u64 size;
    struct mm_struct* mm = task->mm;
    struct exec_record* record = bpf_map_lookup_elem(&scratch, &zero);
    count(&state.seen[TRACE_EXEC]);
    if (!record || !mm) {
        count(&state.lost[TRACE_EXEC]);
        return 0;
    }
    put_head(&record->head, task, TRACE_EXEC);
    record->head.tid = old_tid;
    record->head.arg_count = program->argc;
    put_file(&record->head, mm);
    at = put_paths(record, program);
    barrier_var(at);
    at &= OFFSET_MASK;
    size = put_args(record, at, mm);
    LIMIT(size, TRACE_ARGS_MAX);
    size += at + sizeof(record->head);
    if (bpf_ringbuf_output(&ring, record, size, wake_flags()) != 0)
        count(&state.lost[TRACE_EXEC]);
    return 0;
}

SEC("tp_btf/sched_process_fork")
int BPF_PROG(trace_fork, struct task_struct* parent, struct task_struct* child)
{
    struct trace_head* head;
    if (child->pid != child->tgid)
        return 0;
    head = reserve(TRACE_FORK, sizeof(*head));
    if (!head)
        return 0;
    put_head(head, child, TRACE_FORK);
    bpf_ringbuf_submit(head, wake_flags());
    return 0;
}

/* True for one of the threads that end together as the last ones. */
static __always_inline bool ends_process(struct task_struct* task)
{
    struct signal_struct* group = task->signal;
    struct ended_key key = {task->group_leader->start_boottime, task->tgid, 0};
    __u32 yes = 1;
    if (group->live.counter != 0)
        return false;
    if (task->pid == task->tgid && group->nr_threads == 1)
        return !bpf_map_lookup_elem(&ended, &key);
    return bpf_map_update_elem(&ended, &key, &yes, BPF_NOEXIST) != -EEXIST; /* better twice than never */
}

SEC("tp_btf/sched_process_exit")
int BPF_PROG(trace_exit, struct task_struct* task)
{
    struct signal_struct* group = task->signal;
    struct trace_head* head;
    if (!ends_process(task))
        return 0;
    head = reserve(TRACE_EXIT, sizeof(*head));
    if (!head)
        return 0;
    put_head(head, task, TRACE_EXIT);
    head->exit_status = group->flags & GROUP_EXIT ? group->group_exit_code : task->group_leader->exit_code;
    bpf_ringbuf_submit(head, wake_flags());
    return 0;
}
