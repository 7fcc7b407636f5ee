// An address and port that a socket can connect to. A plain value.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdint>
#include <optional>
#include <string>

namespace platform {

struct SocketAddress {
    union {
        sockaddr any;
        sockaddr_in ipv4;
        sockaddr_in6 ipv6;
    };
    socklen_t length = 0;

    SocketAddress() : ipv6{} {}

    int family() const { return any.sa_family; }

    // A numeric address of either family, without a zone; nothing for any other text.
    static std::optional<SocketAddress> fromNumeric(const std::string& text, std::uint16_t port);
    // "This machine", whichever address of it, for `bind`. AF_INET or AF_INET6.
    static SocketAddress unspecified(int family, std::uint16_t port);
    // A copy of what a system call gave; nothing for a family that is neither.
    static std::optional<SocketAddress> from(const sockaddr& address);
};

}  // namespace platform
