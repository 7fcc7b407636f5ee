// Accepts connections on a listening socket, on all event loops at once: the loop that accepts one
// is the one that will serve it. When descriptors or memory run out it pauses and goes on by itself,
// while what has connected waits in the listener's queue.
#pragma once

#include <sys/socket.h>

#include <functional>
#include <memory>
#include <vector>

#include "Platform/Linux/FileDescriptor.h"

namespace platform {

class ConnectionAcceptor {
public:
    // Gets each connection, non-blocking, with its peer's address, on an event loop's thread;
    // calls overlap.
    using Handler = std::function<void(FileDescriptor connection, const sockaddr_storage& peer)>;

    // `listener` is non-blocking and listens; options that sockets inherit (`setRelayOptions`) are set on
    // it. Accepting goes on until this object goes; a call of the handler may then still be running.
    ConnectionAcceptor(FileDescriptor listener, Handler handler);
    ~ConnectionAcceptor();
    ConnectionAcceptor(const ConnectionAcceptor&) = delete;
    ConnectionAcceptor& operator=(const ConnectionAcceptor&) = delete;

private:
    class OnOneLoop;
    std::vector<std::shared_ptr<OnOneLoop>> accepting;
};

}  // namespace platform
