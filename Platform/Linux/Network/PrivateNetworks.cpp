#include "Platform/Linux/Network/PrivateNetworks.h"

#include <sys/socket.h>

#include <algorithm>

#include "Platform/Linux/Network/RememberedRoutes.h"

namespace platform {

bool isPrivateNetwork(int family, const std::array<std::uint8_t, 16>& address, int prefixLength) {
    static const std::array<InterfaceAddress, 5> networks{
        {{.family = AF_INET, .bytes = {10}, .prefixLength = 8},
         {.family = AF_INET, .bytes = {172, 16}, .prefixLength = 12},
         {.family = AF_INET, .bytes = {192, 168}, .prefixLength = 16},
         {.family = AF_INET, .bytes = {100, 64}, .prefixLength = 10},
         {.family = AF_INET6, .bytes = {0xfc}, .prefixLength = 7}}};
    return std::ranges::any_of(networks, [&](const InterfaceAddress& network) {
        return network.family == family && prefixLength >= network.prefixLength &&
               isOnLinkOf(network, address);
    });
}

}  // namespace platform
