// An outgoing connection over a socket of one event loop. It belongs to the loop whose thread first
// uses it, so that a connection started from a flow's callback is served where the flow is. All of it
// but the entry points happens on that loop's thread.
#pragma once

#include <atomic>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Platform/Common/Mutex.h"
#include "Platform/Linux/CarriedEnds.h"
#include "Platform/Linux/Dispatch/EventLoop.h"
#include "Platform/Linux/Network/NetworkState.h"
#include "Platform/Linux/Network/SocketAddress.h"
#include "Platform/Linux/Relay/RelayPairing.h"
#include "Platform/Linux/Relay/StreamSocket.h"
#include "Platform/Linux/Result.h"

namespace platform {

class SocketConnection final : public NWConnection::Implementation,
                               public std::enable_shared_from_this<SocketConnection>,
                               public StreamSocket::Owner {
public:
    using SendCompletion = NWConnection::SendCompletion;
    using ReceiveCompletion = NWConnection::ReceiveCompletion;

    // `failure` is shared with the flow that the connection carries.
    SocketConnection(std::string remoteHost, std::uint16_t remotePort,
                     const NWParameters& parameters,
                     std::shared_ptr<RelayFailure> failure = std::make_shared<RelayFailure>());
    ~SocketConnection() override;

    // The connection's operations. Any thread.
    void setStateHandler(StateHandler handler) override;
    void start(DispatchQueue queue) override;
    void cancel() override;
    void holdBack() override;
    void send(Data content, SendCompletion completion) override;
    void receive(std::size_t minimum, std::size_t maximum, ReceiveCompletion completion) override;
    void letGo() override;

private:
    using Kind = NWConnection::State::Kind;

    // The addresses being tried, and how it goes.
    struct Attempts {
        std::vector<SocketAddress> addresses;
        std::size_t next = 0;
        std::vector<std::shared_ptr<StreamSocket>> underWay;
        int error = 0;  // the one that tells most so far
    };
    struct Receiving {
        std::size_t minimum;
        std::size_t maximum;
        ReceiveCompletion completion;
    };
    class OfOneLoop;

    template <class Work>
    void perform(Work work);
    // Runs a completion on the queue that `start` was given, in a turn of its own.
    template <class Completion, class... Results>
    void later(Completion completion, Results... results);
    // Runs it now where that queue is the loop's own, from a turn of the loop.
    template <class Completion, class... Results>
    void now(Completion completion, Results... results);

    void connect();
    void tryAddresses(std::vector<SocketAddress> addresses);
    void tryNextAddress();
    Result<> beginAttempt(const SocketAddress& address);
    Result<> beginAttempt(SocketAddress address, std::uint16_t localPort);
    Result<> bindToInterface(const FileDescriptor& descriptor);
    void tryAnotherSoon();
    void connectDone(StreamSocket& attempt, int error) override;
    void attemptFailed(int error);
    void connected(StreamSocket& attempt);
    void giveUpAttempts();
    void allAttemptsFailed();
    void waitForNetwork(NSError error);
    void fail(NSError error);
    void networkChanged(const NetworkState& network);
    bool hasChangedFor(const NetworkState& network) const;
    bool isAddressIn(const NetworkState& network) const;

    void beginSending();
    void beginReceiving();
    void readDone(Data data, bool isEnd, int error) override;
    void writeDone(int error) override;
    StreamSocket::Farewell farewell() const;
    // The error of an operation, none for 0; noted for the other end of a relay.
    std::optional<NSError> noted(int error);
    void failOperations(int error);

    std::shared_ptr<const StateHandler> currentHandler();
    void replaceHandler(std::shared_ptr<const StateHandler> handler);
    void enter(Kind kind, std::optional<NSError> error = std::nullopt);
    bool hasEnded() const { return state == Kind::failed || state == Kind::cancelled; }

    const std::string host;
    const std::uint16_t port;
    const std::optional<std::string> interfaceName;
    const std::shared_ptr<RelayFailure> failure;
    std::atomic<EventLoop*> loop{nullptr};
    // Set before `start` on any thread, which a cancel on the loop may overlap. Held by itself, as it
    // may be let go while it runs.
    Mutex handlerLock;
    std::shared_ptr<const StateHandler> stateHandler GUARDED_BY(handlerLock);

    Kind state = Kind::setup;
    bool deliversOnMainQueue = false;
    bool isHeldBack = false;
    std::shared_ptr<const NetworkState> triedOn;  // the network as the present attempts began
    int interfaceIndex = 0;                       // of the interface that the socket is bound to
    unsigned round = 0;  // of attempts: tells a late answer from one that is awaited
    std::unique_ptr<Attempts> attempts;
    std::shared_ptr<StreamSocket> socket;
    Data sending;
    SendCompletion sendCompletion;
    std::optional<Receiving> receiving;

    // The neighbours in the list of the loop's connections.
    SocketConnection* previousOfLoop = nullptr;
    SocketConnection* nextOfLoop = nullptr;
};

}  // namespace platform
