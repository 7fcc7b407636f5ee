#include "Platform/Linux/Network/Connection.h"
#include "Platform/Linux/DirectSessions.h"

#include <net/if.h>
#include <netdb.h>
#include <netinet/tcp.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "Platform/Linux/Network/LocalPorts.h"
#include "Platform/Linux/Network/NameResolver.h"
#include "Platform/Linux/Network/NetworkMonitor.h"
#include "Platform/Linux/OwnTraffic.h"
#include "Platform/Linux/Recording/RecordedEnds.h"
#include "Platform/Linux/Relay/RelaySocketOptions.h"
#include "Platform/Linux/SystemError.h"

namespace platform {

namespace {

// How long one address may keep the next one waiting.
constexpr double secondsBetweenAddresses = 0.25;

// How many local ports are tried before the choice is left to the kernel.
constexpr int localPortsToTry = 8;

// True for errors that another state of the network may cure; the others are the peer's word or the
// machine's.
bool dependsOnNetwork(int error) {
    switch (error) {
        case ENETUNREACH:
        case EHOSTUNREACH:
        case ENETDOWN:
        case EHOSTDOWN:
        case ENONET:
        case ENODEV:
        case EADDRNOTAVAIL:
        case ETIMEDOUT:
            return true;
        default:
            return false;
    }
}

Result<> setOption(const FileDescriptor& socket, int level, int option, int value) {
    const int set = ::setsockopt(socket.get(), level, option, &value, sizeof value);
    return set == 0 ? Result<>() : Error::last();
}

Result<> bindToLocalPort(const FileDescriptor& socket, int family, std::uint16_t port) {
    auto set = setOption(socket, SOL_SOCKET, SO_REUSEADDR, 1);
    if (!set) return set;
    const SocketAddress any = SocketAddress::unspecified(family, port);
    return ::bind(socket.get(), &any.any, any.length) == 0 ? Result<>() : Error::last();
}

NSError resolverError(int code) { return {"dns", code, ::gai_strerror(code)}; }

}  // namespace

// The connections that a loop serves, to be told of changes of the network; each thread has its own.
class SocketConnection::OfOneLoop {
public:
    static OfOneLoop& current() {
        thread_local OfOneLoop connections;
        return connections;
    }

    void add(SocketConnection& connection) {
        connection.nextOfLoop = first;
        if (first != nullptr) first->previousOfLoop = &connection;
        first = &connection;
    }
    void remove(SocketConnection& connection) {
        if (connection.previousOfLoop != nullptr)
            connection.previousOfLoop->nextOfLoop = connection.nextOfLoop;
        else if (first == &connection)
            first = connection.nextOfLoop;
        if (connection.nextOfLoop != nullptr)
            connection.nextOfLoop->previousOfLoop = connection.previousOfLoop;
        connection.previousOfLoop = connection.nextOfLoop = nullptr;
    }

    // From the first connection of the process on.
    static void followNetwork() {
        static const auto token = NetworkMonitor::shared().observe([](const auto& network) {
            for (const auto& each : EventLoopPool::shared().loops())
                each->post([network] { current().networkChanged(*network); });
        });
    }

private:
    void networkChanged(const NetworkState& network) {
        // A connection that ends by it leaves the list.
        for (SocketConnection* next = first; next != nullptr;)
            std::exchange(next, next->nextOfLoop)->networkChanged(network);
    }

    SocketConnection* first = nullptr;
};

SocketConnection::SocketConnection(std::string remoteHost, std::uint16_t remotePort,
                                   const NWParameters& parameters,
                                   std::shared_ptr<RelayFailure> failureOfThis)
    : host(std::move(remoteHost)),
      port(remotePort),
      interfaceName(parameters.requiredInterface
                        ? std::optional(parameters.requiredInterface->name())
                        : std::nullopt),
      failure(std::move(failureOfThis)) {}

SocketConnection::~SocketConnection() = default;

template <class Work>
void SocketConnection::perform(Work work) {
    EventLoop* home = nullptr;
    EventLoop& candidate = EventLoopPool::shared().currentOrNext();
    if (loop.compare_exchange_strong(home, &candidate)) home = &candidate;
    if (home->isCurrent()) return work();
    home->post([self = shared_from_this(), work = std::move(work)]() mutable { work(); });
}

template <class Completion, class... Results>
void SocketConnection::later(Completion completion, Results... results) {
    auto work = [completion = std::move(completion), ... results = std::move(results)]() mutable {
        completion(std::move(results)...);
    };
    if (deliversOnMainQueue)
        DispatchQueue::main().async(std::move(work));
    else
        loop.load()->post(std::move(work));
}

template <class Completion, class... Results>
void SocketConnection::now(Completion completion, Results... results) {
    if (deliversOnMainQueue) return later(std::move(completion), std::move(results)...);
    completion(std::move(results)...);
}

void SocketConnection::setStateHandler(StateHandler handler) {
    replaceHandler(std::make_shared<const StateHandler>(std::move(handler)));
}

std::shared_ptr<const SocketConnection::StateHandler> SocketConnection::currentHandler() {
    const MutexGuard hold(handlerLock);
    return stateHandler;
}

// What the handler before held is let go outside the lock.
void SocketConnection::replaceHandler(std::shared_ptr<const StateHandler> handler) {
    const MutexGuard hold(handlerLock);
    stateHandler.swap(handler);
}

void SocketConnection::start(DispatchQueue queue) {
    perform([this, queue] {
        if (state != Kind::setup) return;
        deliversOnMainQueue = queue.isMain();
        OfOneLoop::followNetwork();
        OfOneLoop::current().add(*this);
        connect();
    });
}

void SocketConnection::cancel() {
    perform([this] {
        if (state == Kind::cancelled) return;
        const bool wasStarted = state != Kind::setup;
        if (state != Kind::ready) failure->note();
        OfOneLoop::current().remove(*this);
        giveUpAttempts();
        failOperations(ECANCELED);
        if (const auto ended = std::exchange(socket, nullptr))
            isHeldBack ? ended->reset() : ended->finish(farewell());
        if (!wasStarted) replaceHandler(nullptr);
        enter(Kind::cancelled);
    });
}

void SocketConnection::holdBack() {
    perform([this] {
        if (std::exchange(isHeldBack, true) || !socket) return;
        socket->holdBack();
    });
}

void SocketConnection::letGo() {
    perform([this] {
        replaceHandler(nullptr);
        cancel();
    });
}

void SocketConnection::send(Data content, SendCompletion completion) {
    perform([this, content = std::move(content), completion = std::move(completion)]() mutable {
        sending = std::move(content);
        sendCompletion = std::move(completion);
        if (hasEnded()) return failOperations(ECANCELED);
        if (socket && !isHeldBack) beginSending();
    });
}

void SocketConnection::receive(std::size_t minimum, std::size_t maximum,
                               ReceiveCompletion completion) {
    perform([this, minimum, maximum, completion = std::move(completion)]() mutable {
        receiving = Receiving{minimum, maximum, std::move(completion)};
        if (hasEnded()) return failOperations(ECANCELED);
        if (socket && !isHeldBack) beginReceiving();
    });
}

void SocketConnection::connect() {
    ++round;
    triedOn = NetworkMonitor::shared().state();
    enter(Kind::preparing);
    if (const auto address = SocketAddress::fromNumeric(host, port))
        return tryAddresses({*address});
    resolveName(host, port, [self = shared_from_this(), asked = round](ResolvedName name) mutable {
        EventLoop& home = *self->loop.load();
        home.post([self = std::move(self), asked, name = std::move(name)] {
            if (self->state != Kind::preparing || self->round != asked) return;
            if (name.addresses.empty()) return self->waitForNetwork(resolverError(name.error));
            self->tryAddresses(name.addresses);
        });
    });
}

void SocketConnection::tryAddresses(std::vector<SocketAddress> addresses) {
    attempts = std::make_unique<Attempts>();
    attempts->addresses = std::move(addresses);
    tryNextAddress();
}

void SocketConnection::tryNextAddress() {
    while (attempts->next < attempts->addresses.size()) {
        const auto begun = beginAttempt(attempts->addresses[attempts->next++]);
        if (begun) return tryAnotherSoon();
        attemptFailed(begun.error().code());
    }
    if (attempts->underWay.empty()) allAttemptsFailed();
}

Result<> SocketConnection::beginAttempt(const SocketAddress& address) {
    if (!interfaceName) return beginAttempt(address, 0);
    for (int tried = 0; tried < localPortsToTry; ++tried) {
        auto begun = beginAttempt(address, LocalPorts::ofThisThread().next());
        const int error = begun ? 0 : begun.error().code();
        const bool isPortTaken = error == EADDRINUSE || error == EADDRNOTAVAIL;
        if (!isPortTaken) return begun;
    }
    return beginAttempt(address, 0);
}

// From `localPort`; 0 is the kernel's choice.
Result<> SocketConnection::beginAttempt(SocketAddress address, std::uint16_t localPort) {
    FileDescriptor descriptor(
        ::socket(address.family(), SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, IPPROTO_TCP));
    if (!descriptor) return Error::last();
    if (auto bound = bindToInterface(descriptor); !bound) return bound;
    if (address.family() == AF_INET6 && IN6_IS_ADDR_LINKLOCAL(&address.ipv6.sin6_addr) &&
        address.ipv6.sin6_scope_id == 0)
        address.ipv6.sin6_scope_id = static_cast<std::uint32_t>(interfaceIndex);
    if (const auto mark = OwnTraffic::mark()) {
        auto set = setOption(descriptor, SOL_SOCKET, SO_MARK, static_cast<int>(mark));
        if (!set) return set;
    }
    setRelayOptions(descriptor);
    if (localPort != 0) {
        auto bound = bindToLocalPort(descriptor, address.family(), localPort);
        if (!bound) return bound;
    }
    const auto attempt = std::make_shared<StreamSocket>(*loop.load(), std::move(descriptor), *this);
    auto begun = attempt->connect(&address.any, address.length);
    if (begun) attempts->underWay.push_back(attempt);
    return begun;
}

// By index, so that a later interface of the same name is told from this one.
Result<> SocketConnection::bindToInterface(const FileDescriptor& descriptor) {
    if (!interfaceName) return {};
    const auto network = NetworkMonitor::shared().state();
    if (const auto* known = network->named(*interfaceName))
        interfaceIndex = known->index;
    else
        interfaceIndex = static_cast<int>(::if_nametoindex(interfaceName->c_str()));
    if (interfaceIndex == 0) return Error(ENODEV);
    return setOption(descriptor, SOL_SOCKET, SO_BINDTOIFINDEX, interfaceIndex);
}

void SocketConnection::tryAnotherSoon() {
    if (attempts->next == attempts->addresses.size()) return;
    loop.load()->after(
        secondsBetweenAddresses, [weak = weak_from_this(), asked = round, next = attempts->next] {
            const auto self = weak.lock();
            if (self && self->round == asked && self->attempts && self->attempts->next == next)
                self->tryNextAddress();
        });
}

void SocketConnection::connectDone(StreamSocket& attempt, int error) {
    const auto self = shared_from_this();
    if (!attempts) return;
    if (error == 0) return connected(attempt);
    attempt.reset();
    std::erase_if(attempts->underWay, [&](const auto& one) { return one.get() == &attempt; });
    attemptFailed(error);
    tryNextAddress();
}

void SocketConnection::attemptFailed(int error) {
    // The peer's word tells more than that it could not be reached another way.
    if (attempts->error == 0 || dependsOnNetwork(attempts->error)) attempts->error = error;
}

void SocketConnection::connected(StreamSocket& attempt) {
    triedOn.reset();
    const auto ended = std::move(attempts);
    for (auto& one : ended->underWay) {
        if (one.get() == &attempt)
            socket = one;
        else
            one->reset();
    }
    enter(Kind::ready);
    if (isHeldBack) return socket->holdBack();
    if (sendCompletion) beginSending();
    if (receiving) beginReceiving();
}

void SocketConnection::giveUpAttempts() {
    if (const auto ended = std::move(attempts))
        for (const auto& one : ended->underWay) one->reset();
}

void SocketConnection::allAttemptsFailed() {
    const int error = std::exchange(attempts, nullptr)->error;
    if (dependsOnNetwork(error))
        waitForNetwork(systemError(error));
    else
        fail(systemError(error));
}

void SocketConnection::waitForNetwork(NSError error) {
    enter(Kind::waiting, std::move(error));
    // What changed while the attempts were under way may have come too late for them.
    if (hasChangedFor(*NetworkMonitor::shared().state())) connect();
}

// Another try may fare better only where the way that it takes has changed; that an address or a
// tunnel elsewhere comes and goes is none of its business.
bool SocketConnection::hasChangedFor(const NetworkState& network) const {
    if (!interfaceName) return network != *triedOn;
    const auto* const before = triedOn->named(*interfaceName);
    const auto* const now = network.named(*interfaceName);
    return before != nullptr && now != nullptr ? *before != *now : before != now;
}

void SocketConnection::fail(NSError error) {
    failure->note();
    OfOneLoop::current().remove(*this);
    failOperations(static_cast<int>(error.code));
    enter(Kind::failed, std::move(error));
}

void SocketConnection::networkChanged(const NetworkState& network) {
    if (state == Kind::waiting && hasChangedFor(network)) return connect();
    if (state != Kind::ready || !interfaceName) return;
    const auto* const present = network.named(*interfaceName);
    const bool isInterfaceThere = present != nullptr && present->index == interfaceIndex;
    if (isInterfaceThere && isAddressIn(network)) return;
    // The interface is no more, or the address that the peer answers to, and no byte will ever pass
    // again; the system itself would try for a quarter of an hour.
    if (const auto ended = std::exchange(socket, nullptr)) ended->reset();
    fail(systemError(ENETDOWN));
}

bool SocketConnection::isAddressIn(const NetworkState& network) const {
    const auto local = socket->localAddress();
    const auto address = SocketAddress::from(reinterpret_cast<const sockaddr&>(local));
    return !address || network.hasAddress(*address);
}

void SocketConnection::beginSending() { socket->write(std::move(sending)); }

void SocketConnection::beginReceiving() { socket->read(receiving->minimum, receiving->maximum); }

void SocketConnection::readDone(Data data, bool isEnd, int error) {
    const auto self = shared_from_this();
    auto completion = std::move(receiving->completion);
    receiving.reset();
    std::optional<Data> bytes;
    if (!data.isEmpty()) bytes = std::move(data);
    now(std::move(completion), std::move(bytes), NWConnection::ContentContext::defaultMessage,
        isEnd, noted(error));
}

void SocketConnection::writeDone(int error) {
    const auto self = shared_from_this();
    now(std::exchange(sendCompletion, {}), noted(error));
}

StreamSocket::Farewell SocketConnection::farewell() const {
    using Farewell = StreamSocket::Farewell;
    return failure->isNoted() ? Farewell::untilReset : Farewell::untilDelivered;
}

std::optional<NSError> SocketConnection::noted(int error) {
    if (error == 0) return std::nullopt;
    failure->note();
    return systemError(error);
}

void SocketConnection::failOperations(int error) {
    sending = Data();
    if (!sendCompletion && !receiving) return;
    const std::optional<NSError> reason = systemError(error);
    if (sendCompletion) later(std::exchange(sendCompletion, {}), reason);
    if (!receiving) return;
    auto completion = std::move(receiving->completion);
    receiving.reset();
    later(std::move(completion), std::optional<Data>(),
          NWConnection::ContentContext::defaultMessage, false, reason);
}

void SocketConnection::enter(Kind kind, std::optional<NSError> error) {
    state = kind;
    auto current = currentHandler();
    if (!current) return;
    NWConnection::State news{kind, std::move(error)};
    if (deliversOnMainQueue)
        return DispatchQueue::main().async(
            [handler = std::move(current), news = std::move(news)] { (*handler)(news); });
    loop.load()->post([self = shared_from_this(), news = std::move(news)] {
        // Held by this call too: it may be let go from inside. Nothing follows the last state.
        const auto handler = self->currentHandler();
        if (news.kind == Kind::cancelled) self->replaceHandler(nullptr);
        if (handler) (*handler)(news);
    });
}

namespace {

std::shared_ptr<NWConnection::Implementation> implementationOf(const NWEndpoint::Host& host,
                                                               NWEndpoint::Port port,
                                                               const NWParameters& parameters) {
    auto made = OfferInProgress::connectionTo(host.text(), port.rawValue(), parameters);
    if (!made) made = std::make_shared<SocketConnection>(host.text(), port.rawValue(), parameters);
    return recording::followed(std::move(made), host.text(), port.rawValue(), parameters);
}

}  // namespace

// The seam hands over values; only their parts are kept here.
// NOLINTNEXTLINE(performance-unnecessary-value-param)
NWConnection::NWConnection(NWEndpoint::Host host, NWEndpoint::Port port, NWParameters parameters)
    : implementation(implementationOf(host, port, parameters)) {}

NWConnection::~NWConnection() { implementation->letGo(); }

void NWConnection::setStateUpdateHandler(std::function<void(const State&)> handler) {
    handler = DirectSessions::following(std::move(handler));
    implementation->setStateHandler(std::move(handler));
}

void NWConnection::start(DispatchQueue queue) { implementation->start(queue); }

void NWConnection::cancel() { implementation->cancel(); }

void NWConnection::holdBack() { implementation->holdBack(); }

void NWConnection::send(Data content, ContentContext, bool, SendCompletion completion) {
    implementation->send(std::move(content), std::move(completion));
}

void NWConnection::receive(std::size_t minimumIncompleteLength, std::size_t maximumLength,
                           ReceiveCompletion completion) {
    implementation->receive(minimumIncompleteLength, maximumLength, std::move(completion));
}

}  // namespace platform
