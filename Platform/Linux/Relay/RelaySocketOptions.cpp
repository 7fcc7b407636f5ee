#include "Platform/Linux/Relay/RelaySocketOptions.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

namespace platform {

void setRelayOptions(const FileDescriptor& socket) {
    struct Option {
        int level, name, value;
    };
    constexpr Option options[] = {
        {IPPROTO_TCP, TCP_NODELAY, 1},
        // Urgent bytes stay in their place in the stream.
        {SOL_SOCKET, SO_OOBINLINE, 1},
        {SOL_SOCKET, SO_KEEPALIVE, 1},
        {IPPROTO_TCP, TCP_KEEPIDLE, 120},
        {IPPROTO_TCP, TCP_KEEPINTVL, 15},
        {IPPROTO_TCP, TCP_KEEPCNT, 8},
    };
    for (const Option& option : options)
        ::setsockopt(socket.get(), option.level, option.name, &option.value, sizeof option.value);
}

}  // namespace platform
