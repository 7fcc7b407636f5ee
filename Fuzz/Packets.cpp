// Headers of packets against a second parser, written over the system's structures: what is no first
// packet piece of TCP or UDP, is refused; of everything else both say the same.

#include <arpa/inet.h>
#include <netinet/ip.h>
#include <netinet/ip6.h>
#include <netinet/tcp.h>
#include <netinet/udp.h>

#include <algorithm>
#include <cstring>
#include <optional>
#include <vector>

#include "Fuzz/Input.h"
#include "Platform/Linux/Packets/HeldPacket.h"

namespace {

using platform::interception::HeldPacket;
using Bytes = std::vector<std::uint8_t>;

// A header at this offset, if the packet has the whole of it.
template <class Header>
std::optional<Header> headerAt(const Bytes& packet, std::size_t offset) {
    if (offset > packet.size() || packet.size() - offset < sizeof(Header)) return std::nullopt;
    Header header;
    std::memcpy(&header, packet.data() + offset, sizeof header);
    return header;
}

struct Network {
    int protocol;
    std::size_t length;
    std::string source, destination;
};

std::string addressText(int family, const void* address) {
    char text[INET6_ADDRSTRLEN] = "";
    inet_ntop(family, address, text, sizeof text);
    return text;
}

std::optional<Network> networkOf(const Bytes& packet) {
    if (packet.empty()) return std::nullopt;
    if (const auto ip = headerAt<iphdr>(packet, 0); ip && ip->version == 4) {
        if (ip->ihl < 5 || (ntohs(ip->frag_off) & IP_OFFMASK) != 0) return std::nullopt;
        return Network{ip->protocol, ip->ihl * 4u, addressText(AF_INET, &ip->saddr),
                       addressText(AF_INET, &ip->daddr)};
    }
    const auto ip = headerAt<ip6_hdr>(packet, 0);
    if (!ip || ip->ip6_vfc >> 4 != 6) return std::nullopt;
    Network network{ip->ip6_nxt, sizeof *ip, addressText(AF_INET6, &ip->ip6_src),
                    addressText(AF_INET6, &ip->ip6_dst)};
    while (network.protocol == IPPROTO_HOPOPTS || network.protocol == IPPROTO_ROUTING ||
           network.protocol == IPPROTO_DSTOPTS) {
        const auto extension = headerAt<ip6_ext>(packet, network.length);
        if (!extension) return std::nullopt;
        network.protocol = extension->ip6e_nxt;
        network.length += (extension->ip6e_len + 1u) * 8;
    }
    return network;
}

struct Expected {
    Network network;
    std::uint16_t from, to;
    bool opensTcp = false;
    std::uint32_t sequence = 0;
    std::size_t headers;
};

std::optional<Expected> secondReading(const Bytes& packet) {
    const auto network = networkOf(packet);
    if (!network) return std::nullopt;
    if (network->protocol == IPPROTO_UDP) {
        const auto udp = headerAt<udphdr>(packet, network->length);
        if (!udp) return std::nullopt;
        return Expected{*network, ntohs(udp->source),           ntohs(udp->dest), false,
                        0,        network->length + sizeof *udp};
    }
    const auto tcp = headerAt<tcphdr>(packet, network->length);
    if (network->protocol != IPPROTO_TCP || !tcp || tcp->doff < 5) return std::nullopt;
    return Expected{*network,      ntohs(tcp->source), ntohs(tcp->dest),
                    tcp->syn != 0, ntohl(tcp->seq),    network->length + tcp->doff * 4u};
}

void append(Bytes& packet, fuzz::Input& input, std::size_t count) {
    for (; count > 0; --count) packet.push_back(static_cast<std::uint8_t>(input.below(256)));
}

// Mostly right: each field that decides is right or drawn.
Bytes packetOf(fuzz::Input& input) {
    constexpr std::uint8_t protocols[] = {IPPROTO_TCP,     IPPROTO_UDP,     IPPROTO_HOPOPTS,
                                          IPPROTO_ROUTING, IPPROTO_DSTOPTS, IPPROTO_FRAGMENT,
                                          IPPROTO_ICMP};
    const auto protocol = [&] { return protocols[input.below(std::size(protocols))]; };
    const bool isIPv4 = input.oneIn(2);
    Bytes packet;
    append(packet, input, isIPv4 ? 20 : 40);
    const auto words = input.oneIn(4) ? input.below(16) : 5;
    const auto version = input.oneIn(8) ? input.below(16) : (isIPv4 ? 4u : 6u);
    packet[0] = static_cast<std::uint8_t>(version << 4 | (isIPv4 ? words : 0));
    packet[isIPv4 ? 9 : 6] = isIPv4 ? protocols[input.below(2)] : protocol();
    if (isIPv4 && !input.oneIn(4)) packet[6] = packet[7] = 0;
    if (isIPv4 && words > 5) append(packet, input, (words - 5) * 4);
    for (auto next = packet[6]; !isIPv4 && next != IPPROTO_TCP && next != IPPROTO_UDP;) {
        const auto start = packet.size();
        append(packet, input, 8);
        next = packet[start] = protocol();
        packet[start + 1] %= 4;
        append(packet, input, packet[start + 1] * 8u);
        if (input.isEmpty()) break;
    }
    const auto transport = packet.size();
    append(packet, input, 20 + input.below(16));
    if (!input.oneIn(4)) packet[transport + 12] |= 0x50;
    if (input.oneIn(4)) packet.resize(input.below(std::min<std::size_t>(packet.size(), 255) + 1));
    return packet;
}

void compare(const HeldPacket& read, const Expected& expected, std::size_t trueLength) {
    const auto& flow = read.flow;
    fuzz::require(flow.protocol == expected.network.protocol, "another protocol");
    fuzz::require(addressText(flow.family, flow.sourceAddress.data()) == expected.network.source &&
                      addressText(flow.family, flow.destinationAddress.data()) ==
                          expected.network.destination,
                  "other addresses");
    fuzz::require(flow.sourcePort == expected.from && flow.destinationPort == expected.to,
                  "other ports");
    fuzz::require(read.opensTcp == expected.opensTcp && read.tcpSequence == expected.sequence,
                  "another place in the stream");
    const auto payload = trueLength > expected.headers ? trueLength - expected.headers : 0;
    fuzz::require(read.payloadLength == payload, "another length");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::Input input({data, size});
    const auto packet = packetOf(input);
    const auto trueLength = packet.size() + input.below(256) * 250;
    HeldPacket read;
    const bool isRead = readHeaders(packet, trueLength, read);
    const auto expected = secondReading(packet);
    fuzz::require(isRead == expected.has_value(), isRead ? "taken for a flow's" : "refused");
    if (isRead) compare(read, *expected, trueLength);
    return 0;
}
