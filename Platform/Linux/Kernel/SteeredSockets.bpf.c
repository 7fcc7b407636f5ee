// Follows the sockets of steered connections, those that the daemon has entered in `sockets`: tells it
// when one is established, let go by its application, or over, and sets its mark.
//
//   TCP before SYN     asks to hear of the socket's states, as it may come to be steered
//   TCP established    the mark, from here on; routing then needs no other packet rule
//   TCP closed         the error that the application gets, if any
//   release            before the states change: tells an application's close from a network's end
//
// A socket whose attempt ends stands in `endedBefore` until the next attempt, as the daemon may enter it only then: it is
// noted there first and looked for in `sockets` then, and the daemon does both the other way round.
//
// The entry says what is so; an event says only which one to look at, so that one that is lost for
// want of room does no more harm than a look at all of them.
#include <linux/bpf.h>

#include <bpf/bpf_core_read.h>
#include <bpf/bpf_helpers.h>

#include "KernelTypes.h"
#include "SteeredSockets.h"

const char licence[] SEC("license") = "Dual MIT/GPL";

// The network namespace that is looked at; set before the programs are loaded.
const volatile __u64 ourNetwork = 0;

// How many events found no room.
__u64 lostEvents = 0;

enum {
    TCP = 6,
    GOES_ON = 1,
    SOCKET_LEVEL = 1,  // SOL_SOCKET
    MARK_OPTION = 36,  // SO_MARK
};

struct {
    __uint(type, BPF_MAP_TYPE_HASH);
    __uint(map_flags, BPF_F_NO_PREALLOC);
    __uint(max_entries, 262144);
    __type(key, __u64);
    __type(value, struct SteeredSocket);
} sockets SEC(".maps");

struct {
    __uint(type, BPF_MAP_TYPE_LRU_HASH);
    __uint(max_entries, 8192);
    __type(key, __u64);
    __type(value, __u32);
} endedBefore SEC(".maps");

struct {
    __uint(type, BPF_MAP_TYPE_RINGBUF);
    __uint(max_entries, 262144);
} events SEC(".maps");

static __always_inline void tell(__u64 cookie) {
    if (bpf_ringbuf_output(&events, &cookie, sizeof cookie, 0) != 0)
        __sync_fetch_and_add(&lostEvents, 1);
}

__u64 order = 0;

// The entry of a socket that ends; null if the daemon has made none, and then it finds out when it does.
static __always_inline struct SteeredSocket* entryOfEnding(__u64 cookie, __u32 stateBefore) {
    if (stateBefore != BPF_TCP_SYN_SENT && stateBefore != BPF_TCP_SYN_RECV)
        return bpf_map_lookup_elem(&sockets, &cookie);
    const __u32 set = 1;
    bpf_map_update_elem(&endedBefore, &cookie, &set, BPF_ANY);
    // What is written above is there for all before what follows is read.
    __u64 before = __sync_fetch_and_add(&order, 1);
    barrier_var(before);
    return bpf_map_lookup_elem(&sockets, &cookie);
}

static __always_inline void established(struct bpf_sock_ops* hook, __u64 cookie,
                                        struct SteeredSocket* socket) {
    if (hook->sk && socket->mask) {
        int mark = (hook->sk->mark & ~socket->mask) | socket->mark;
        bpf_setsockopt(hook, SOCKET_LEVEL, MARK_OPTION, &mark, sizeof mark);
    }
    socket->isEstablished = 1;
    tell(cookie);
}

static __always_inline void closed(struct bpf_sock_ops* hook, __u64 cookie,
                                   struct SteeredSocket* socket) {
    struct tcp_sock* connection = hook->sk ? bpf_skc_to_tcp_sock(hook->sk) : 0;
    // What the network says to an orphan concerns no one.
    if (connection && !socket->isReleased)
        socket->error = connection->inet_conn.icsk_inet.sk.sk_err;
    socket->isClosed = 1;
    tell(cookie);
}

SEC("sockops") int followConnection(struct bpf_sock_ops* hook) {
    const int isConnecting = hook->op == BPF_SOCK_OPS_TCP_CONNECT_CB;
    // Passive also where two openings cross. An accepted socket is not one of ours.
    const int isEstablished = hook->op == BPF_SOCK_OPS_ACTIVE_ESTABLISHED_CB ||
                              hook->op == BPF_SOCK_OPS_PASSIVE_ESTABLISHED_CB;
    const int isOver = hook->op == BPF_SOCK_OPS_STATE_CB && hook->args[1] == BPF_TCP_CLOSE;
    if (!isConnecting && !isEstablished && !isOver) return GOES_ON;
    if (bpf_get_netns_cookie(hook) != ourNetwork) return GOES_ON;
    __u64 cookie = bpf_get_socket_cookie(hook);
    if (isConnecting) {
        // An attempt before this one may have failed.
        bpf_map_delete_elem(&endedBefore, &cookie);
        bpf_sock_ops_cb_flags_set(hook, hook->bpf_sock_ops_cb_flags | BPF_SOCK_OPS_STATE_CB_FLAG);
        return GOES_ON;
    }
    struct SteeredSocket* socket = isOver ? entryOfEnding(cookie, hook->args[0])
                                          : bpf_map_lookup_elem(&sockets, &cookie);
    if (!socket) return GOES_ON;
    if (isEstablished)
        established(hook, cookie, socket);
    else
        closed(hook, cookie, socket);
    return GOES_ON;
}

SEC("cgroup/sock_release") int followRelease(struct bpf_sock* hook) {
    if (hook->protocol != TCP || bpf_get_netns_cookie(hook) != ourNetwork) return GOES_ON;
    __u64 cookie = bpf_get_socket_cookie(hook);
    struct SteeredSocket* socket = entryOfEnding(cookie, hook->state);
    if (!socket) return GOES_ON;
    socket->isReleased = 1;
    tell(cookie);
    return GOES_ON;
}
