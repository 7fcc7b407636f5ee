// The descriptors that are kept for verdicts: to find out whose a flow is takes a few for a moment,
// and a flow whose owner cannot be found passes. What holds descriptors for long, and can do with
// fewer, asks here first. Any thread.
#pragma once

namespace platform {

class DescriptorReserve {
public:
    // True if the descriptor, the newest of its owner, has been taken from the reserve. The kernel
    // gives the lowest free number, which tells how many are taken at least.
    static bool holds(int descriptor);
};

}  // namespace platform
