#include "Platform/Linux/Rules/ConnectionEntries.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include <linux/netfilter/nfnetlink.h>
#include <linux/netfilter/nfnetlink_conntrack.h>

#include <algorithm>
#include <cerrno>
#include <utility>
#include <vector>

// The messages are read here rather than by libnetfilter_conntrack, whose parser ends the process when
// an attribute is not as long as it expects.

namespace platform::interception {

namespace {

netlink::Request entryRequest(unsigned type, unsigned flags, int family) {
    nfgenmsg about{};
    about.nfgen_family = static_cast<std::uint8_t>(family);
    about.version = NFNETLINK_V0;
    return netlink::Request(NFNL_SUBSYS_CTNETLINK << 8 | type, flags, about);
}

netlink::Request requestAbout(const FlowTuple& flow, ctattr_type direction, unsigned type) {
    auto request = entryRequest(type, NLM_F_ACK, flow.family);
    const bool isIPv4 = flow.family == AF_INET;
    const auto address = [&](const auto& bytes) {
        return std::as_bytes(std::span(bytes).first(isIPv4 ? 4 : 16));
    };
    request.nest(direction, [&] {
        request.nest(CTA_TUPLE_IP, [&] {
            request.put(isIPv4 ? CTA_IP_V4_SRC : CTA_IP_V6_SRC, address(flow.sourceAddress))
                .put(isIPv4 ? CTA_IP_V4_DST : CTA_IP_V6_DST, address(flow.destinationAddress));
        });
        request.nest(CTA_TUPLE_PROTO, [&] {
            request.put(CTA_PROTO_NUM, static_cast<std::uint8_t>(flow.protocol))
                .put(CTA_PROTO_SRC_PORT, htons(flow.sourcePort))
                .put(CTA_PROTO_DST_PORT, htons(flow.destinationPort));
        });
    });
    return request;
}

void takeAddresses(const netlink::Attributes& addresses, FlowTuple& flow) {
    for (const netlink::Attribute attribute : addresses) {
        switch (attribute.type()) {
            case CTA_IP_V4_SRC:
            case CTA_IP_V6_SRC:
                flow.sourceAddress = attribute.address<16>();
                break;
            case CTA_IP_V4_DST:
            case CTA_IP_V6_DST:
                flow.destinationAddress = attribute.address<16>();
                break;
            default:
                break;
        }
    }
}

void takePorts(const netlink::Attributes& transport, FlowTuple& flow) {
    const auto port = [&](std::uint16_t type) {
        const auto attribute = transport.find(type);
        return attribute ? attribute->networkNumber<std::uint16_t>().value_or(0) : std::uint16_t{0};
    };
    const auto protocol = transport.find(CTA_PROTO_NUM);
    flow.protocol = protocol ? protocol->number<std::uint8_t>().value_or(0) : 0;
    flow.sourcePort = port(CTA_PROTO_SRC_PORT);
    flow.destinationPort = port(CTA_PROTO_DST_PORT);
}

}  // namespace

Result<std::unique_ptr<ConnectionEntries>> ConnectionEntries::open() {
    auto socket = netlink::Socket::open(NETLINK_NETFILTER);
    if (!socket) return socket.error();
    return std::unique_ptr<ConnectionEntries>(new ConnectionEntries(std::move(*socket)));
}

std::unique_ptr<ConnectionEntries> ConnectionEntries::openOrNull() {
    auto opened = open();
    return opened ? std::move(*opened) : nullptr;
}

Result<> ConnectionEntries::changeMarks(std::uint32_t mask, const Change& change) {
    std::vector<std::byte> updates;
    auto dump = entryRequest(IPCTNL_MSG_CT_GET, NLM_F_DUMP, AF_UNSPEC);
    auto dumped = socket.request(dump, [&](const netlink::Message& entry) {
        const auto mark = entry.attributes<nfgenmsg>().find(CTA_MARK);
        const auto number = mark ? mark->networkNumber<std::uint32_t>() : std::nullopt;
        const auto value = number ? change(*number) : std::nullopt;
        if (value) appendMarkUpdate(updates, entry, mask, *value);
    });
    if (!dumped) return dumped;

    // A piece at a time: the kernel refuses messages of more than its send buffer. An entry that
    // has ended since the dump is no failure.
    constexpr std::size_t pieceSize = 32 * 1024;
    for (std::size_t begin = 0; begin < updates.size();) {
        std::size_t end = begin;
        while (end < updates.size() && end - begin < pieceSize)
            end += reinterpret_cast<const nlmsghdr*>(updates.data() + end)->nlmsg_len;
        auto changed = socket.transact(std::span(updates).subspan(begin, end - begin));
        if (!changed && changed.error().code() != ENOENT) return changed;
        begin = end;
    }
    return {};
}

void ConnectionEntries::setMark(const FlowTuple& flow, std::uint32_t mask, std::uint32_t value) {
    auto request = requestAbout(flow, CTA_TUPLE_ORIG, IPCTNL_MSG_CT_NEW);
    request.put(CTA_MARK, htonl(value)).put(CTA_MARK_MASK, htonl(mask));
    // It may have ended by itself.
    static_cast<void>(socket.request(request));
}

Result<std::vector<FlowTuple>> ConnectionEntries::flowsWith(
    const std::function<bool(std::uint32_t mark)>& isMeant) {
    std::vector<FlowTuple> flows;
    auto dump = entryRequest(IPCTNL_MSG_CT_GET, NLM_F_DUMP, AF_UNSPEC);
    const auto dumped = socket.request(dump, [&](const netlink::Message& entry) {
        const auto mark = entry.attributes<nfgenmsg>().find(CTA_MARK);
        const auto number = mark ? mark->networkNumber<std::uint32_t>() : std::nullopt;
        auto flow = number && isMeant(*number) ? openingIn(entry) : std::nullopt;
        if (flow) flows.push_back(*flow);
    });
    if (!dumped) return dumped.error();
    return flows;
}

bool ConnectionEntries::remove(const FlowTuple& flow) {
    auto request = requestAbout(flow, CTA_TUPLE_ORIG, IPCTNL_MSG_CT_DELETE);
    return static_cast<bool>(socket.request(request));
}

void ConnectionEntries::remove(std::span<const FlowTuple> flows) {
    // Each is answered, and the answers of a piece have to find room.
    constexpr std::size_t atOnce = 64;
    while (!flows.empty()) {
        std::vector<std::byte> requests;
        for (const FlowTuple& flow : flows.first(std::min(atOnce, flows.size()))) {
            auto request = requestAbout(flow, CTA_TUPLE_ORIG, IPCTNL_MSG_CT_DELETE);
            const auto bytes = request.bytes();
            requests.insert(requests.end(), bytes.begin(), bytes.end());
        }
        static_cast<void>(socket.transact(requests));
        flows = flows.subspan(std::min(atOnce, flows.size()));
    }
}

std::vector<FlowTuple> ConnectionEntries::removeDatagramsFrom(
    const std::set<std::uint16_t>& ports) {
    auto all = flowsWith([](std::uint32_t) { return true; });
    if (!all) return {};
    std::erase_if(*all, [&](const FlowTuple& flow) {
        return flow.protocol != IPPROTO_UDP || !ports.contains(flow.sourcePort);
    });
    remove(*all);
    return std::move(*all);
}

void ConnectionEntries::removeDatagramsWith(
    const std::function<bool(std::uint32_t mark)>& isMeant) {
    auto meant = flowsWith(isMeant);
    if (!meant) return;
    std::erase_if(*meant, [](const FlowTuple& flow) { return flow.protocol != IPPROTO_UDP; });
    remove(*meant);
}

std::optional<std::uint32_t> ConnectionEntries::markOf(const FlowTuple& flow) {
    auto request = requestAbout(flow, CTA_TUPLE_ORIG, IPCTNL_MSG_CT_GET);
    std::uint32_t mark = 0;  // kernels leave out a mark of 0
    const auto asked = socket.request(request, [&](const netlink::Message& entry) {
        const auto attribute = entry.attributes<nfgenmsg>().find(CTA_MARK);
        if (attribute) mark = attribute->networkNumber<std::uint32_t>().value_or(0);
    });
    return asked ? std::optional(mark) : std::nullopt;
}

std::optional<FlowTuple> ConnectionEntries::openingOf(const FlowTuple& answers) {
    auto request = requestAbout(answers, CTA_TUPLE_REPLY, IPCTNL_MSG_CT_GET);
    std::optional<FlowTuple> opening;
    const auto asked =
        socket.request(request, [&](const netlink::Message& entry) { opening = openingIn(entry); });
    if (!asked || !opening) return std::nullopt;
    opening->family = answers.family;
    opening->protocol = answers.protocol;
    return opening;
}

std::optional<FlowTuple> openingIn(const netlink::Message& entry) {
    const auto about = entry.fixedHeader<nfgenmsg>();
    const auto tuple = entry.attributes<nfgenmsg>().find(CTA_TUPLE_ORIG);
    if (!about || !tuple) return std::nullopt;
    FlowTuple flow;
    flow.family = about->nfgen_family;
    if (const auto addresses = tuple->nested().find(CTA_TUPLE_IP))
        takeAddresses(addresses->nested(), flow);
    if (const auto transport = tuple->nested().find(CTA_TUPLE_PROTO))
        takePorts(transport->nested(), flow);
    return flow;
}

void appendMarkUpdate(std::vector<std::byte>& updates, const netlink::Message& entry,
                      std::uint32_t mask, std::uint32_t value) {
    const auto about = entry.fixedHeader<nfgenmsg>();
    const auto tuple = entry.attributes<nfgenmsg>().find(CTA_TUPLE_ORIG);
    if (!about || !tuple) return;
    auto update = entryRequest(IPCTNL_MSG_CT_NEW, 0, about->nfgen_family);
    update.put(CTA_TUPLE_ORIG | NLA_F_NESTED, tuple->bytes())
        .put(CTA_MARK, htonl(value))
        .put(CTA_MARK_MASK, htonl(mask));
    if (const auto zone = entry.attributes<nfgenmsg>().find(CTA_ZONE))
        update.put(CTA_ZONE, zone->bytes());
    // No entry of the kernel's comes near the room that there is.
    if (!update.isWhole()) return;
    const auto bytes = update.bytes();
    updates.insert(updates.end(), bytes.begin(), bytes.end());
}

}  // namespace platform::interception
