// Messages of any length and content from the kernel's side: what is read out of them lies within them,
// is what a second, plain reader finds there, and is what was put in where nothing was damaged.

#include <linux/if_addr.h>
#include <linux/netfilter/nfnetlink.h>
#include <linux/netfilter/nfnetlink_conntrack.h>
#include <linux/rtnetlink.h>
#include <netinet/in.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "Fuzz/Input.h"
#include "Platform/Linux/Netlink/Message.h"
#include "Platform/Linux/Network/RouteMessages.h"
#include "Platform/Linux/Rules/ConnectionEntries.h"

namespace {

namespace netlink = platform::netlink;
using platform::NetworkState;
using platform::interception::appendMarkUpdate;
using platform::interception::openingIn;
using Bytes = std::vector<std::byte>;

// A copy at the very end of its memory: the address sanitizer catches a reader that goes further.
struct Received {
    explicit Received(const Bytes& bytes) : room(new std::byte[bytes.size()]), size(bytes.size()) {
        std::ranges::copy(bytes, room.get());
    }
    netlink::Bytes bytes() const { return {room.get(), size}; }

    std::unique_ptr<std::byte[]> room;
    std::size_t size;
};

// What the story put into its messages, as the readers should find it.
struct Expected {
    NetworkState network;
    std::vector<std::uint16_t> sourcePorts;
};

void append(Bytes& all, netlink::Request& message) {
    const auto bytes = message.bytes();
    all.insert(all.end(), bytes.begin(), bytes.end());
    all.resize(MNL_ALIGN(all.size()));
}

std::span<const std::byte> bytesOf(std::string_view text) { return std::as_bytes(std::span(text)); }

void putLink(fuzz::Input& input, Bytes& all, Expected& expected) {
    static constexpr std::string_view kinds[] = {"", "wireguard", "tun", "veth", "dummy"};
    ifinfomsg header{};
    header.ifi_index = 2 + static_cast<int>(expected.network.interfaces.size());
    netlink::Request message(RTM_NEWLINK, 0, header);
    const auto name = "if" + std::to_string(header.ifi_index);
    const auto kind = input.pick(kinds);
    if (input.oneIn(2)) message.put(IFLA_MTU, std::uint32_t{1500});
    message.put(IFLA_IFNAME, bytesOf({name.c_str(), name.size() + 1}));
    // A text may lack its zero.
    message.nest(IFLA_LINKINFO, [&] { message.put(IFLA_INFO_KIND, bytesOf(kind)); });
    append(all, message);
    platform::NetworkInterface interface;
    interface.index = header.ifi_index;
    interface.name = name;
    interface.linkKind = kind;
    expected.network.interfaces.push_back(interface);
}

void putAddress(fuzz::Input& input, Bytes& all, Expected& expected) {
    ifaddrmsg header{};
    header.ifa_index = 2 + static_cast<unsigned>(input.below(4));
    header.ifa_family = AF_INET;
    netlink::Request message(RTM_NEWADDR, 0, header);
    const auto own = static_cast<std::uint32_t>(1 + input.below(200));
    message.put(IFA_ADDRESS, std::uint32_t{0});
    message.put(IFA_LOCAL, own);
    append(all, message);
    for (auto& interface : expected.network.interfaces) {
        if (interface.index != static_cast<int>(header.ifa_index)) continue;
        platform::InterfaceAddress address;
        address.family = AF_INET;
        std::memcpy(address.bytes.data(), &own, sizeof own);
        interface.addresses.push_back(address);
    }
}

// A default route over one way or over several; the one of the smallest metric counts.
void putRoute(fuzz::Input& input, Bytes& all, Expected& expected) {
    rtmsg header{};
    header.rtm_family = AF_INET;
    header.rtm_table = RT_TABLE_MAIN;
    header.rtm_type = RTN_UNICAST;
    netlink::Request message(RTM_NEWROUTE, 0, header);
    const auto metric = static_cast<std::uint32_t>(input.below(5));
    message.put(RTA_PRIORITY, metric);
    const int index = 2 + static_cast<int>(input.below(4));
    const std::uint32_t gateway = 7;
    if (input.oneIn(2)) {
        const struct {
            rtnexthop hop;
            nlattr attribute;
            std::uint32_t address;
        } way{{16, 0, 0, index}, {8, RTA_GATEWAY}, gateway};
        message.put(RTA_MULTIPATH, std::as_bytes(std::span(&way, 1)));
    } else {
        message.put(RTA_GATEWAY, gateway).put(RTA_OIF, static_cast<std::uint32_t>(index));
    }
    append(all, message);
    for (auto& interface : expected.network.interfaces)
        if (interface.index == index && (!interface.ipv4 || metric < interface.ipv4->metric))
            interface.ipv4.emplace().metric = metric;
}

void putEntry(fuzz::Input& input, Bytes& all, Expected& expected) {
    netlink::Request message(NFNL_SUBSYS_CTNETLINK << 8 | IPCTNL_MSG_CT_NEW, 0, nfgenmsg{});
    const auto port = static_cast<std::uint16_t>(1 + input.below(255) * 256);
    // A tuple of any length: what does not fit into an update is left alone.
    const Bytes more(input.oneIn(3) ? input.below(256) : 0);
    message.nest(CTA_TUPLE_ORIG, [&] {
        message.nest(CTA_TUPLE_PROTO, [&] { message.put(CTA_PROTO_SRC_PORT, htons(port)); });
        message.put(CTA_TUPLE_ZONE, netlink::Bytes(more));
    });
    append(all, message);
    expected.sourcePorts.push_back(port);
}

using Found = std::vector<std::pair<unsigned, std::string>>;

std::string textOf(netlink::Bytes bytes) {
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

// Attributes as they are laid down: a length with its own four bytes, a type, a payload, padding.
Found plainlyRead(netlink::Bytes list) {
    Found found;
    for (std::size_t at = 0; at + 4 <= list.size();) {
        std::uint16_t length = 0, type = 0;
        std::memcpy(&length, list.data() + at, 2);
        std::memcpy(&type, list.data() + at + 2, 2);
        if (length < 4 || at + length > list.size()) break;
        found.emplace_back(type & NLA_TYPE_MASK, textOf(list.subspan(at + 4, length - 4u)));
        at += (length + 3u) & ~3u;
    }
    return found;
}

void compareReaders(const netlink::Message& message) {
    for (const std::size_t start : {sizeof(nfgenmsg), sizeof(rtmsg), sizeof(ifinfomsg)}) {
        const auto payload = message.payload();
        const auto list = payload.size() < start ? netlink::Bytes() : payload.subspan(start);
        Found found;
        for (const netlink::Attribute attribute : netlink::Attributes(list))
            found.emplace_back(attribute.type(), textOf(attribute.bytes()));
        fuzz::require(found == plainlyRead(list), "two readers find different attributes");
    }
}

std::string tupleOf(const netlink::Message& entry) {
    const auto tuple = entry.attributes<nfgenmsg>().find(CTA_TUPLE_ORIG);
    return tuple ? textOf(tuple->bytes()) : "none";
}

// The update of an entry bears the entry's own tuple, or there is none.
void tryUpdate(const netlink::Message& entry) {
    Bytes updates;
    appendMarkUpdate(updates, entry, 0xff, 1);
    fuzz::require(updates.size() <= netlink::Request::capacity, "an update longer than its room");
    if (updates.empty()) return;
    netlink::forEachMessage(updates, [&](const netlink::Message& update) {
        fuzz::require(tupleOf(update) == tupleOf(entry), "an update for another entry");
    });
}

void compare(const NetworkState& network, const Expected& expected) {
    const auto& wanted = expected.network.interfaces;
    fuzz::require(network.interfaces.size() == wanted.size(), "another number of interfaces");
    for (std::size_t at = 0; at < wanted.size(); ++at) {
        const auto& read = network.interfaces[at];
        fuzz::require(read.name == wanted[at].name && read.linkKind == wanted[at].linkKind,
                      "another interface", read.name);
        fuzz::require(std::ranges::equal(read.addresses, wanted[at].addresses, {},
                                         &platform::InterfaceAddress::bytes,
                                         &platform::InterfaceAddress::bytes),
                      "other addresses", read.name);
        fuzz::require(read.ipv4.has_value() == wanted[at].ipv4.has_value() &&
                          (!read.ipv4 || (read.ipv4->metric == wanted[at].ipv4->metric &&
                                          read.ipv4->gateway.value()[0] == 7)),
                      "another default route", read.name);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::Input input({data, size});
    auto harms = input.oneIn(2) ? input.below(4) : 0;
    const bool isWhole = harms == 0;
    Bytes bytes;
    Expected expected;
    for (auto count = 1 + input.below(8); count > 0; --count) {
        constexpr void (*shapes[])(fuzz::Input&, Bytes&, Expected&) = {putLink, putAddress,
                                                                       putRoute, putEntry};
        shapes[input.below(std::size(shapes))](input, bytes, expected);
    }
    for (; harms > 0; --harms)
        bytes[(input.below(256) << 8 | input.below(256)) % bytes.size()] =
            static_cast<std::byte>(input.below(256));
    if (!isWhole) bytes.resize(bytes.size() - std::min(input.below(256), bytes.size() - 1));

    const Received received(bytes);
    NetworkState network;
    std::vector<std::uint16_t> sourcePorts;
    netlink::forEachMessage(received.bytes(), [&](const netlink::Message& message) {
        compareReaders(message);
        platform::addToNetwork(message, network);
        if (const auto opening = openingIn(message)) {
            if (message.type() == (NFNL_SUBSYS_CTNETLINK << 8 | IPCTNL_MSG_CT_NEW))
                sourcePorts.push_back(opening->sourcePort);
            tryUpdate(message);
        }
    });
    if (!isWhole) return 0;
    compare(network, expected);
    fuzz::require(sourcePorts == expected.sourcePorts, "another connection");
    return 0;
}
