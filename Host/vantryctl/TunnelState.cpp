#include "Host/vantryctl/TunnelState.h"

#include <algorithm>

namespace vantryctl {

using platform::NetworkInterface;

namespace {

bool carriesTheVPN(const NetworkInterface& interface, const std::vector<std::string>& names) {
    if (names.empty()) return interface.isTunnel;
    return std::ranges::find(names, interface.name) != names.end();
}

bool isInUse(const NetworkInterface& interface) {
    return interface.isUp && std::ranges::any_of(interface.addresses, [](const auto& address) {
               return !address.isLinkLocal;
           });
}

}  // namespace

std::vector<std::string> tunnelsThatAreUp(const platform::NetworkState& state,
                                          const std::vector<std::string>& names) {
    std::vector<std::string> tunnels;
    for (const auto& interface : state.interfaces)
        if (carriesTheVPN(interface, names) && isInUse(interface))
            tunnels.push_back(interface.name);
    return tunnels;
}

}  // namespace vantryctl
