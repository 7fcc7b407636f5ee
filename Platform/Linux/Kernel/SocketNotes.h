// What the programs in the kernel note, as they and the daemon read it: plain structures of the same
// layout in C and C++. Addresses are in network byte order, IPv4 ones written as IPv6 does
// (::ffff:a.b.c.d); ports are in host byte order, times in nanoseconds since boot.
#pragma once

#include <linux/types.h>

enum {
    KERNEL_NOTE_PROGRAMS = 6,         // a process and its nearest ancestors
    KERNEL_NOTES_OF_ACCOUNT = 65536,  // open sockets of one account that are noted
    KERNEL_PATH_SIZE = 1024,          // longer paths are not noted
    KERNEL_NAME_SIZE = 256,
    KERNEL_GROUP_LEVELS = 4,
    KERNEL_GROUP_NAME_SIZE = 128,
};

// A file by what its file system calls it; the key of KernelPath.
struct KernelFile {
    __u64 inode;
    __u32 device;      // as the kernel encodes it: major << 20 | minor
    __u32 generation;  // differs when an inode number is given to another file
};

// One program in one process.
struct KernelProgram {
    __u32 pid;
    __u32 effectiveUserId;
    __u64 started;
    struct KernelFile executable;
    __u32 executableOwner;
    __u32 execs;  // how often the process has started another program
    __u64 controlGroup;
};

struct KernelTuple {
    __u32 local[4];   // zero for datagrams: their sockets often have no address
    __u32 remote[4];  // zero for connections over a route of their own: packets name its next stop
    __u16 localPort;  // 0 as long as there is none
    __u16 remotePort;
    __u32 protocol;
};

// Who last connected a socket, or sent through it to an address.
struct KernelNote {
    __u64 cookie;
    __u64 time;
    __u64 closed;  // when the socket was closed, 0 before
    struct KernelTuple tuple;
    __u32 boundDevice;
    __u32 programCount;
    struct KernelProgram programs[KERNEL_NOTE_PROGRAMS];  // each followed by its parent
};

// The path of an executable: its components from the last to the first, a NUL after each.
struct KernelPath {
    __u64 time;
    __u32 length;
    __u32 isComplete;
    char names[KERNEL_PATH_SIZE + KERNEL_NAME_SIZE];
};

// The names of a control group and of those around it, the innermost first; empty where there are
// no more.
struct KernelGroup {
    char names[KERNEL_GROUP_LEVELS][KERNEL_GROUP_NAME_SIZE];
};
