#include "Platform/Linux/Network/NetworkState.h"

#include <algorithm>
#include <limits>

namespace platform {

bool NetworkInterface::isAvailable() const {
    const bool hasAddress = std::ranges::any_of(
        addresses, [](const InterfaceAddress& address) { return !address.isLinkLocal; });
    return isUp && type != NWInterface::InterfaceType::loopback && hasAddress && (ipv4 || ipv6);
}

std::uint32_t NetworkInterface::metric() const {
    auto smallest = std::numeric_limits<std::uint32_t>::max();
    for (const auto* route : {&ipv4, &ipv6})
        if (*route) smallest = std::min(smallest, (*route)->metric);
    return smallest;
}

const NetworkInterface* NetworkState::named(std::string_view name) const {
    const auto found = std::ranges::find(interfaces, name, &NetworkInterface::name);
    return found == interfaces.end() ? nullptr : &*found;
}

bool NetworkState::hasAddress(const SocketAddress& address) const {
    const bool isIPv4 = address.family() == AF_INET;
    const auto* const bytes = isIPv4 ? reinterpret_cast<const std::uint8_t*>(&address.ipv4.sin_addr)
                                     : address.ipv6.sin6_addr.s6_addr;
    return std::ranges::any_of(interfaces, [&](const NetworkInterface& interface) {
        return std::ranges::any_of(interface.addresses, [&](const InterfaceAddress& present) {
            return present.family == address.family() &&
                   std::equal(bytes, bytes + (isIPv4 ? 4 : 16), present.bytes.begin());
        });
    });
}

NWPath NetworkState::path() const {
    std::vector<const NetworkInterface*> available;
    for (const auto& interface : interfaces)
        if (interface.isAvailable()) available.push_back(&interface);
    std::ranges::stable_sort(available, {},
                             [](const auto* interface) { return interface->metric(); });
    NWPath path;
    for (const auto* interface : available)
        path.availableInterfaces.emplace_back(interface->name, interface->type);
    return path;
}

}  // namespace platform
