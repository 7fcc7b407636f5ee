// The interface that direct connections leave by: the first Wi-Fi or wired one in the system's order of
// preference. And the IPv4 addresses of it and of the VPN's tunnel, for the activity log.

#include <algorithm>
#include <array>
#include <concepts>

#include "Extension/TransparentProxyProvider.h"
#include "Platform/InterfaceAddresses.h"

namespace vantry {

using platform::NWInterface;
using platform::NWPath;

namespace {

constexpr std::array physicalInterfaceTypes{NWInterface::InterfaceType::wifi,
                                            NWInterface::InterfaceType::wiredEthernet};
constexpr std::array<std::string_view, 2> vpnInterfacePrefixes{"utun", "ipsec"};

bool isPhysical(const NWInterface& interface) {
    return std::ranges::find(physicalInterfaceTypes, interface.type()) !=
           physicalInterfaceTypes.end();
}

// The numeric text of an address; null if it cannot be turned into text.
std::optional<std::string> numericHost(const sockaddr& address) {
    std::array<char, NI_MAXHOST> host{};
    if (platform::getnameinfo(&address, platform::socketAddressLength(address), host.data(),
                              static_cast<socklen_t>(host.size()), nullptr, 0, NI_NUMERICHOST) != 0)
        return std::nullopt;
    return host.data();
}

// The first IPv4 address of an interface whose name qualifies, in the system's order. Whether the
// interface is up plays no part.
template <std::predicate<std::string_view> Qualifies>
std::optional<std::string> firstIPv4Address(Qualifies&& qualifies) {
    ifaddrs* list = nullptr;
    if (platform::getifaddrs(&list) != 0 || !list) return std::nullopt;
    std::optional<std::string> found;
    for (const auto* entry = list; entry && !found; entry = entry->ifa_next)
        if (entry->ifa_addr && entry->ifa_addr->sa_family == AF_INET && qualifies(entry->ifa_name))
            found = numericHost(*entry->ifa_addr);
    platform::freeifaddrs(list);
    return found;
}

}  // namespace

// A monitor that was there before is let go, not cancelled.
void TransparentProxyProvider::startPathMonitor() {
    const auto monitor = std::make_shared<platform::NWPathMonitor>();
    {
        auto replaced = monitor;
        const platform::NSLockGuard hold(pathMonitorLock);
        pathMonitor.swap(replaced);
    }
    monitor->setPathUpdateHandler([weakSelf = weak_from_this()](const NWPath& path) {
        if (const auto self = weakSelf.lock()) self->pathChanged(path);
    });
    monitor->start(platform::DispatchQueue::global(platform::QualityOfService::utility));
}

void TransparentProxyProvider::pathChanged(const NWPath& path) {
    const auto& interfaces = path.availableInterfaces;
    const auto chosen = std::ranges::find_if(interfaces, isPhysical);
    if (chosen != interfaces.end()) {
        physicalInterface.replace(*chosen);
        logger.info("Physical interface detected: %{public}s (%{public}s)", chosen->name(),
                    platform::describe(chosen->type()));
    } else {
        logger.error("No physical interface found");
        physicalInterface.replace(std::nullopt);
    }
}

std::optional<std::string> TransparentProxyProvider::getIPForInterface(std::string_view name) {
    return firstIPv4Address([&](std::string_view candidate) { return candidate == name; });
}

std::optional<std::string> TransparentProxyProvider::getVpnTunnelIp() {
    return firstIPv4Address([](std::string_view candidate) {
        return std::ranges::any_of(vpnInterfacePrefixes, [&](std::string_view prefix) {
            return candidate.starts_with(prefix);
        });
    });
}

}  // namespace vantry
