// One outbound flow as its first packet shows it, before any address translation.
#pragma once

#include <array>
#include <cstdint>

namespace platform {

struct FlowTuple {
    int protocol = 0;  // IPPROTO_TCP or IPPROTO_UDP
    int family = 0;    // AF_INET or AF_INET6: the packet's, whatever the socket's is
    std::array<std::uint8_t, 16> sourceAddress{};  // network byte order; IPv4 in the first four
    std::array<std::uint8_t, 16> destinationAddress{};  // likewise
    std::uint16_t sourcePort = 0;                       // host byte order
    std::uint16_t destinationPort = 0;                  // host byte order
    unsigned int outputInterface = 0;  // index; it finds sockets that are bound to a device
};

}  // namespace platform
