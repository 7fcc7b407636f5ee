// The few fields of the kernel's own structures that the programs read. Where they lie is found out
// when the programs are loaded, from the running kernel's description of its types.
#pragma once

#include <linux/types.h>

#pragma clang attribute push(__attribute__((preserve_access_index)), apply_to = record)

typedef struct {
    unsigned int val;
} kuid_t;

struct qstr {
    const unsigned char* name;
};

struct dentry {
    struct dentry* d_parent;
    struct qstr d_name;
};

struct vfsmount {
    struct dentry* mnt_root;
};

struct mount {
    struct mount* mnt_parent;
    struct dentry* mnt_mountpoint;
    struct vfsmount mnt;
};

struct path {
    struct vfsmount* mnt;
    struct dentry* dentry;
};

struct super_block {
    __u32 s_dev;
};

struct inode {
    kuid_t i_uid;
    struct super_block* i_sb;
    unsigned long i_ino;
    __u32 i_generation;
};

struct file {
    struct path f_path;
    struct inode* f_inode;
};

struct mm_struct {
    struct file* exe_file;
};

struct cred {
    kuid_t euid;
};

struct kernfs_node {
    struct kernfs_node* parent;
    const char* name;
    __u64 id;
};

// Since Linux 6.15.
struct kernfs_node___renamed {
    struct kernfs_node___renamed* __parent;
};

struct cgroup {
    struct kernfs_node* kn;
};

struct css_set {
    struct cgroup* dfl_cgrp;
};

struct task_struct {
    unsigned int flags;
    struct mm_struct* mm;
    int tgid;
    struct task_struct* real_parent;
    struct task_struct* group_leader;
    __u64 start_boottime;
    const struct cred* cred;
    struct css_set* cgroups;
    __u64 self_exec_id;
};

struct sock_common {
    __u16 skc_num;
};

struct sock {
    struct sock_common __sk_common;
    int sk_err;
};

struct ipv6_pinfo {
    void* opt;
};

struct inet_sock {
    struct sock sk;
    struct ipv6_pinfo* pinet6;
    void* inet_opt;
};

struct inet_connection_sock {
    struct inet_sock icsk_inet;
};

struct tcp_sock {
    struct inet_connection_sock inet_conn;
};

#pragma clang attribute pop
