// Notes who connects or sends through which socket, at the moment when it is done, so that a flow's
// first packet can be attributed also when the process or its socket is gone by then. The programs run
// for every process of the machine, touch nothing, and return at once for sockets of other network
// namespaces.
//
//   connect, sendmsg   `notes` by the socket's cookie: the process, its program and its ancestors
//   these of datagrams `ports` by the local port as well: the last sender, whose socket may be one of
//                      several on the port; and `sendings` by port and destination: the cookie
//   TCP before SYN     `connections` by the tuple: the cookie
//   release            the socket's entries go; a datagram's stay in `ports`, marked as closed, as
//                      its packet may still wait
//   TCP given up       `abandoned` by the tuple: what was noted, for the same reason
//
// No account can push out the notes of another one's open sockets and datagrams: the first are limited
// for each account, and `ports` has room for every port. `abandoned` keeps the newest, which is enough as
// long as its packet waits, and so does `sendings`: what it has no more is found by the port.
#include <linux/bpf.h>

#include <bpf/bpf_core_read.h>
#include <bpf/bpf_endian.h>
#include <bpf/bpf_helpers.h>

#include "KernelTypes.h"
#include "SocketNotes.h"

const char licence[] SEC("license") = "Dual MIT/GPL";

// The network namespace that is looked at; set before the programs are loaded.
const volatile __u64 ourNetwork = 0;

enum {
    KERNEL_THREAD = 0x00200000,  // PF_KTHREAD

    IPV6 = 10,
    TCP = 6,
    UDP = 17,
    GOES_ON = 1,
    DEEPEST_PATH = 64,
};
static const __u64 pathLifetime = 10 * 1000000000ULL;

struct {
    __uint(type, BPF_MAP_TYPE_HASH);
    __uint(map_flags, BPF_F_NO_PREALLOC);
    __uint(max_entries, 262144);
    __type(key, __u64);
    __type(value, struct KernelNote);
} notes SEC(".maps");

struct {
    __uint(type, BPF_MAP_TYPE_HASH);
    __uint(map_flags, BPF_F_NO_PREALLOC);
    __uint(max_entries, 65536);
    __type(key, __u32);
    __type(value, struct KernelNote);
} ports SEC(".maps");

struct {
    __uint(type, BPF_MAP_TYPE_HASH);
    __uint(map_flags, BPF_F_NO_PREALLOC);
    __uint(max_entries, 262144);
    __type(key, struct KernelTuple);
    __type(value, __u64);
} connections SEC(".maps");

struct {
    __uint(type, BPF_MAP_TYPE_LRU_HASH);
    __uint(max_entries, 8192);
    __type(key, struct KernelTuple);
    __type(value, struct KernelNote);
} abandoned SEC(".maps");

struct {
    __uint(type, BPF_MAP_TYPE_LRU_HASH);
    __uint(max_entries, 16384);
    __type(key, struct KernelTuple);
    __type(value, __u64);
} sendings SEC(".maps");

// How many sockets of an account are noted.
struct {
    __uint(type, BPF_MAP_TYPE_HASH);
    __uint(map_flags, BPF_F_NO_PREALLOC);
    __uint(max_entries, 65536);
    __type(key, __u32);
    __type(value, __s64);
} accounts SEC(".maps");

struct {
    __uint(type, BPF_MAP_TYPE_LRU_HASH);
    __uint(max_entries, 2048);
    __type(key, struct KernelFile);
    __type(value, struct KernelPath);
} paths SEC(".maps");

struct {
    __uint(type, BPF_MAP_TYPE_LRU_HASH);
    __uint(max_entries, 1024);
    __type(key, __u64);
    __type(value, struct KernelGroup);
} groups SEC(".maps");

// These entries are filled in place: they are larger than a program's stack.
static const struct KernelPath blankPath;
static const struct KernelGroup blankGroup;

// The two that follow are no static functions, so that the kernel checks their loops once and not for
// each way that leads there; they take addresses as numbers.
__noinline int writePath(struct KernelPath* path, __u64 ofDentry, __u64 ofMount) {
    if (!path) return 0;
    struct dentry* dentry = (void*)ofDentry;
    struct mount* mount = (void*)ofMount - bpf_core_field_offset(struct mount, mnt);
    __u32 at = 0;
    path->isComplete = 0;
    for (int step = 0; step < DEEPEST_PATH && at < KERNEL_PATH_SIZE; ++step) {
        struct dentry* parent = BPF_CORE_READ(dentry, d_parent);
        if (dentry == BPF_CORE_READ(mount, mnt.mnt_root)) {
            struct mount* around = BPF_CORE_READ(mount, mnt_parent);
            if (around == mount) {
                path->isComplete = 1;
                break;
            }
            dentry = BPF_CORE_READ(mount, mnt_mountpoint);
            mount = around;
            continue;
        }
        if (!parent || parent == dentry) break;
        // Both masks are for the kernel's check of the program (6.1), which keeps no bound from the loop's
        // condition, and takes rounds for equal only where the bits are. The compiler must not leave them out.
        barrier_var(at);
        long length =
            bpf_probe_read_kernel_str(&path->names[at & (KERNEL_PATH_SIZE - 1)], KERNEL_NAME_SIZE,
                                      BPF_CORE_READ(dentry, d_name.name));
        if (length <= 0) break;
        at = (at + length) & (2 * KERNEL_PATH_SIZE - 1);
        dentry = parent;
    }
    path->length = at;
    path->time = bpf_ktime_get_boot_ns();
    return 0;
}

static __always_inline void notePath(const struct file* file, const struct KernelFile* key) {
    struct KernelPath* path = bpf_map_lookup_elem(&paths, key);
    if (path && bpf_ktime_get_boot_ns() - path->time < pathLifetime) return;
    if (!path) {
        bpf_map_update_elem(&paths, key, &blankPath, BPF_NOEXIST);
        path = bpf_map_lookup_elem(&paths, key);
    }
    if (!path) return;
    writePath(path, (__u64)BPF_CORE_READ(file, f_path.dentry),
              (__u64)BPF_CORE_READ(file, f_path.mnt));
}

__noinline int writeGroup(struct KernelGroup* group, __u64 ofNode) {
    if (!group) return 0;
    struct kernfs_node* node = (void*)ofNode;
    for (int level = 0; level < KERNEL_GROUP_LEVELS && node; ++level) {
        bpf_probe_read_kernel_str(group->names[level], KERNEL_GROUP_NAME_SIZE,
                                  BPF_CORE_READ(node, name));
        if (bpf_core_field_exists(node->parent)) {
            node = BPF_CORE_READ(node, parent);
        } else {
            node = (void*)BPF_CORE_READ((struct kernfs_node___renamed*)node, __parent);
        }
    }
    return 0;
}

static __always_inline __u64 noteGroup(const struct task_struct* task) {
    struct kernfs_node* node = BPF_CORE_READ(task, cgroups, dfl_cgrp, kn);
    if (!node) return 0;
    __u64 id = BPF_CORE_READ(node, id);
    if (!bpf_map_lookup_elem(&groups, &id)) {
        bpf_map_update_elem(&groups, &id, &blankGroup, BPF_NOEXIST);
        struct KernelGroup* names = bpf_map_lookup_elem(&groups, &id);
        if (names) writeGroup(names, (__u64)node);
    }
    return id;
}

static __always_inline void noteExecutable(struct KernelProgram* program,
                                           const struct task_struct* task) {
    program->executable = (struct KernelFile){};
    struct file* file = BPF_CORE_READ(task, mm, exe_file);
    if (!file) return;
    struct inode* inode = BPF_CORE_READ(file, f_inode);
    if (!inode) return;
    struct KernelFile key = {BPF_CORE_READ(inode, i_ino), BPF_CORE_READ(inode, i_sb, s_dev),
                             BPF_CORE_READ(inode, i_generation)};
    program->executable = key;
    program->executableOwner = BPF_CORE_READ(inode, i_uid.val);
    notePath(file, &key);
}

// 1 if the task could be read. Checked by the kernel once, too: inlined, the ways through a task multiply
// with those through each of its ancestors, and loading the programs takes seconds.
__noinline int noteProgram(struct KernelProgram* program, __u64 ofTask) {
    if (!program) return 0;
    const struct task_struct* task = (void*)ofTask;
    const struct task_struct* leader = BPF_CORE_READ(task, group_leader);
    if (!leader || !BPF_CORE_READ(task, cred)) return 0;
    program->pid = BPF_CORE_READ(task, tgid);
    program->effectiveUserId = BPF_CORE_READ(task, cred, euid.val);
    program->started = BPF_CORE_READ(leader, start_boottime);
    program->execs = BPF_CORE_READ(task, self_exec_id);
    program->controlGroup = noteGroup(task);
    noteExecutable(program, task);
    return 1;
}

static __always_inline void notePrograms(struct KernelNote* note) {
    const struct task_struct* task = (void*)bpf_get_current_task();
    __u32 count = 0;
    for (; count < KERNEL_NOTE_PROGRAMS; ++count) {
        if (!task || (count > 0 && BPF_CORE_READ(task, tgid) <= 1)) break;
        if (!noteProgram(&note->programs[count], (__u64)task)) break;
        task = BPF_CORE_READ(task, group_leader, real_parent);
    }
    note->programCount = count;
}

static __always_inline __s64* countOf(__u32 account) {
    __s64* count = bpf_map_lookup_elem(&accounts, &account);
    if (count) return count;
    __s64 none = 0;
    bpf_map_update_elem(&accounts, &account, &none, BPF_NOEXIST);
    return bpf_map_lookup_elem(&accounts, &account);
}

// A note is replaced as a whole, so that the daemon never reads halves of two.
static __always_inline int keepNote(const struct KernelNote* note) {
    if (!bpf_map_update_elem(&notes, &note->cookie, note, BPF_EXIST)) return 1;
    __s64* count = countOf(note->programs[0].effectiveUserId);
    if (!count || *count >= KERNEL_NOTES_OF_ACCOUNT) return 0;
    if (bpf_map_update_elem(&notes, &note->cookie, note, BPF_NOEXIST)) return 0;
    __sync_fetch_and_add(count, 1);
    return 1;
}

static __always_inline void removeNote(__u64 cookie, __u32 account) {
    if (bpf_map_delete_elem(&notes, &cookie)) return;
    __s64* count = bpf_map_lookup_elem(&accounts, &account);
    if (count) __sync_fetch_and_add(count, -1);
}

static __always_inline void setIPv4(__u32* words, __u32 address) {
    words[0] = 0;
    words[1] = 0;
    words[2] = bpf_htonl(0xffff);
    words[3] = address;
}

static __always_inline void setDestination(struct KernelNote* note, struct bpf_sock_addr* hook,
                                           int isIPv6) {
    if (isIPv6) {
        note->tuple.remote[0] = hook->user_ip6[0];
        note->tuple.remote[1] = hook->user_ip6[1];
        note->tuple.remote[2] = hook->user_ip6[2];
        note->tuple.remote[3] = hook->user_ip6[3];
    } else {
        setIPv4(note->tuple.remote, hook->user_ip4);
    }
    note->tuple.remotePort = bpf_ntohs((__u16)hook->user_port);
    note->time = bpf_ktime_get_boot_ns();
}

static __always_inline void fillNote(struct KernelNote* note, __u64 cookie, __u16 port,
                                     struct bpf_sock_addr* hook, int isIPv6) {
    note->cookie = cookie;
    note->closed = 0;
    note->boundDevice = hook->sk ? hook->sk->bound_dev_if : 0;
    note->tuple.protocol = hook->protocol;
    note->tuple.localPort = port;
    setDestination(note, hook, isIPv6);
    notePrograms(note);
}

// True if the note is of the same socket and of the same program in the same place.
static __always_inline int isUpToDate(const struct KernelNote* note, __u64 cookie,
                                      struct task_struct* task) {
    const struct KernelProgram* user = &note->programs[0];
    return note->cookie == cookie && user->pid == (__u32)task->tgid &&
           user->execs == (__u32)task->self_exec_id &&
           user->controlGroup == bpf_get_current_cgroup_id();
}

static __always_inline int isLookedAt(struct task_struct* task) {
    return task && !(task->flags & KERNEL_THREAD);
}

// The other sockets on the port may send before the packet gets its verdict.
static __always_inline void noteSending(const struct KernelTuple* tuple, __u64 cookie) {
    __u64* known = bpf_map_lookup_elem(&sendings, tuple);
    if (!known || *known != cookie) bpf_map_update_elem(&sendings, tuple, &cookie, BPF_ANY);
}

static __always_inline int noteConnect(struct bpf_sock_addr* hook, int isIPv6) {
    if (bpf_get_netns_cookie(hook) != ourNetwork) return GOES_ON;
    struct task_struct* task = bpf_get_current_task_btf();
    if (!isLookedAt(task)) return GOES_ON;
    struct KernelNote note = {};
    __u32 port = hook->sk ? hook->sk->src_port : 0;
    __u64 cookie = bpf_get_socket_cookie(hook);
    fillNote(&note, cookie, port, hook, isIPv6);
    keepNote(&note);
    if (!port || hook->protocol != UDP) return GOES_ON;
    bpf_map_update_elem(&ports, &port, &note, BPF_ANY);
    noteSending(&note.tuple, cookie);
    return GOES_ON;
}

static __always_inline int noteSend(struct bpf_sock_addr* hook, int isIPv6) {
    if (bpf_get_netns_cookie(hook) != ourNetwork || hook->protocol != UDP) return GOES_ON;
    struct task_struct* task = bpf_get_current_task_btf();
    if (!isLookedAt(task)) return GOES_ON;
    __u64 cookie = bpf_get_socket_cookie(hook);
    __u32 port = hook->sk ? hook->sk->src_port : 0;
    struct KernelNote* sender = bpf_map_lookup_elem(&ports, &port);
    if (sender && isUpToDate(sender, cookie, task)) {
        sender->boundDevice = hook->sk ? hook->sk->bound_dev_if : 0;
        setDestination(sender, hook, isIPv6);
        struct KernelTuple tuple = sender->tuple;
        noteSending(&tuple, cookie);
        return GOES_ON;
    }
    struct KernelNote note = {};
    fillNote(&note, cookie, port, hook, isIPv6);
    keepNote(&note);
    bpf_map_update_elem(&ports, &port, &note, BPF_ANY);
    noteSending(&note.tuple, cookie);
    return GOES_ON;
}

SEC("cgroup/connect4") int noteConnect4(struct bpf_sock_addr* hook) { return noteConnect(hook, 0); }
SEC("cgroup/connect6") int noteConnect6(struct bpf_sock_addr* hook) { return noteConnect(hook, 1); }
SEC("cgroup/sendmsg4") int noteSend4(struct bpf_sock_addr* hook) { return noteSend(hook, 0); }
SEC("cgroup/sendmsg6") int noteSend6(struct bpf_sock_addr* hook) { return noteSend(hook, 1); }

// True if the socket's packets are sent to a stop on their way: by a source route or a routing header.
static __always_inline int hasRouteOfItsOwn(struct bpf_sock* socket) {
    struct tcp_sock* connection = socket ? bpf_skc_to_tcp_sock(socket) : 0;
    if (!connection) return 0;
    if (connection->inet_conn.icsk_inet.inet_opt) return 1;
    struct ipv6_pinfo* more = connection->inet_conn.icsk_inet.pinet6;
    return more && more->opt;
}

static __always_inline void noteTuple(struct bpf_sock_ops* hook, struct KernelNote* note,
                                      __u64 cookie) {
    const __u32 mapped = bpf_htonl(0xffff);
    struct KernelTuple* tuple = &note->tuple;
    const int isIPv6 =
        hook->family == IPV6 &&
        !(hook->remote_ip6[0] == 0 && hook->remote_ip6[1] == 0 && hook->remote_ip6[2] == mapped);
    if (isIPv6) {
        tuple->local[0] = hook->local_ip6[0];
        tuple->local[1] = hook->local_ip6[1];
        tuple->local[2] = hook->local_ip6[2];
        tuple->local[3] = hook->local_ip6[3];
        tuple->remote[0] = hook->remote_ip6[0];
        tuple->remote[1] = hook->remote_ip6[1];
        tuple->remote[2] = hook->remote_ip6[2];
        tuple->remote[3] = hook->remote_ip6[3];
    } else {
        setIPv4(tuple->local, hook->local_ip4);
        setIPv4(tuple->remote, hook->remote_ip4);
    }
    if (hasRouteOfItsOwn(hook->sk)) __builtin_memset(tuple->remote, 0, 16);
    tuple->localPort = hook->local_port;
    tuple->remotePort = bpf_ntohl(hook->remote_port);
    bpf_map_update_elem(&connections, tuple, &cookie, BPF_ANY);
}

static __always_inline void forgetConnection(__u64 cookie, const struct KernelNote* note) {
    __u64* connected = bpf_map_lookup_elem(&connections, &note->tuple);
    if (connected && *connected == cookie) bpf_map_delete_elem(&connections, &note->tuple);
    removeNote(cookie, note->programs[0].effectiveUserId);
}

static __always_inline void keepAbandoned(struct KernelNote* note) {
    note->closed = bpf_ktime_get_boot_ns();
    bpf_map_update_elem(&abandoned, &note->tuple, note, BPF_ANY);
}

SEC("sockops") int noteConnection(struct bpf_sock_ops* hook) {
    const int isConnecting = hook->op == BPF_SOCK_OPS_TCP_CONNECT_CB;
    const int isOver = hook->op == BPF_SOCK_OPS_STATE_CB && hook->args[1] == BPF_TCP_CLOSE;
    if (!isConnecting && !isOver) return GOES_ON;
    if (bpf_get_netns_cookie(hook) != ourNetwork) return GOES_ON;
    __u64 cookie = bpf_get_socket_cookie(hook);
    struct KernelNote* note = bpf_map_lookup_elem(&notes, &cookie);
    if (!note) return GOES_ON;
    if (isConnecting) {
        noteTuple(hook, note, cookie);
        // An attempt that fails leaves the socket open, and the kernel's own are never released.
        bpf_sock_ops_cb_flags_set(hook, hook->bpf_sock_ops_cb_flags | BPF_SOCK_OPS_STATE_CB_FLAG);
    } else {
        if (hook->args[0] == BPF_TCP_SYN_SENT) keepAbandoned(note);
        forgetConnection(cookie, note);
    }
    return GOES_ON;
}

// The datagrams of a closed socket may still wait for their verdict.
static __always_inline void markClosed(struct bpf_sock* hook, __u64 cookie,
                                       struct KernelNote* note) {
    const struct sock* socket = (const struct sock*)hook;
    __u32 port = BPF_CORE_READ(socket, __sk_common.skc_num);
    const __u64 now = bpf_ktime_get_boot_ns();
    struct KernelNote* sender = bpf_map_lookup_elem(&ports, &port);
    if (sender && sender->cookie == cookie) {
        sender->closed = now;
    } else if (note) {
        note->tuple.localPort = port;
        note->closed = now;
        bpf_map_update_elem(&ports, &port, note, BPF_ANY);
    }
}

static __always_inline int isOpening(struct bpf_sock* hook) {
    return hook->state == BPF_TCP_SYN_SENT;
}

SEC("cgroup/sock_release") int forgetSocket(struct bpf_sock* hook) {
    if (bpf_get_netns_cookie(hook) != ourNetwork) return GOES_ON;
    __u64 cookie = bpf_get_socket_cookie(hook);
    struct KernelNote* note = bpf_map_lookup_elem(&notes, &cookie);
    if (hook->protocol == UDP) markClosed(hook, cookie, note);
    if (hook->protocol == TCP && note && isOpening(hook)) keepAbandoned(note);
    if (note) forgetConnection(cookie, note);
    return GOES_ON;
}
