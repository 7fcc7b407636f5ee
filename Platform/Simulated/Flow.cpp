#include "Platform/Simulated/Flow.h"

#include <algorithm>
#include <functional>
#include <utility>

#include "Platform/Simulated/Contracts.h"
#include "Platform/Simulated/FlowBytes.h"
#include "Platform/Simulated/Machine.h"

namespace platform::simulated {
namespace {

// Of a flow that is to be offered again whatever the generation.
constexpr std::uint64_t noGeneration = ~std::uint64_t{0};

std::shared_ptr<const NEFilterFlow> makeFilterFlow(const FlowDescription& description) {
    if (!description.isSocketFlow) return std::make_shared<NEFilterFlow>(description.auditToken);
    const int socketType = description.kind == FlowDescription::Kind::udp ? 2 : 1;
    return std::make_shared<NEFilterSocketFlow>(description.auditToken, socketType,
                                                description.remoteEndpoint);
}

std::shared_ptr<NEAppProxyFlow> makeProxyFlow(const FlowDescription& description,
                                              std::shared_ptr<ApplicationSocket> socket) {
    NEFlowMetaData metaData{description.signingIdentifier, description.auditToken};
    switch (description.kind) {
        case FlowDescription::Kind::tcp:
            return std::make_shared<NEAppProxyTCPFlow>(
                std::move(metaData), description.remoteEndpoint, std::move(socket));
        case FlowDescription::Kind::udp:
            return std::make_shared<NEAppProxyUDPFlow>(std::move(metaData),
                                                       description.remoteEndpoint);
        case FlowDescription::Kind::other:
            break;
    }
    return std::make_shared<NEAppProxyOtherFlow>(std::move(metaData), description.remoteEndpoint);
}

NENetworkRule::Protocol protocolOf(FlowDescription::Kind kind) {
    switch (kind) {
        case FlowDescription::Kind::tcp:
            return NENetworkRule::Protocol::TCP;
        case FlowDescription::Kind::udp:
            return NENetworkRule::Protocol::UDP;
        case FlowDescription::Kind::other:
            break;
    }
    return NENetworkRule::Protocol::any;
}

}  // namespace

Flow::State::State(FlowDescription flowDescription)
    : description(std::move(flowDescription)),
      lane(machine().scheduler.makeLane()),
      filterFlow(makeFilterFlow(description)),
      socket(std::make_shared<ApplicationSocket>()) {}

Flow::Flow(FlowDescription description) : state(std::make_shared<State>(std::move(description))) {}

// The application.

void Flow::sends(std::string bytes) {
    machine().scheduler.deliver(
        "outbound bytes",
        [flow = *this, sent = std::move(bytes)]() mutable {
            machine().flows.outbound(flow, std::move(sent));
        },
        state->lane);
}

void Flow::socketDoes(const char* label, std::function<void(ApplicationSocket&)> step) {
    machine().scheduler.deliver(
        label, [flow = *this, taken = std::move(step)] { taken(*flow.socket()); }, state->lane);
}

void Flow::endsSending() {
    socketDoes("application ends", [](auto& socket) { socket.applicationEndsSending(); });
}

void Flow::fails(NSError error) {
    socketDoes("application fails", [error](auto& socket) { socket.applicationFails(error); });
}

void Flow::stopsReading() { socket()->applicationStopsReading(); }
void Flow::readsOn() { socket()->applicationReadsOn(); }
void Flow::failsOpening(NSError error) { socket()->failOpening(std::move(error)); }
void Flow::opensAfter(double seconds) { socket()->delayOpening(seconds); }
void Flow::failsNextWrite(NSError error) { socket()->failNextWrite(std::move(error)); }

// What became of it.

Offer Flow::lastOffer() const {
    const MutexGuard guard(state->mutex);
    return state->offers.empty() ? Offer() : state->offers.back();
}

std::string Flow::received() const { return socket()->receivedByApplication(); }

bool Flow::isEnded() const {
    const MutexGuard guard(state->mutex);
    return state->isEnded;
}

ApplicationSocket::Record Flow::record() const { return socket()->record(); }
bool Flow::isClosed() const { return socket()->isClosed(); }

bool Flow::isClosedOnceCleanly() const {
    const auto done = record();
    const std::vector<ApplicationSocket::Close> once{std::nullopt};
    return done.readCloses == once && done.writeCloses == once;
}

bool Flow::isClosedOnceWith(const NSError& error) const {
    const auto done = record();
    const std::vector<ApplicationSocket::Close> once{error};
    return done.readCloses == once && done.writeCloses == once;
}

std::shared_ptr<ApplicationSocket> Flow::socket() const {
    const MutexGuard guard(state->mutex);
    return state->socket;
}

std::shared_ptr<NEAppProxyTCPFlow> Flow::object() const {
    const auto& description = state->description;
    return std::make_shared<NEAppProxyTCPFlow>(
        NEFlowMetaData{description.signingIdentifier, description.auditToken},
        description.remoteEndpoint, socket());
}

// Offers.

Offer Flows::offer(const Flow& flow) {
    auto& state = *flow.state;
    const auto protocol = protocolOf(state.description.kind);
    auto& providers = machine().providers;
    return show(state, providers.isProxyOffered(protocol, state.description.remoteEndpoint),
                providers.isFilterAsked(), currentGeneration());
}

Offer Flows::offerToProxy(const Flow& flow) {
    return show(*flow.state, true, false, currentGeneration());
}

Offer Flows::show(Flow::State& state, bool toProxy, bool toFilter, std::uint64_t generationShown) {
    const auto changesBefore = ruleChanges.load();
    std::shared_ptr<ApplicationSocket> socket;
    {
        const MutexGuard guard(state.mutex);
        state.generation = generationShown;
        state.ruleChanges = changesBefore;
        socket = state.socket;
    }
    Offer offer;
    if (toProxy) socket->holdOpening();
    // Held until the proxy's answer is known to its other side: a declined object is let go then.
    const auto object = toProxy ? makeProxyFlow(state.description, socket) : nullptr;
    if (toProxy) offer.claimed = showToProxy(object);
    if (toFilter) {
        offer.verdict = machine().providers.filter()->handleNewFlow(*state.filterFlow);
        checkNoLockIsHeld("handleNewFlow of the filter");
    }
    {
        const MutexGuard guard(state.mutex);
        state.offers.push_back(offer);
        const bool isSettled = changesBefore % 2 == 0 && changesBefore == ruleChanges.load();
        if (!isSettled) state.generation = noGeneration;
        state.isWatched = offer.watched() && offer.verdict->filterOutbound;
        state.peekBytes = offer.watched() ? offer.verdict->peekOutboundBytes : 0;
        if (offer.dropped()) end(state);
    }
    if (!offer.dropped() && toProxy) socket->admit(offer.claimed);
    return offer;
}

bool Flows::showToProxy(const std::shared_ptr<NEAppProxyFlow>& object) {
    const bool claimed = machine().providers.proxy()->handleNewFlow(object);
    checkNoLockIsHeld("handleNewFlow of the proxy");
    if (claimed && dynamic_cast<const NEAppProxyTCPFlow*>(object.get()) == nullptr)
        breach("the proxy claims a flow that is not a TCP flow");
    return claimed;
}

std::optional<NEFilterDataVerdict> Flows::outbound(const Flow& flow, std::string bytes) {
    auto& state = *flow.state;
    reofferIfDue(state);
    askFilterIfDue(state);
    {
        const MutexGuard guard(state.mutex);
        if (state.isEnded) return std::nullopt;
        if (!state.isWatched) {
            pass(state, bytes);
            return std::nullopt;
        }
    }
    return showBytes(state, std::move(bytes));
}

// A flow that was declined and let pass is shown once more after a rule has left the settings, as a
// new flow object. If it is now claimed or dropped it is ended, and its application connects again.
void Flows::reofferIfDue(Flow::State& state) {
    {
        const MutexGuard guard(state.mutex);
        const bool isDue = !state.offers.empty() && state.generation != currentGeneration() &&
                           !state.isEnded && !state.isWatched && !state.offers.back().claimed;
        if (!isDue) return;
        state.socket = std::make_shared<ApplicationSocket>();
    }
    auto& providers = machine().providers;
    const auto protocol = protocolOf(state.description.kind);
    const auto again =
        show(state, providers.isProxyOffered(protocol, state.description.remoteEndpoint),
             providers.isFilterAsked(), currentGeneration());
    const MutexGuard guard(state.mutex);
    if (again.claimed && !state.isEnded) end(state);
}

// Once a change of the rules is over, the filter may want to watch or drop what it has let pass.
void Flows::askFilterIfDue(Flow::State& state) {
    std::uint64_t declinedIn = 0;
    {
        const MutexGuard guard(state.mutex);
        const bool isDue = !state.offers.empty() &&
                           state.ruleChanges / 2 != ruleChanges.load() / 2 && !state.isEnded &&
                           !state.isWatched && !state.offers.back().claimed;
        if (!isDue) return;
        declinedIn = state.generation;
    }
    if (machine().providers.isFilterAsked()) show(state, false, true, declinedIn);
}

// The filter sees what has not passed yet, once there is as much as it asked for.
std::optional<NEFilterDataVerdict> Flows::showBytes(Flow::State& state, std::string bytes) {
    std::int64_t offset = 0;
    {
        const MutexGuard guard(state.mutex);
        state.unpassed += bytes;
        if (state.unpassed.size() < state.peekBytes) return std::nullopt;
        bytes = state.unpassed;
        offset = state.offset;
    }
    const auto verdict = machine().providers.filter()->handleOutboundData(
        *state.filterFlow, offset, makeFlowBytes(std::move(bytes)));
    checkNoLockIsHeld("handleOutboundData");
    const MutexGuard guard(state.mutex);
    switch (verdict.kind) {
        case NEFilterDataVerdict::Kind::drop:
            end(state);
            break;
        case NEFilterDataVerdict::Kind::allow:
            state.isWatched = false;
            pass(state, std::exchange(state.unpassed, {}));
            break;
        case NEFilterDataVerdict::Kind::data: {
            const auto length = std::min(verdict.passBytes, state.unpassed.size());
            pass(state, state.unpassed.substr(0, length));
            state.unpassed.erase(0, length);
            state.offset += static_cast<std::int64_t>(length);
            state.peekBytes = verdict.peekBytes;
            break;
        }
    }
    return verdict;
}

void Flows::pass(Flow::State& state, const std::string& bytes) {
    const bool goesToProxy = state.offers.empty() || state.offers.back().claimed;
    if (goesToProxy && !bytes.empty()) state.socket->applicationSends(bytes);
}

void Flows::end(Flow::State& state) {
    state.isEnded = true;
    state.isWatched = false;
    state.unpassed.clear();
    state.socket->drop();
}

}  // namespace platform::simulated
