// One request to a service of this machine over its Unix socket, and its one reply: a connection each,
// the end of the request said by the end of writing. Waits for a bounded time. Any thread.
#pragma once

#include <chrono>
#include <string>
#include <string_view>
#include <variant>

#include "Platform/Linux/FileDescriptor.h"

namespace vantryhost {

// Which step failed, with its errno.
struct ExchangeFailure {
    enum class Step { connect, send, receive };
    Step step;
    int error;

    // The service is not there, as opposed to one that refuses or does not answer.
    bool isNotRunning() const;
    bool isNotPermitted() const;
};

// For a piece of the reply.
constexpr std::chrono::seconds usualWait{15};

// The reply; empty if the service closed the connection without one.
std::variant<std::string, ExchangeFailure> exchange(const char* socketPath,
                                                    std::string_view request,
                                                    std::chrono::seconds longestWait = usualWait);

// 0 once `socket` is connected to the Unix socket at `path`, else -1 with errno set.
int connectTo(const char* path, int socket);

}  // namespace vantryhost
