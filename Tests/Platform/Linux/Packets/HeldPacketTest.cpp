#include "Platform/Linux/Packets/HeldPacket.h"

#include <gtest/gtest.h>
#include <netinet/tcp.h>

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

namespace platform::interception {

namespace {

using Bytes = std::vector<std::uint8_t>;

Bytes operator+(Bytes left, const Bytes& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

Bytes ipv4(std::uint8_t protocol, std::uint8_t words = 5) {
    Bytes header(words * 4u);
    header[0] = static_cast<std::uint8_t>(0x40 | words);
    header[9] = protocol;
    header[12] = 10;
    header[16] = 20;
    return header;
}
Bytes ipv6(std::uint8_t next) {
    Bytes header(40);
    header[0] = 0x60;
    header[6] = next;
    header[8] = 0xfd;
    header[24] = 0xfe;
    return header;
}
Bytes extension(std::uint8_t next, std::uint8_t extraWords) {
    Bytes header(8u + extraWords * 8u);
    header[0] = next;
    header[1] = extraWords;
    return header;
}
Bytes tcp(std::uint8_t flags, std::uint8_t words = 5) {
    Bytes header(words * 4u);
    header[0] = 0x12;
    header[1] = 0x34;
    header[3] = 80;
    header[4] = 0xff;
    header[7] = 0x01;
    header[12] = static_cast<std::uint8_t>(words << 4);
    header[13] = flags;
    return header;
}
Bytes udp() { return {0x12, 0x34, 0, 80, 0, 0, 0, 0}; }

}  // namespace

TEST(HeldPacket, ReadsHeadersOfEveryShape) {
    const struct {
        const char* name;
        Bytes packet;
        std::size_t trueLength;
        std::size_t payload;
        bool isIPv6 = false;
        bool isTcp = true;
        bool opens = false;
    } cases[] = {
        {"SYN", ipv4(IPPROTO_TCP) + tcp(TH_SYN), 40, 0, false, true, true},
        {"options of both headers", ipv4(IPPROTO_TCP, 15) + tcp(TH_ACK, 15), 64120, 64000},
        {"datagram", ipv4(IPPROTO_UDP) + udp() + Bytes(10), 38, 10, false, false},
        {"data on a SYN over IPv6", ipv6(IPPROTO_TCP) + tcp(TH_SYN) + Bytes(3), 63, 3, true, true,
         true},
        {"extension headers",
         ipv6(IPPROTO_HOPOPTS) + extension(IPPROTO_DSTOPTS, 0) + extension(IPPROTO_UDP, 1) + udp(),
         172, 100, true, false},
    };
    for (const auto& [name, bytes, trueLength, payload, isIPv6, isTcp, opens] : cases) {
        SCOPED_TRACE(name);
        HeldPacket packet;
        ASSERT_TRUE(readHeaders(bytes, trueLength, packet));
        EXPECT_EQ(packet.flow.family, isIPv6 ? AF_INET6 : AF_INET);
        EXPECT_EQ(packet.flow.protocol, isTcp ? IPPROTO_TCP : IPPROTO_UDP);
        EXPECT_EQ(packet.flow.sourcePort, 0x1234);
        EXPECT_EQ(packet.flow.destinationPort, 80);
        EXPECT_EQ(packet.flow.sourceAddress[0], isIPv6 ? 0xfd : 10);
        EXPECT_EQ(packet.flow.destinationAddress[0], isIPv6 ? 0xfe : 20);
        EXPECT_EQ(packet.payloadLength, payload);
        EXPECT_EQ(packet.opensTcp, opens);
        EXPECT_EQ(packet.tcpSequence, isTcp ? 0xff000001u : 0u);
    }
}

TEST(HeldPacket, OnAPrescribedWayIsAttributedByWhereItGoesInTheEnd) {
    Bytes route = ipv4(IPPROTO_TCP, 8);
    const Bytes options{1, 131, 11, 4, 30, 0, 0, 0, 40, 0, 0, 0};
    std::copy(options.begin(), options.end(), route.begin() + 20);
    Bytes listed = extension(IPPROTO_UDP, 4);
    listed[3] = 1;
    listed[8] = 0x51;
    listed[24] = 0x52;
    Bytes segments = listed;
    segments[2] = 4;
    for (const auto& [packet, last] : {std::pair(route + tcp(TH_SYN), 40),
                                       std::pair(ipv6(IPPROTO_ROUTING) + listed + udp(), 0x52),
                                       std::pair(ipv6(IPPROTO_ROUTING) + segments + udp(), 0x51)}) {
        HeldPacket read;
        ASSERT_TRUE(readHeaders(packet, packet.size(), read));
        EXPECT_NE(read.flow.destinationAddress[0], last);
        EXPECT_EQ(read.asSent().destinationAddress[0], last);
    }
    route[23] = 12;  // at its end
    HeldPacket read;
    ASSERT_TRUE(readHeaders(route + tcp(TH_SYN), 52, read));
    EXPECT_EQ(read.asSent().destinationAddress, read.flow.destinationAddress);
}

TEST(HeldPacket, EveryCutShortOfThePortsIsRefused) {
    HeldPacket read;
    for (const Bytes& packet : {ipv4(IPPROTO_TCP, 6) + tcp(TH_SYN),
                                ipv6(IPPROTO_ROUTING) + extension(IPPROTO_UDP, 2) + udp()}) {
        EXPECT_TRUE(readHeaders(packet, packet.size(), read));
        for (std::size_t length = 0; length < packet.size(); ++length)
            EXPECT_FALSE(readHeaders(std::span(packet).first(length), packet.size(), read))
                << length;
    }
    EXPECT_FALSE(readHeaders(ipv4(IPPROTO_ICMP) + Bytes(20), 40, read));
}

}  // namespace platform::interception
