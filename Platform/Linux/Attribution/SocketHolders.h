// Finds the process that holds a socket, by the socket's inode, in the descriptor tables below /proc.
// To look at a descriptor takes a microsecond or two, so the few places where a new socket usually is
// come first: where processes that were found lately had their sockets, and where a process has them
// that has just started. Only after those come whole tables: of such processes, of all processes of
// the socket's account, of all others; and what else they show is remembered. Any thread; nothing is locked
// during a search.
#pragma once

#include <sys/types.h>

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "Platform/Common/Mutex.h"
#include "Platform/Linux/Attribution/RecentMemory.h"

namespace platform {

struct SocketHolder {
    pid_t pid = 0;
    int descriptor = -1;
};

// True if the process has the socket at this descriptor.
bool holdsSocket(const SocketHolder& holder, std::uint32_t inode);

// A process that was found lately.
struct SocketOpener {
    static constexpr std::size_t capacity = 24;

    pid_t pid = 0;
    uid_t uid = 0;
    std::size_t count = 0;
    std::array<int, capacity> descriptors{};  // at which it was found, the latest first

    void addDescriptor(int descriptor);
};

class SocketHolders {
public:
    // `uid` is the account that made the socket. Null if no process holds it.
    std::optional<SocketHolder> find(std::uint32_t inode, uid_t uid);

private:
    using Clock = std::chrono::steady_clock;

    std::vector<SocketOpener> openersOf(uid_t uid);
    void remember(uid_t uid, const SocketHolder& holder);
    std::vector<pid_t> youngProcessesOf(uid_t uid);
    bool isYoung(pid_t pid);

    Mutex lock;                                          // held for table work only
    std::vector<SocketOpener> openers GUARDED_BY(lock);  // the latest first
    RecentMemory<pid_t, Clock::time_point> firstSeen{1024};
    // By inode, what tables have shown of sockets that were not looked for. Each is looked at again when it is.
    RecentMemory<std::uint32_t, SocketHolder> sightings{65536};
};

}  // namespace platform
