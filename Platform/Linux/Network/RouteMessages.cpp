#include "Platform/Linux/Network/RouteMessages.h"

#include <libmnl/libmnl.h>
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
#include <cerrno>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "Platform/Linux/Network/InterfaceKind.h"

namespace platform {
namespace {

FileDescriptor openRouteSocket(std::uint32_t groups, int flags) {
    FileDescriptor socket(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | flags, NETLINK_ROUTE));
    sockaddr_nl address{};
    address.nl_family = AF_NETLINK;
    address.nl_groups = groups;
    if (!socket || ::bind(socket.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
        return {};
    return socket;
}

// Calls `visit` with each attribute of a message behind its header of `headerLength`.
template <class Visit>
void forEachAttribute(const nlmsghdr& message, std::size_t headerLength, Visit&& visit) {
    const auto* attribute =
        static_cast<const nlattr*>(mnl_nlmsg_get_payload_offset(&message, headerLength));
    const auto* const end = static_cast<const char*>(mnl_nlmsg_get_payload_tail(&message));
    while (
        mnl_attr_ok(attribute, static_cast<int>(end - reinterpret_cast<const char*>(attribute)))) {
        visit(*attribute);
        attribute = mnl_attr_next(attribute);
    }
}

// Sends one dump request and gives each answer to `visit`. False if it failed or the answers do not
// belong together because something changed meanwhile.
template <class Header, class Visit>
bool dump(const FileDescriptor& socket, std::uint16_t type, const Header& header, Visit&& visit) {
    std::array<char, MNL_NLMSG_HDRLEN + MNL_ALIGN(sizeof(Header))> request{};
    auto* const message = mnl_nlmsg_put_header(request.data());
    message->nlmsg_type = type;
    message->nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    std::memcpy(mnl_nlmsg_put_extra_header(message, sizeof(Header)), &header, sizeof(Header));
    if (::send(socket.get(), message, message->nlmsg_len, 0) < 0) return false;

    std::vector<char> buffer(32 * 1024);
    for (;;) {
        const ssize_t length = ::recv(socket.get(), buffer.data(), buffer.size(), 0);
        if (length < 0 && errno == EINTR) continue;
        if (length <= 0) return false;
        auto left = static_cast<int>(length);
        for (const auto* answer = reinterpret_cast<const nlmsghdr*>(buffer.data());
             mnl_nlmsg_ok(answer, left); answer = mnl_nlmsg_next(answer, &left)) {
            if ((answer->nlmsg_flags & NLM_F_DUMP_INTR) != 0) return false;
            if (answer->nlmsg_type == NLMSG_DONE) return true;
            if (answer->nlmsg_type == NLMSG_ERROR) return false;
            visit(*answer);
        }
    }
}

std::string linkKindOf(const nlattr& linkInfo) {
    for (const auto* inner = static_cast<const nlattr*>(mnl_attr_get_payload(&linkInfo));
         mnl_attr_ok(inner,
                     static_cast<int>(static_cast<const char*>(mnl_attr_get_payload(&linkInfo)) +
                                      mnl_attr_get_payload_len(&linkInfo) -
                                      reinterpret_cast<const char*>(inner)));
         inner = mnl_attr_next(inner))
        if (mnl_attr_get_type(inner) == IFLA_INFO_KIND) return mnl_attr_get_str(inner);
    return {};
}

// What only the older interface to radios and the device's own folder tell.
bool hasRadio(const FileDescriptor& socket, const NetworkInterface& interface) {
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

NetworkInterface readLink(const nlmsghdr& message, const FileDescriptor& socket) {
    const auto& header = *static_cast<const ifinfomsg*>(mnl_nlmsg_get_payload(&message));
    NetworkInterface interface;
    interface.index = header.ifi_index;
    interface.flags = header.ifi_flags;
    interface.isUp = (header.ifi_flags & IFF_UP) != 0 && (header.ifi_flags & IFF_RUNNING) != 0;
    forEachAttribute(message, sizeof header, [&](const nlattr& attribute) {
        const auto type = mnl_attr_get_type(&attribute);
        if (type == IFLA_IFNAME) interface.name = mnl_attr_get_str(&attribute);
        if (type == IFLA_LINKINFO) interface.linkKind = linkKindOf(attribute);
    });
    const bool isHardware = header.ifi_type == ARPHRD_ETHER && interface.linkKind.empty();
    interface.isTunnel = isTunnelLink(header.ifi_type, interface.linkKind);
    interface.type =
        interfaceType(header.ifi_type, interface.linkKind,
                      isHardware && hasRadio(socket, interface), isHardware && hasModem(interface));
    return interface;
}

NetworkInterface* find(NetworkState& network, int index) {
    const auto found = std::ranges::find(network.interfaces, index, &NetworkInterface::index);
    return found == network.interfaces.end() ? nullptr : &*found;
}

void readAddress(const nlmsghdr& message, NetworkState& network) {
    const auto& header = *static_cast<const ifaddrmsg*>(mnl_nlmsg_get_payload(&message));
    auto* const interface = find(network, static_cast<int>(header.ifa_index));
    // An address that is still being checked for duplicates cannot be used.
    if (interface == nullptr || (header.ifa_flags & (IFA_F_TENTATIVE | IFA_F_DADFAILED)) != 0)
        return;
    InterfaceAddress address;
    address.family = header.ifa_family;
    address.prefixLength = header.ifa_prefixlen;
    address.isLinkLocal = header.ifa_scope >= RT_SCOPE_LINK;
    bool hasLocal = false;
    forEachAttribute(message, sizeof header, [&](const nlattr& attribute) {
        const auto type = mnl_attr_get_type(&attribute);
        // Of a point-to-point link IFA_ADDRESS is the far end.
        if (type != IFA_LOCAL && (type != IFA_ADDRESS || hasLocal)) return;
        hasLocal = type == IFA_LOCAL;
        std::memcpy(
            address.bytes.data(), mnl_attr_get_payload(&attribute),
            std::min<std::size_t>(address.bytes.size(), mnl_attr_get_payload_len(&attribute)));
    });
    interface->addresses.push_back(address);
}

void offerRoute(NetworkState& network, int family, int index, const DefaultRoute& route) {
    auto* const interface = find(network, index);
    if (interface == nullptr) return;
    auto& present = family == AF_INET ? interface->ipv4 : interface->ipv6;
    if (!present || route.metric < present->metric) present = route;
}

std::array<std::uint8_t, 16> gatewayOf(const nlattr& attribute) {
    std::array<std::uint8_t, 16> gateway{};
    std::memcpy(gateway.data(), mnl_attr_get_payload(&attribute),
                std::min<std::size_t>(gateway.size(), mnl_attr_get_payload_len(&attribute)));
    return gateway;
}

// The ways of a route that has several.
void readNextHops(const nlattr& list, NetworkState& network, int family, DefaultRoute route) {
    const auto* at = static_cast<const char*>(mnl_attr_get_payload(&list));
    const auto* const end = at + mnl_attr_get_payload_len(&list);
    while (end - at >= static_cast<std::ptrdiff_t>(sizeof(rtnexthop))) {
        const auto& hop = *reinterpret_cast<const rtnexthop*>(at);
        if (hop.rtnh_len < sizeof hop || hop.rtnh_len > end - at) return;
        route.gateway.reset();
        const auto* inner = reinterpret_cast<const nlattr*>(at + sizeof hop);
        const auto* const hopEnd = at + hop.rtnh_len;
        for (; mnl_attr_ok(inner, static_cast<int>(hopEnd - reinterpret_cast<const char*>(inner)));
             inner = mnl_attr_next(inner))
            if (mnl_attr_get_type(inner) == RTA_GATEWAY) route.gateway = gatewayOf(*inner);
        offerRoute(network, family, hop.rtnh_ifindex, route);
        at += MNL_ALIGN(hop.rtnh_len);
    }
}

void readRoute(const nlmsghdr& message, NetworkState& network) {
    const auto& header = *static_cast<const rtmsg*>(mnl_nlmsg_get_payload(&message));
    // Two halves stand for the whole where a VPN wants to leave the default route alone.
    if (header.rtm_table != RT_TABLE_MAIN || header.rtm_type != RTN_UNICAST ||
        header.rtm_dst_len > 1 || (header.rtm_flags & RTM_F_CLONED) != 0)
        return;
    DefaultRoute route;
    int index = 0;
    const nlattr* nextHops = nullptr;
    forEachAttribute(message, sizeof header, [&](const nlattr& attribute) {
        switch (mnl_attr_get_type(&attribute)) {
            case RTA_OIF:
                index = static_cast<int>(mnl_attr_get_u32(&attribute));
                break;
            case RTA_GATEWAY:
                route.gateway = gatewayOf(attribute);
                break;
            case RTA_PRIORITY:
                route.metric = mnl_attr_get_u32(&attribute);
                break;
            case RTA_MULTIPATH:
                nextHops = &attribute;
                break;
            default:
                break;
        }
    });
    if (nextHops != nullptr) return readNextHops(*nextHops, network, header.rtm_family, route);
    offerRoute(network, header.rtm_family, index, route);
}

std::optional<NetworkState> readOnce(const FileDescriptor& socket) {
    NetworkState network;
    ifinfomsg links{};
    links.ifi_family = AF_UNSPEC;
    const bool hasLinks = dump(socket, RTM_GETLINK, links, [&](const nlmsghdr& answer) {
        network.interfaces.push_back(readLink(answer, socket));
    });
    if (!hasLinks) return std::nullopt;
    for (const int family : {AF_INET, AF_INET6}) {
        ifaddrmsg addresses{};
        addresses.ifa_family = static_cast<std::uint8_t>(family);
        rtmsg routes{};
        routes.rtm_family = static_cast<std::uint8_t>(family);
        routes.rtm_table = RT_TABLE_MAIN;
        const bool isComplete =
            dump(socket, RTM_GETADDR, addresses,
                 [&](const nlmsghdr& answer) { readAddress(answer, network); }) &&
            dump(socket, RTM_GETROUTE, routes,
                 [&](const nlmsghdr& answer) { readRoute(answer, network); });
        if (!isComplete) return std::nullopt;
    }
    std::ranges::sort(network.interfaces, {}, &NetworkInterface::index);
    chooseShownNames(network.interfaces);
    return network;
}

}  // namespace

std::optional<NetworkState> readNetworkState() {
    // A change in the middle of an answer spoils it; the next attempt sees it.
    for (int attempt = 0; attempt < 10; ++attempt) {
        const FileDescriptor socket = openRouteSocket(0, 0);
        if (!socket) return std::nullopt;
        const int yes = 1;
        ::setsockopt(socket.get(), SOL_NETLINK, NETLINK_GET_STRICT_CHK, &yes, sizeof yes);
        if (auto network = readOnce(socket)) return network;
    }
    return std::nullopt;
}

FileDescriptor openChangeReports() {
    return openRouteSocket(RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR |
                               RTMGRP_IPV4_ROUTE | RTMGRP_IPV6_ROUTE,
                           SOCK_NONBLOCK);
}

void discardReports(const FileDescriptor& reports) {
    std::array<char, 8192> buffer;
    // That reports were lost is no loss: any report has the picture taken anew.
    while (::recv(reports.get(), buffer.data(), buffer.size(), MSG_DONTWAIT) >= 0 ||
           errno == ENOBUFS || errno == EINTR) {
    }
}

}  // namespace platform
