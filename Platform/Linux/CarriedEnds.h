// What stands behind the core's flows and connections, of which there are two kinds: those that a relay
// carries from socket to socket (Relay/SocketFlow.h, Network/Connection.h), and those that are the two ends
// of one socket, which the kernel carries (Steering/SteeredSession.h). Their contracts are those of the
// seam's objects. Any thread may call any operation.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "Platform/NEAppProxyFlow.h"
#include "Platform/Network.h"

namespace platform {

class NEAppProxyTCPFlow::Implementation {
public:
    virtual ~Implementation() = default;
    virtual void open(ErrorCompletion completion) = 0;
    virtual void read(ReadCompletion completion) = 0;
    virtual void write(Data data, ErrorCompletion completion) = 0;
    virtual void closeRead(std::optional<NSError> error) = 0;
    virtual void closeWrite(std::optional<NSError> error) = 0;
    // The flow object is gone.
    virtual void letGo() = 0;
};

class NWConnection::Implementation {
public:
    using StateHandler = std::function<void(const State&)>;

    virtual ~Implementation() = default;
    virtual void setStateHandler(StateHandler handler) = 0;
    virtual void start(DispatchQueue queue) = 0;
    virtual void cancel() = 0;
    virtual void holdBack() = 0;
    virtual void send(Data content, SendCompletion completion) = 0;
    virtual void receive(std::size_t minimum, std::size_t maximum,
                         ReceiveCompletion completion) = 0;
    // The connection object is gone.
    virtual void letGo() = 0;
};

// A flow that the calling thread is just offering to the proxy. A connection that is made meanwhile, to
// the flow's own host and port over a required interface, is the other end of that flow.
class OfferInProgress {
public:
    OfferInProgress() : before(current) { current = this; }
    virtual ~OfferInProgress() { current = before; }
    OfferInProgress(const OfferInProgress&) = delete;
    OfferInProgress& operator=(const OfferInProgress&) = delete;

    // Null without an offer, and for a connection that is none of the flow's.
    static std::shared_ptr<NWConnection::Implementation> connectionTo(
        const std::string& host, std::uint16_t port, const NWParameters& parameters) {
        return current ? current->pairWith(host, port, parameters) : nullptr;
    }

protected:
    virtual std::shared_ptr<NWConnection::Implementation> pairWith(
        const std::string& host, std::uint16_t port, const NWParameters& parameters) = 0;

private:
    OfferInProgress* const before;
    static inline thread_local OfferInProgress* current = nullptr;
};

}  // namespace platform
