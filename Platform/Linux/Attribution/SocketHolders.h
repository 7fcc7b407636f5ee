// Finds the process that holds a socket, by the socket's inode, in the descriptor tables below /proc.
// The few places where it usually is come first: processes that were found lately, at descriptors
// near their last one, then the youngest processes; only after those come all processes of the
// socket's account, then all others. Any thread; nothing is locked during a search.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <optional>
#include <vector>

namespace platform {

struct SocketHolder {
    pid_t pid = 0;
    int descriptor = -1;
};

// True if the process has the socket at this descriptor.
bool holdsSocket(const SocketHolder& holder, std::uint32_t inode);

class SocketHolders {
public:
    std::optional<SocketHolder> find(std::uint32_t inode, uid_t uid);

private:
    struct Recent {
        uid_t uid = 0;
        SocketHolder holder;
    };

    std::vector<SocketHolder> recentOf(uid_t uid);
    void remember(uid_t uid, const SocketHolder& holder);

    std::mutex lock;             // guards `recent`; held for table work only
    std::vector<Recent> recent;  // the latest first
};

}  // namespace platform
