// Tells the daemon which datagram sockets are closed, by their cookies: what the kernel's table of connections
// holds of them would else be taken for the next socket's on the same port. The daemon counts what found no
// room.
#include <linux/bpf.h>

#include <bpf/bpf_helpers.h>

const char licence[] SEC("license") = "Dual MIT/GPL";

// The network namespace that is looked at; set before the program is loaded.
const volatile __u64 ourNetwork = 0;

// How many events found no room.
__u64 lostEvents = 0;

enum { UDP = 17, GOES_ON = 1 };

struct {
    __uint(type, BPF_MAP_TYPE_RINGBUF);
    __uint(max_entries, 262144);
} events SEC(".maps");

SEC("cgroup/sock_release") int tellOfClosed(struct bpf_sock* hook) {
    if (hook->protocol != UDP || bpf_get_netns_cookie(hook) != ourNetwork) return GOES_ON;
    __u64 cookie = bpf_get_socket_cookie(hook);
    if (bpf_ringbuf_output(&events, &cookie, sizeof cookie, 0) != 0)
        __sync_fetch_and_add(&lostEvents, 1);
    return GOES_ON;
}
