// What the two ends of a relayed connection know of each other: that one of them failed. The core closes
// both in the same way after an end and after a failure; but after a failure bytes may be missing, which the
// application and its server are to see as a reset, as they would without a relay.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "Platform/Linux/CarriedEnds.h"

namespace platform {

class SocketFlow;

// Any thread.
class RelayFailure {
public:
    void note() { isNoted_ = true; }
    bool isNoted() const { return isNoted_; }

private:
    std::atomic<bool> isNoted_{false};
};

// While the calling thread offers `flow` to the proxy: the connection that is made meanwhile to this host
// and port is its other end.
class RelayPairing final : public OfferInProgress {
public:
    RelayPairing(const SocketFlow& offered, std::string flowHost, std::uint16_t flowPort);

private:
    std::shared_ptr<NWConnection::Implementation> pairWith(const std::string& host,
                                                           std::uint16_t port,
                                                           const NWParameters& parameters) override;

    const SocketFlow& flow;
    const std::string destination;
    const std::uint16_t destinationPort;
};

}  // namespace platform
