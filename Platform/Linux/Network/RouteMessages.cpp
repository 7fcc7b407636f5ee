#include "Platform/Linux/Network/RouteMessages.h"

#include <linux/if_addr.h>
#include <linux/if_link.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <linux/wireless.h>
#include <net/if_arp.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <fstream>
#include <optional>
#include <string>
#include <tuple>
#include <utility>

#include "Platform/Linux/FileDescriptor.h"
#include "Platform/Linux/Network/InterfaceKind.h"

namespace platform {
namespace {

// What only the older interface to radios and the device's own folder tell.
bool hasRadio(const NetworkInterface& interface) {
    const FileDescriptor socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    iwreq request{};
    interface.name.copy(request.ifr_name, sizeof request.ifr_name - 1);
    if (::ioctl(socket.get(), SIOCGIWNAME, &request) == 0) return true;
    const std::string folder = "/sys/class/net/" + interface.name;
    // The folder may show another network namespace.
    int index = 0;
    std::ifstream(folder + "/ifindex") >> index;
    return index == interface.index && ::access((folder + "/phy80211").c_str(), F_OK) == 0;
}

bool hasModem(const NetworkInterface& interface) {
    std::ifstream description("/sys/class/net/" + interface.name + "/uevent");
    bool isModem = false;
    bool isSameIndex = false;
    for (std::string line; std::getline(description, line);) {
        isModem |= line == "DEVTYPE=wwan";
        isSameIndex |= line == "IFINDEX=" + std::to_string(interface.index);
    }
    return isModem && isSameIndex;
}

// Null if it has no name.
std::optional<NetworkInterface> readLink(const netlink::Message& message) {
    const auto header = message.fixedHeader<ifinfomsg>();
    if (!header) return std::nullopt;
    NetworkInterface interface;
    interface.index = header->ifi_index;
    interface.flags = header->ifi_flags;
    interface.isUp = (header->ifi_flags & IFF_UP) != 0 && (header->ifi_flags & IFF_RUNNING) != 0;
    const auto attributes = message.attributes<ifinfomsg>();
    const auto name = attributes.find(IFLA_IFNAME);
    if (!name || name->text().empty()) return std::nullopt;
    interface.name = name->text();
    if (const auto info = attributes.find(IFLA_LINKINFO))
        if (const auto kind = info->nested().find(IFLA_INFO_KIND))
            interface.linkKind = kind->text();
    const bool isHardware = interface.linkKind.empty();
    const bool isEthernet = isHardware && header->ifi_type == ARPHRD_ETHER;
    // Many modems carry packets without an Ethernet header.
    const bool mayBeModem =
        isEthernet ||
        (isHardware && (header->ifi_type == ARPHRD_NONE || header->ifi_type == ARPHRD_RAWIP));
    const bool isCellular = mayBeModem && hasModem(interface);
    interface.isTunnel = isTunnelLink(header->ifi_type, interface.linkKind, isCellular);
    interface.type = interfaceType(header->ifi_type, interface.linkKind,
                                   isEthernet && hasRadio(interface), isCellular);
    return interface;
}

NetworkInterface* find(NetworkState& network, int index) {
    const auto found = std::ranges::find(network.interfaces, index, &NetworkInterface::index);
    return found == network.interfaces.end() ? nullptr : &*found;
}

void readAddress(const netlink::Message& message, NetworkState& network) {
    const auto header = message.fixedHeader<ifaddrmsg>();
    if (!header) return;
    auto* const interface = find(network, static_cast<int>(header->ifa_index));
    // An address that is still being checked for duplicates cannot be used.
    if (interface == nullptr || (header->ifa_flags & (IFA_F_TENTATIVE | IFA_F_DADFAILED)) != 0)
        return;
    // Of a point-to-point link IFA_ADDRESS is the far end.
    const auto attributes = message.attributes<ifaddrmsg>();
    auto own = attributes.find(IFA_LOCAL);
    if (!own) own = attributes.find(IFA_ADDRESS);
    if (!own) return;
    InterfaceAddress address;
    address.family = header->ifa_family;
    address.prefixLength = header->ifa_prefixlen;
    address.isLinkLocal = header->ifa_scope >= RT_SCOPE_LINK;
    address.isDeprecated = (header->ifa_flags & IFA_F_DEPRECATED) != 0;
    address.isTemporary =
        header->ifa_family == AF_INET6 && (header->ifa_flags & IFA_F_TEMPORARY) != 0;
    address.bytes = own->address<std::tuple_size_v<decltype(address.bytes)>>();
    interface->addresses.push_back(address);
}

void offerRoute(NetworkState& network, int family, int index, const DefaultRoute& route) {
    auto* const interface = find(network, index);
    if (interface == nullptr) return;
    auto& present = family == AF_INET ? interface->ipv4 : interface->ipv6;
    if (!present || route.metric < present->metric) present = route;
}

std::optional<std::array<std::uint8_t, 16>> gatewayIn(const netlink::Attributes& attributes) {
    const auto gateway = attributes.find(RTA_GATEWAY);
    return gateway ? std::optional(gateway->address<16>()) : std::nullopt;
}

// The ways of a route that has several.
void readNextHops(netlink::Bytes list, NetworkState& network, int family, DefaultRoute route) {
    rtnexthop hop;
    while (list.size() >= sizeof hop) {
        std::memcpy(&hop, list.data(), sizeof hop);
        if (hop.rtnh_len < sizeof hop || hop.rtnh_len > list.size()) return;
        route.gateway =
            gatewayIn(netlink::Attributes(list.subspan(sizeof hop, hop.rtnh_len - sizeof hop)));
        offerRoute(network, family, hop.rtnh_ifindex, route);
        list = list.subspan(std::min<std::size_t>(MNL_ALIGN(hop.rtnh_len), list.size()));
    }
}

void readRoute(const netlink::Message& message, NetworkState& network) {
    const auto header = message.fixedHeader<rtmsg>();
    // Two halves stand for the whole where a VPN wants to leave the default route alone.
    if (!header || header->rtm_table != RT_TABLE_MAIN || header->rtm_type != RTN_UNICAST ||
        header->rtm_dst_len > 1 || (header->rtm_flags & RTM_F_CLONED) != 0)
        return;
    const auto attributes = message.attributes<rtmsg>();
    const auto number = [&](std::uint16_t type) {
        const auto attribute = attributes.find(type);
        return attribute ? attribute->number<std::uint32_t>().value_or(0) : 0;
    };
    DefaultRoute route;
    route.metric = number(RTA_PRIORITY);
    if (const auto nextHops = attributes.find(RTA_MULTIPATH))
        return readNextHops(nextHops->bytes(), network, header->rtm_family, route);
    route.gateway = gatewayIn(attributes);
    offerRoute(network, header->rtm_family, static_cast<int>(number(RTA_OIF)), route);
}

template <class Header>
Result<> dump(netlink::Socket& socket, unsigned type, const Header& header, NetworkState& into) {
    netlink::Request request(type, NLM_F_DUMP, header);
    return socket.request(request,
                          [&](const netlink::Message& answer) { addToNetwork(answer, into); });
}

Result<NetworkState> readOnce(netlink::Socket& socket) {
    NetworkState network;
    auto done = dump(socket, RTM_GETLINK, ifinfomsg{}, network);
    for (const int family : {AF_INET, AF_INET6}) {
        ifaddrmsg addresses{};
        addresses.ifa_family = static_cast<std::uint8_t>(family);
        rtmsg routes{};
        routes.rtm_family = static_cast<std::uint8_t>(family);
        routes.rtm_table = RT_TABLE_MAIN;
        if (done) done = dump(socket, RTM_GETADDR, addresses, network);
        if (done) done = dump(socket, RTM_GETROUTE, routes, network);
    }
    if (!done) return done.error();
    std::ranges::sort(network.interfaces, {}, &NetworkInterface::index);
    chooseShownNames(network.interfaces);
    return network;
}

}  // namespace

void addToNetwork(const netlink::Message& answer, NetworkState& network) {
    switch (answer.type()) {
        case RTM_NEWLINK:
            if (auto link = readLink(answer)) network.interfaces.push_back(std::move(*link));
            return;
        case RTM_NEWADDR:
            return readAddress(answer, network);
        case RTM_NEWROUTE:
            return readRoute(answer, network);
        default:
            return;
    }
}

Result<NetworkState> readNetworkState() {
    // A change in the middle of an answer spoils it; the next attempt sees it.
    constexpr int mostAttempts = 10;
    for (int attempt = 1;; ++attempt) {
        auto socket = netlink::Socket::open(NETLINK_ROUTE);
        if (!socket) return socket.error();
        socket->enable(NETLINK_GET_STRICT_CHK);
        auto network = readOnce(*socket);
        if (network || attempt == mostAttempts) return network;
    }
}

Result<netlink::Socket> openChangeReports() {
    constexpr unsigned groups[] = {RTNLGRP_LINK, RTNLGRP_IPV4_IFADDR, RTNLGRP_IPV6_IFADDR,
                                   RTNLGRP_IPV4_ROUTE, RTNLGRP_IPV6_ROUTE};
    return netlink::Socket::open(NETLINK_ROUTE, groups);
}

}  // namespace platform
