#include "Platform/Linux/Packets/HeldPacket.h"

#include <netinet/ip6.h>
#include <netinet/tcp.h>
#include <netinet/udp.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <string_view>

namespace platform::interception {

namespace {

using Bytes = std::span<const std::uint8_t>;

std::uint16_t read16(Bytes bytes, std::size_t offset) {
    return static_cast<std::uint16_t>(bytes[offset] << 8 | bytes[offset + 1]);
}
std::uint32_t read32(Bytes bytes, std::size_t offset) {
    return static_cast<std::uint32_t>(read16(bytes, offset)) << 16 | read16(bytes, offset + 2);
}

bool isExtensionHeader(int protocol) {
    return protocol == IPPROTO_HOPOPTS || protocol == IPPROTO_ROUTING ||
           protocol == IPPROTO_DSTOPTS;
}

// The last stop of an IPv4 source route that is not at its end.
void readSourceRoute(Bytes options, HeldPacket& into) {
    constexpr std::uint8_t endOfList = 0, noOperation = 1, looseRoute = 131, strictRoute = 137;
    while (!options.empty() && options[0] != endOfList) {
        if (options[0] == noOperation) {
            options = options.subspan(1);
            continue;
        }
        if (options.size() < 2 || options[1] < 2 || options[1] > options.size()) return;
        const Bytes option = options.first(options[1]);
        const bool isRoute = option[0] == looseRoute || option[0] == strictRoute;
        // The pointer counts from one; beyond the option's length no stop is left.
        if (isRoute && option.size() >= 7 && option[2] < option.size()) {
            into.finalDestination.emplace();
            std::ranges::copy(option.last(4), into.finalDestination->begin());
            return;
        }
        options = options.subspan(option.size());
    }
}

// The last stop of an IPv6 routing header that has some left: segment routing lists it first.
void readRoutingHeader(Bytes header, HeldPacket& into) {
    constexpr std::uint8_t segmentRouting = 4;
    constexpr std::size_t beforeList = 8, addressLength = 16;
    const std::uint8_t stopsLeft = header[3];
    if (stopsLeft == 0 || header.size() < beforeList + addressLength) return;
    const std::size_t stops = (header.size() - beforeList) / addressLength;
    const std::size_t last = header[2] == segmentRouting ? 0 : stops - 1;
    into.finalDestination.emplace();
    std::ranges::copy(header.subspan(beforeList + last * addressLength, addressLength),
                      into.finalDestination->begin());
}

// Each reads one header, fills what it tells, and gives the offset after it; 0 if it can't.
std::size_t readIPv4(Bytes packet, HeldPacket& into) {
    FlowTuple& flow = into.flow;
    constexpr std::size_t shortest = 20;
    constexpr std::uint16_t fragmentOffset = 0x1fff;
    if (packet.size() < shortest) return 0;
    const std::size_t length = std::size_t{packet[0] & 0x0fu} * 4;
    // A later fragment holds no ports.
    if (length < shortest || (read16(packet, 6) & fragmentOffset) != 0) return 0;
    flow.family = AF_INET;
    flow.protocol = packet[9];
    std::copy_n(packet.begin() + 12, 4, flow.sourceAddress.begin());
    std::copy_n(packet.begin() + 16, 4, flow.destinationAddress.begin());
    if (length > packet.size()) return 0;
    readSourceRoute(packet.subspan(shortest, length - shortest), into);
    return length;
}

std::size_t readIPv6(Bytes packet, HeldPacket& into) {
    FlowTuple& flow = into.flow;
    constexpr std::size_t fixedLength = 40;
    if (packet.size() < fixedLength) return 0;
    flow.family = AF_INET6;
    std::copy_n(packet.begin() + 8, 16, flow.sourceAddress.begin());
    std::copy_n(packet.begin() + 24, 16, flow.destinationAddress.begin());
    int protocol = packet[6];
    std::size_t offset = fixedLength;
    while (isExtensionHeader(protocol)) {
        if (packet.size() < offset + 8) return 0;
        const std::size_t length = (std::size_t{packet[offset + 1]} + 1) * 8;
        if (packet.size() < offset + length) return 0;
        if (protocol == IPPROTO_ROUTING) readRoutingHeader(packet.subspan(offset, length), into);
        protocol = packet[offset];
        offset += length;
    }
    flow.protocol = protocol;
    return offset;
}

std::size_t readNetwork(Bytes packet, HeldPacket& into) {
    switch (packet.empty() ? 0 : packet[0] >> 4) {
        case 4:
            return readIPv4(packet, into);
        case 6:
            return readIPv6(packet, into);
        default:
            return 0;
    }
}

std::size_t readTransport(Bytes packet, std::size_t offset, HeldPacket& into) {
    const std::size_t shortest = into.flow.protocol == IPPROTO_TCP ? 20 : 8;
    if (packet.size() < offset + shortest) return 0;
    into.flow.sourcePort = read16(packet, offset);
    into.flow.destinationPort = read16(packet, offset + 2);
    if (into.flow.protocol == IPPROTO_UDP) return offset + 8;
    const std::size_t length = (std::size_t{packet[offset + 12]} >> 4) * 4;
    if (length < shortest) return 0;
    into.tcpSequence = read32(packet, offset + 4);
    into.opensTcp = (packet[offset + 13] & TH_SYN) != 0;
    return offset + length;
}

}  // namespace

bool readHeaders(Bytes packet, std::size_t trueLength, HeldPacket& into) {
    const std::size_t transport = readNetwork(packet, into);
    if (transport == 0) return false;
    if (into.flow.protocol != IPPROTO_TCP && into.flow.protocol != IPPROTO_UDP) return false;
    const std::size_t payload = readTransport(packet, transport, into);
    if (payload == 0) return false;
    into.payloadLength = trueLength > payload ? trueLength - payload : 0;
    return true;
}

FlowTuple HeldPacket::asSent() const {
    FlowTuple sent = flow;
    if (finalDestination) sent.destinationAddress = *finalDestination;
    return sent;
}

bool SameFlow::operator()(const FlowTuple& left, const FlowTuple& right) const {
    return left.protocol == right.protocol && left.family == right.family &&
           left.sourcePort == right.sourcePort && left.destinationPort == right.destinationPort &&
           left.sourceAddress == right.sourceAddress &&
           left.destinationAddress == right.destinationAddress;
}

std::size_t FlowHash::operator()(const FlowTuple& flow) const {
    std::array<char, 38> key;
    std::memcpy(key.data(), flow.sourceAddress.data(), 16);
    std::memcpy(key.data() + 16, flow.destinationAddress.data(), 16);
    std::memcpy(key.data() + 32, &flow.sourcePort, 2);
    std::memcpy(key.data() + 34, &flow.destinationPort, 2);
    key[36] = static_cast<char>(flow.protocol);
    key[37] = static_cast<char>(flow.family);
    return std::hash<std::string_view>{}(std::string_view(key.data(), key.size()));
}

}  // namespace platform::interception
