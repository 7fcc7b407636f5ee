// What kind of network interface a link is, from what the kernel says about it. Pure functions.
#pragma once

#include <string_view>
#include <vector>

#include "Platform/Linux/Network/NetworkState.h"

namespace platform {

// `hardwareType` is the link's ARPHRD number, `linkKind` the name of its driver family ("veth",
// "wireguard"; empty for hardware), `isWireless` whether it has a radio, `isCellular` whether that
// is a modem's.
NWInterface::InterfaceType interfaceType(unsigned hardwareType, std::string_view linkKind,
                                         bool isWireless, bool isCellular);
// True for what carries packets inside other packets. A modem's link may look like one, and is none.
bool isTunnelLink(unsigned hardwareType, std::string_view linkKind, bool isCellular);

// Gives every tunnel the name under which it is shown; a name that has the form already stays, and
// no two are the same.
void chooseShownNames(std::vector<NetworkInterface>& interfaces);

}  // namespace platform
