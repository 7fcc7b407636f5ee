// The mark on the daemon's own connections, by which the interception's rules know never to offer
// them to the extension, and routing may send them beside the tunnel. One place for all: the
// interception says what it is before the first connection is made, every connection asks. When it changes, the
// sockets that bear the one before get the new one.
// Any thread.
#pragma once

#include <atomic>
#include <cstdint>

namespace platform {

class OwnTraffic {
public:
    // The mark to set on a socket (SO_MARK); 0, as long as nothing was said, is none.
    static std::uint32_t mark() { return value.load(std::memory_order_relaxed); }
    static void setMark(std::uint32_t mark);

private:
    static inline std::atomic<std::uint32_t> value{0};
};

}  // namespace platform
