#pragma once

// The kernel's types, as far as the trace programs read them. Only names and types count: where a field lies is
// looked up in the running kernel's own description when the programs are loaded.
#include <linux/bpf.h>
#include <linux/types.h>
#include <stdbool.h>

#pragma clang attribute push(__attribute__((preserve_access_index)), apply_to = record)

typedef struct {
    unsigned int val;
} kuid_t;

typedef struct {
    unsigned int val;
} kgid_t;

typedef struct {
    int counter;
} atomic_t;

struct ns_common {
    unsigned int inum;
};

struct mnt_namespace {
    struct ns_common ns;
};

struct pid_namespace {
    struct ns_common ns;
};

struct nsproxy {
    struct mnt_namespace* mnt_ns;
};

struct upid {
    int nr;
    struct pid_namespace* ns;
};

struct pid {
    unsigned int level;
    struct upid numbers[1];
};

struct cred {
    kuid_t uid, euid;
    kgid_t gid, egid;
};

struct kernfs_node {
    __u64 id;
};

struct cgroup {
    struct kernfs_node* kn;
};

struct css_set {
    struct cgroup* dfl_cgrp;
};

struct qstr {
    const unsigned char* name;
};

struct inode {
    unsigned short i_mode;
    unsigned int i_nlink;
    unsigned long i_ino;
};

struct dentry {
    struct qstr d_name;
};

struct path {
    struct dentry* dentry;
};

struct file {
    struct inode* f_inode;
    struct path f_path;
};

struct mm_struct {
    unsigned long arg_start, arg_end;
    struct file* exe_file;
};

struct signal_struct {
    atomic_t live;
    int nr_threads;
    unsigned int flags;
    int group_exit_code;
};

struct task_struct {
    int pid, tgid, exit_code;
    __u64 start_boottime;
    struct task_struct *real_parent, *group_leader;
    const struct cred* cred;
    struct mm_struct* mm;
    struct nsproxy* nsproxy;
    struct pid* thread_pid;
    struct css_set* cgroups;
    struct signal_struct* signal;
    kuid_t loginuid;
    unsigned int sessionid;
    char comm[16];
};

struct linux_binprm {
    const char *filename, *interp;
    int argc;
};

#pragma clang attribute pop
