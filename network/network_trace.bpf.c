// A program that runs in the kernel whenever a socket changes its state, and writes a record into a ring about what
// begins or ends by it. Each record is in the ring or counted as lost. Loads on kernels from 5.8 with BTF.
#include "network_kernel.h"

#include <bpf/bpf_core_read.h>
#include <bpf/bpf_endian.h>
#include <bpf/bpf_helpers.h>
#include <bpf/bpf_tracing.h>

#include "network_layout.h"
#include "process/trace_common.bpf.h"

char LICENSE[] SEC("license") = "Dual MIT/GPL";

/* The kernel's numbers, which user space relies on too. */
enum { FAMILY_IPV4 = 2, FAMILY_IPV6 = 10, PROTOCOL_TCP = 6 };
enum { ESTABLISHED = 1, SYN_SENT = 2, SYN_RECEIVED = 3, CLOSED = 7, LISTENING = 10 };

const volatile __u32 wanted = ~0U; /* a bit for each kind of record */

/* Of a socket between its first packet and the connection: its process has connected, and so has the other side at the
 * same moment. A socket that was accepted early, with data in its first packet, has a file too. */
static __always_inline bool has_connected(const struct sock* sk)
{
    return sk->sk_socket && sk->sk_socket->state == SS_CONNECTING;
}

/* What a change of state begins or ends; 0 if it is neither. */
static __always_inline __u32 kind_of(const struct sock* sk, int old_state, int new_state)
{
    if (new_state == SYN_SENT)
        return CONNECTION_ATTEMPT;
    if (new_state == LISTENING)
        return CONNECTION_LISTEN;
    if (new_state == ESTABLISHED && old_state == SYN_SENT)
        return CONNECTION_OPENED;
    if (new_state == ESTABLISHED && old_state == SYN_RECEIVED)
        return has_connected(sk) ? CONNECTION_OPENED : CONNECTION_ACCEPTED;
    if (new_state != CLOSED)
        return 0;
    if (old_state == LISTENING)
        return CONNECTION_LISTEN_END;
    return old_state == SYN_SENT || (old_state == SYN_RECEIVED && has_connected(sk)) ? CONNECTION_FAILED : 0;
}

static __always_inline void put_socket(struct connection_head* head, const struct sock* sk)
{
    head->family = sk->__sk_common.skc_family;
    head->unused = 0;
    head->unused_too = 0;
    head->remote_port = bpf_ntohs(sk->__sk_common.skc_dport);
    head->local_port = bpf_ntohs(BPF_CORE_READ((const struct inet_sock*)sk, inet_sport));
    head->net_ns = sk->__sk_common.skc_net.net->ns.inum;
    __builtin_memset(head->local, 0, sizeof(head->local));
    __builtin_memset(head->remote, 0, sizeof(head->remote));
    if (head->family == FAMILY_IPV6) {
        bpf_core_read(head->local, sizeof(head->local), &sk->__sk_common.skc_v6_rcv_saddr);
        bpf_core_read(head->remote, sizeof(head->remote), &sk->__sk_common.skc_v6_daddr);
    } else {
        bpf_core_read(head->local, 4, &sk->__sk_common.skc_rcv_saddr);
        bpf_core_read(head->remote, 4, &sk->__sk_common.skc_daddr);
    }
}

static __always_inline void put_head(struct connection_head* head, const struct sock* sk, __u32 kind)
{
    head->kind = kind;
    head->error = sk->sk_err;
    head->time = bpf_ktime_get_boot_ns();
    head->socket = (__u64)sk;
    put_socket(head, sk);
}

static __always_inline void put_process(struct connection_process* process)
{
    struct task_struct* task = (struct task_struct*)bpf_get_current_task();
    struct file* file = BPF_CORE_READ(task, mm, exe_file);
    __u64 ids = bpf_get_current_pid_tgid();
    process->pid = ids >> 32;
    process->tid = (__u32)ids;
    process->uid = (__u32)bpf_get_current_uid_gid();
    process->unused = 0;
    process->start = BPF_CORE_READ(task, group_leader, start_boottime);
    bpf_get_current_comm(process->comm, sizeof(process->comm));
    __builtin_memset(process->program, 0, sizeof(process->program));
    if (file)
        bpf_probe_read_kernel_str(process->program, sizeof(process->program),
                                  BPF_CORE_READ(file, f_path.dentry, d_name.name));
}

/* Of these the running process is the one that acts. All else is done for whoever the packet has interrupted. */
static __always_inline bool has_process(__u32 kind)
{
    return kind == CONNECTION_ATTEMPT || kind == CONNECTION_LISTEN || kind == CONNECTION_LISTEN_END;
}

SEC("tp_btf/inet_sock_set_state")
int BPF_PROG(trace_state_change, const struct sock* sk, int old_state, int new_state)
{
    struct connection_event* event;
    struct connection_head* head;
    __u32 kind = kind_of(sk, old_state, new_state);
    if (kind == 0 || (wanted & (1U << kind)) == 0 || sk->sk_protocol != PROTOCOL_TCP)
        return 0;
    if (sk->__sk_common.skc_family != FAMILY_IPV4 && sk->__sk_common.skc_family != FAMILY_IPV6)
        return 0;
    if (has_process(kind)) {
        event = reserve(kind, sizeof(*event));
        if (!event)
            return 0;
        put_head(&event->head, sk, kind);
        put_process(&event->process);
        bpf_ringbuf_submit(event, wake_flags());
        return 0;
    }
    head = reserve(kind, sizeof(*head));
    if (!head)
        return 0;
    put_head(head, sk, kind);
    bpf_ringbuf_submit(head, wake_flags());
    return 0;
}
