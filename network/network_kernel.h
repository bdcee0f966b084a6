#pragma once

// The kernel's types of sockets, as far as the trace programs read them: see process/trace_kernel.h.
#include "process/trace_kernel.h"

#pragma clang attribute push(__attribute__((preserve_access_index)), apply_to = record)

struct in6_addr {
    __u8 bytes[16];
};

struct net {
    struct ns_common ns;
};

typedef struct {
    struct net* net;
} possible_net_t;

typedef enum { SS_CONNECTING = 2 } socket_state;

struct socket {
    socket_state state;
};

struct sock_common {
    __u32 skc_daddr, skc_rcv_saddr;
    __u16 skc_dport;
    unsigned short skc_family;
    possible_net_t skc_net;
    struct in6_addr skc_v6_daddr, skc_v6_rcv_saddr;
};

struct sock {
    struct sock_common __sk_common;
    int sk_err;
    struct socket* sk_socket;
    __u16 sk_protocol;
};

struct inet_sock {
    __u16 inet_sport;
};

#pragma clang attribute pop
