#include "Platform/Linux/Interception/ConnectionEntries.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <linux/netfilter/nfnetlink.h>
#include <linux/netfilter/nfnetlink_conntrack.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <vector>

namespace platform::interception {

namespace {

constexpr std::uint32_t sequence = 1;

nlmsghdr* beginMessage(char* room, unsigned type, unsigned flags, int family) {
    nlmsghdr* const header = mnl_nlmsg_put_header(room);
    header->nlmsg_type = static_cast<std::uint16_t>(NFNL_SUBSYS_CTNETLINK << 8 | type);
    header->nlmsg_flags = static_cast<std::uint16_t>(NLM_F_REQUEST | flags);
    header->nlmsg_seq = sequence;
    auto* const about =
        static_cast<nfgenmsg*>(mnl_nlmsg_put_extra_header(header, sizeof(nfgenmsg)));
    about->nfgen_family = static_cast<std::uint8_t>(family);
    about->version = NFNETLINK_V0;
    return header;
}

void putTuple(nlmsghdr* header, ctattr_type direction, const FlowTuple& flow) {
    const bool isIPv4 = flow.family == AF_INET;
    const std::size_t length = isIPv4 ? 4 : 16;
    nlattr* const tuple = mnl_attr_nest_start(header, direction);
    nlattr* const addresses = mnl_attr_nest_start(header, CTA_TUPLE_IP);
    mnl_attr_put(header, isIPv4 ? CTA_IP_V4_SRC : CTA_IP_V6_SRC, length, flow.sourceAddress.data());
    mnl_attr_put(header, isIPv4 ? CTA_IP_V4_DST : CTA_IP_V6_DST, length,
                 flow.destinationAddress.data());
    mnl_attr_nest_end(header, addresses);
    nlattr* const ports = mnl_attr_nest_start(header, CTA_TUPLE_PROTO);
    mnl_attr_put_u8(header, CTA_PROTO_NUM, static_cast<std::uint8_t>(flow.protocol));
    mnl_attr_put_u16(header, CTA_PROTO_SRC_PORT, htons(flow.sourcePort));
    mnl_attr_put_u16(header, CTA_PROTO_DST_PORT, htons(flow.destinationPort));
    mnl_attr_nest_end(header, ports);
    mnl_attr_nest_end(header, tuple);
}

template <class Visit>
void forEachNestedAttribute(const nlattr& nest, Visit visit) {
    const auto call = [](const nlattr* attribute, void* visitor) {
        (*static_cast<Visit*>(visitor))(*attribute);
        return MNL_CB_OK;
    };
    mnl_attr_parse_nested(&nest, call, &visit);
}

void takeAddress(const nlattr& attribute, std::array<std::uint8_t, 16>& address) {
    const std::size_t length = std::min<std::size_t>(mnl_attr_get_payload_len(&attribute), 16);
    std::memcpy(address.data(), mnl_attr_get_payload(&attribute), length);
}

void takeAddresses(const nlattr& nest, FlowTuple& flow) {
    forEachNestedAttribute(nest, [&](const nlattr& attribute) {
        switch (mnl_attr_get_type(&attribute)) {
            case CTA_IP_V4_SRC:
            case CTA_IP_V6_SRC:
                return takeAddress(attribute, flow.sourceAddress);
            case CTA_IP_V4_DST:
            case CTA_IP_V6_DST:
                return takeAddress(attribute, flow.destinationAddress);
            default:
                return;
        }
    });
}

void takePorts(const nlattr& nest, FlowTuple& flow) {
    forEachNestedAttribute(nest, [&](const nlattr& attribute) {
        if (mnl_attr_get_type(&attribute) == CTA_PROTO_SRC_PORT)
            flow.sourcePort = ntohs(mnl_attr_get_u16(&attribute));
        if (mnl_attr_get_type(&attribute) == CTA_PROTO_DST_PORT)
            flow.destinationPort = ntohs(mnl_attr_get_u16(&attribute));
    });
}

void takeTuple(const nlattr& nest, FlowTuple& flow) {
    forEachNestedAttribute(nest, [&](const nlattr& attribute) {
        if (mnl_attr_get_type(&attribute) == CTA_TUPLE_IP) takeAddresses(attribute, flow);
        if (mnl_attr_get_type(&attribute) == CTA_TUPLE_PROTO) takePorts(attribute, flow);
    });
}

// What an update of an entry has to repeat of it.
struct Attributes {
    const nlattr* tuple = nullptr;
    const nlattr* mark = nullptr;
    const nlattr* zone = nullptr;
};

Attributes attributesOf(const nlmsghdr& entry) {
    Attributes found;
    forEachAttribute(entry, sizeof(nfgenmsg), [&](const nlattr& attribute) {
        switch (mnl_attr_get_type(&attribute)) {
            case CTA_TUPLE_ORIG:
                found.tuple = &attribute;
                break;
            case CTA_MARK:
                found.mark = &attribute;
                break;
            case CTA_ZONE:
                found.zone = &attribute;
                break;
            default:
                break;
        }
    });
    return found;
}

void appendUpdate(std::vector<char>& updates, const nlmsghdr& entry, const Attributes& attributes,
                  std::uint32_t mask, std::uint32_t value) {
    alignas(nlmsghdr) std::array<char, 512> room{};
    const auto* const about = static_cast<const nfgenmsg*>(mnl_nlmsg_get_payload(&entry));
    nlmsghdr* const header = beginMessage(room.data(), IPCTNL_MSG_CT_NEW, 0, about->nfgen_family);
    mnl_attr_put(header, CTA_TUPLE_ORIG | NLA_F_NESTED, mnl_attr_get_payload_len(attributes.tuple),
                 mnl_attr_get_payload(attributes.tuple));
    mnl_attr_put_u32(header, CTA_MARK, htonl(value));
    mnl_attr_put_u32(header, CTA_MARK_MASK, htonl(mask));
    if (attributes.zone) mnl_attr_put_u16(header, CTA_ZONE, mnl_attr_get_u16(attributes.zone));
    updates.insert(updates.end(), room.data(), room.data() + header->nlmsg_len);
}

}  // namespace

std::unique_ptr<ConnectionEntries> ConnectionEntries::open() {
    auto socket = NetlinkSocket::open(NETLINK_NETFILTER);
    if (!socket) return nullptr;
    return std::unique_ptr<ConnectionEntries>(new ConnectionEntries(std::move(socket)));
}

int ConnectionEntries::changeMarks(std::uint32_t mask, const Change& change) {
    std::vector<char> updates;
    alignas(nlmsghdr) std::array<char, 64> room{};
    const nlmsghdr* const dump =
        beginMessage(room.data(), IPCTNL_MSG_CT_GET, NLM_F_DUMP, AF_UNSPEC);
    const int error = socket->request(*dump, [&](const nlmsghdr& entry) {
        const Attributes attributes = attributesOf(entry);
        if (!attributes.tuple || !attributes.mark) return;
        const auto value = change(ntohl(mnl_attr_get_u32(attributes.mark)));
        if (value) appendUpdate(updates, entry, attributes, mask, *value);
    });
    if (error != 0) return error;

    // A piece at a time: the kernel refuses messages of more than its send buffer. An entry that
    // has ended since the dump is no failure.
    constexpr std::size_t pieceSize = 32 * 1024;
    for (std::size_t begin = 0; begin < updates.size();) {
        std::size_t end = begin;
        while (end < updates.size() && end - begin < pieceSize)
            end += reinterpret_cast<const nlmsghdr*>(updates.data() + end)->nlmsg_len;
        const int failed =
            socket->transact(std::as_bytes(std::span(updates).subspan(begin, end - begin)));
        if (failed != 0 && failed != ENOENT) return failed;
        begin = end;
    }
    return 0;
}

void ConnectionEntries::remove(const FlowTuple& flow) {
    alignas(nlmsghdr) std::array<char, 256> room{};
    nlmsghdr* const header =
        beginMessage(room.data(), IPCTNL_MSG_CT_DELETE, NLM_F_ACK, flow.family);
    putTuple(header, CTA_TUPLE_ORIG, flow);
    socket->request(*header);
}

bool ConnectionEntries::has(const FlowTuple& flow) {
    alignas(nlmsghdr) std::array<char, 256> room{};
    nlmsghdr* const header = beginMessage(room.data(), IPCTNL_MSG_CT_GET, NLM_F_ACK, flow.family);
    putTuple(header, CTA_TUPLE_ORIG, flow);
    return socket->request(*header) == 0;
}

std::optional<FlowTuple> ConnectionEntries::openingOf(const FlowTuple& answers) {
    alignas(nlmsghdr) std::array<char, 256> room{};
    nlmsghdr* const header =
        beginMessage(room.data(), IPCTNL_MSG_CT_GET, NLM_F_ACK, answers.family);
    putTuple(header, CTA_TUPLE_REPLY, answers);
    std::optional<FlowTuple> opening;
    socket->request(*header, [&](const nlmsghdr& entry) {
        const Attributes attributes = attributesOf(entry);
        if (!attributes.tuple) return;
        opening = FlowTuple{};
        opening->protocol = answers.protocol;
        opening->family = answers.family;
        takeTuple(*attributes.tuple, *opening);
    });
    return opening;
}

}  // namespace platform::interception
