#include "Platform/Linux/Network/InterfaceKind.h"

#include <net/if_arp.h>

#include <algorithm>
#include <array>
#include <set>
#include <span>
#include <string>

namespace platform {
namespace {

using Type = NWInterface::InterfaceType;

constexpr std::array<std::string_view, 16> tunnelKinds{
    "tun", "wireguard", "ovpn", "ppp",  "ipip", "sit",    "gre",    "ip6gre",
    "vti", "vti6",      "xfrm", "l2tp", "fou",  "ip6tnl", "gretap", "ip6gretap"};
constexpr std::array<std::string_view, 3> ipsecKinds{"vti", "vti6", "xfrm"};

bool isOneOf(std::span<const std::string_view> names, std::string_view name) {
    return std::ranges::find(names, name) != names.end();
}

bool isModemLink(std::string_view linkKind, bool isCellular) {
    return isCellular || linkKind == "wwan" || linkKind == "rmnet";
}

bool hasTunnelName(const std::string& name) {
    return name.starts_with("utun") || name.starts_with("ipsec");
}

std::string freeName(std::string_view prefix, const std::set<std::string>& taken) {
    for (int number = 0;; ++number) {
        std::string name = std::string(prefix) + std::to_string(number);
        if (!taken.contains(name)) return name;
    }
}

}  // namespace

bool isTunnelLink(unsigned hardwareType, std::string_view linkKind, bool isCellular) {
    if (isModemLink(linkKind, isCellular)) return false;
    switch (hardwareType) {
        case ARPHRD_PPP:
        case ARPHRD_TUNNEL:
        case ARPHRD_TUNNEL6:
        case ARPHRD_SIT:
        case ARPHRD_IPGRE:
        case ARPHRD_NONE:
            return true;
        default:
            return isOneOf(tunnelKinds, linkKind);
    }
}

Type interfaceType(unsigned hardwareType, std::string_view linkKind, bool isWireless,
                   bool isCellular) {
    if (hardwareType == ARPHRD_LOOPBACK) return Type::loopback;
    if (isModemLink(linkKind, isCellular)) return Type::cellular;
    if (isTunnelLink(hardwareType, linkKind, isCellular)) return Type::other;
    if (hardwareType != ARPHRD_ETHER) return Type::other;
    return isWireless ? Type::wifi : Type::wiredEthernet;
}

void chooseShownNames(std::vector<NetworkInterface>& interfaces) {
    std::set<std::string> taken;
    for (auto& interface : interfaces) {
        interface.shownName = interface.name;
        taken.insert(interface.name);
    }
    for (auto& interface : interfaces) {
        if (!interface.isTunnel || hasTunnelName(interface.name)) continue;
        interface.shownName =
            freeName(isOneOf(ipsecKinds, interface.linkKind) ? "ipsec" : "utun", taken);
        taken.insert(interface.shownName);
    }
}

}  // namespace platform
