#include "Platform/Linux/Network/RememberedRoutes.h"

#include <sys/socket.h>

#include <algorithm>

namespace platform {

bool isOnLinkOf(const InterfaceAddress& address, const std::array<std::uint8_t, 16>& gateway) {
    const auto wholeBytes = static_cast<std::size_t>(address.prefixLength / 8);
    const int bits = address.prefixLength % 8;
    if (!std::equal(gateway.begin(), gateway.begin() + static_cast<std::ptrdiff_t>(wholeBytes),
                    address.bytes.begin()))
        return false;
    if (bits == 0) return true;
    const int shift = 8 - bits;
    return gateway[wholeBytes] >> shift == address.bytes[wholeBytes] >> shift;
}

namespace {

bool reaches(const NetworkInterface& interface, int family,
             const std::array<std::uint8_t, 16>& gateway) {
    return std::ranges::any_of(interface.addresses, [&](const InterfaceAddress& address) {
        return address.family == family && isOnLinkOf(address, gateway);
    });
}

void remember(const NetworkInterface& interface, int family,
              const std::optional<DefaultRoute>& before, std::optional<DefaultRoute>& now) {
    if (now || !before || !before->gateway) return;
    if (!interface.isUp || !reaches(interface, family, *before->gateway)) return;
    now = before;
    now->isRemembered = true;
}

}  // namespace

void rememberRoutes(const NetworkState& before, NetworkState& now) {
    for (auto& interface : now.interfaces) {
        const auto same =
            std::ranges::find(before.interfaces, interface.index, &NetworkInterface::index);
        if (same == before.interfaces.end()) continue;
        remember(interface, AF_INET, same->ipv4, interface.ipv4);
        remember(interface, AF_INET6, same->ipv6, interface.ipv6);
    }
}

}  // namespace platform
