#include "Platform/Linux/Relay/RelayPairing.h"

#include <utility>

#include "Platform/Linux/Network/Connection.h"
#include "Platform/Linux/Relay/SocketFlow.h"

namespace platform {

RelayPairing::RelayPairing(const SocketFlow& offered, std::string flowHost, std::uint16_t flowPort)
    : flow(offered), destination(std::move(flowHost)), destinationPort(flowPort) {}

std::shared_ptr<NWConnection::Implementation> RelayPairing::pairWith(
    const std::string& host, std::uint16_t port, const NWParameters& parameters) {
    if (port != destinationPort || host != destination) return nullptr;
    return std::make_shared<SocketConnection>(host, port, parameters, flow.failure());
}

}  // namespace platform
