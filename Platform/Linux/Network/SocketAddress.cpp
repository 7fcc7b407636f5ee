#include "Platform/Linux/Network/SocketAddress.h"

#include <arpa/inet.h>

#include <cstring>

namespace platform {

std::optional<SocketAddress> SocketAddress::fromNumeric(const std::string& text,
                                                        std::uint16_t port) {
    SocketAddress address;
    if (::inet_pton(AF_INET, text.c_str(), &address.ipv4.sin_addr) == 1) {
        address.ipv4.sin_family = AF_INET;
        address.ipv4.sin_port = htons(port);
        address.length = sizeof address.ipv4;
        return address;
    }
    if (::inet_pton(AF_INET6, text.c_str(), &address.ipv6.sin6_addr) == 1) {
        address.ipv6.sin6_family = AF_INET6;
        address.ipv6.sin6_port = htons(port);
        address.length = sizeof address.ipv6;
        return address;
    }
    return std::nullopt;
}

SocketAddress SocketAddress::unspecified(int family, std::uint16_t port) {
    SocketAddress address;
    address.any.sa_family = static_cast<sa_family_t>(family);
    if (family == AF_INET)
        address.ipv4.sin_port = htons(port);
    else
        address.ipv6.sin6_port = htons(port);
    address.length = family == AF_INET ? sizeof address.ipv4 : sizeof address.ipv6;
    return address;
}

std::optional<SocketAddress> SocketAddress::from(const sockaddr& given) {
    SocketAddress address;
    if (given.sa_family == AF_INET)
        address.length = sizeof address.ipv4;
    else if (given.sa_family == AF_INET6)
        address.length = sizeof address.ipv6;
    else
        return std::nullopt;
    std::memcpy(&address.any, &given, address.length);
    return address;
}

}  // namespace platform
