#include "Platform/Network.h"

#include "Platform/Common/Text.h"

namespace platform {

std::string_view describe(NWInterface::InterfaceType type) {
    switch (type) {
        case NWInterface::InterfaceType::wifi:
            return "wifi";
        case NWInterface::InterfaceType::cellular:
            return "cellular";
        case NWInterface::InterfaceType::wiredEthernet:
            return "wiredEthernet";
        case NWInterface::InterfaceType::loopback:
            return "loopback";
        case NWInterface::InterfaceType::other:
            break;
    }
    return "other";
}

std::optional<NWEndpoint::Port> NWEndpoint::Port::fromString(std::string_view text) {
    const auto number = decimalUInt16(text);
    if (!number) return std::nullopt;
    return Port(*number);
}

}  // namespace platform
