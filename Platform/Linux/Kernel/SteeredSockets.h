// What the programs in the kernel tell of the sockets of steered connections: a plain structure of the
// same layout in C and C++.
#pragma once

#include <linux/types.h>

// By the socket's cookie. The daemon makes the entry before the connection's first packet leaves, and
// removes it; the programs fill in the rest. A field once set stays so.
struct SteeredSocket {
    __u32 attempt;  // which of the socket's attempts to connect it is about: the daemon's number
    __u32 mark;     // put into the bits of `mask` of the socket's own mark when it is established
    __u32 mask;
    __u32 isEstablished;
    __u32 isReleased;  // the application has closed its last descriptor
    __u32 isClosed;    // the connection is over, or was never there
    __s32 error;       // why, as the application is told; 0 for an orderly end, or if no one is
};
