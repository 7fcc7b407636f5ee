#include "Platform/Linux/Interception/FlowDecisions.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <string>
#include <utility>

#include "Platform/Linux/Interception/NetworkRules.h"
#include "Platform/Linux/Relay/SocketFlow.h"
#include "Platform/Linux/SystemError.h"

namespace platform::interception {

// A flow's origin and aim, as both providers are shown them.
struct FlowDecisions::Source {
    NEFlowMetaData metaData;
    RemoteEndpoint remote;
    bool isOnlyForFilter = false;
};

namespace {

using ProxyFlow = NEAppProxyTCPFlow::Implementation;

RemoteEndpoint remoteEndpointOf(const FlowTuple& flow) {
    std::array<char, INET6_ADDRSTRLEN> text{};
    inet_ntop(flow.family, flow.destinationAddress.data(), text.data(), text.size());
    return NWHostEndpoint{text.data(), std::to_string(flow.destinationPort)};
}

bool isLinkLocal(const FlowTuple& flow) {
    const auto& address = flow.destinationAddress;
    return flow.family == AF_INET6 && address[0] == 0xfe && (address[1] & 0xc0) == 0x80;
}

// Bytes that went by and were not copied.
Data unreadBytes(std::size_t length) {
    static const auto nowhere = std::make_shared<const Data::Storage>();
    return Data(nowhere, length);
}

bool isWatching(FlowState state) {
    return state == FlowState::watched || state == FlowState::claimedAndWatched;
}

}  // namespace

FlowDecisions::FlowDecisions(Providers toAsk, MarkPlace markPlace)
    : providers(std::move(toAsk)),
      place(markPlace),
      aliases(std::make_shared<AddressAliases>()),
      entries(ConnectionEntries::openOrNull()),
      inForce(std::make_shared<const Offers>()) {}

std::shared_ptr<const Offers> FlowDecisions::offers() const {
    const MutexGuard guard(offersLock);
    return inForce;
}

void FlowDecisions::setOffers(Offers replacement) {
    auto published = std::make_shared<const Offers>(std::move(replacement));
    const MutexGuard guard(offersLock);
    inForce = std::move(published);
}

std::uint32_t FlowDecisions::markFor(const HeldPacket& packet) {
    const auto asked = offers();
    const unsigned changesBefore = ruleChanges;
    const Verdict verdict = packet.purpose == PacketPurpose::watchedData
                                ? verdictOnData(packet, *asked)
                                : verdictOnFlow(packet, *asked);
    if (verdict.state == FlowState::unseen) return packet.mark;
    if (verdict.state != FlowState::declined)
        return place.put(packet.mark, place.value(verdict.state));
    if (!isSettledSince(changesBefore)) {
        recent.forget(packet.flow);
        return place.put(packet.mark, place.value(FlowState::declined, staleGeneration));
    }
    // The verdict may have taken long, and many flushes may have come meanwhile.
    const unsigned generation = markedGeneration(verdict.generation, offers()->generation);
    return place.put(packet.mark, place.value(FlowState::declined, generation));
}

Verdict FlowDecisions::verdictOnFlow(const HeldPacket& packet, const Offers& asked) {
    Verdict verdict;
    if (const auto known = recent.find(packet, asked.generation)) {
        verdict = *known;
    } else {
        verdict = offer(packet, asked);
        recent.remember(packet, verdict);
    }
    // The first datagram, and data on a SYN, are the first bytes of a watched flow.
    if (!isWatching(verdict.state) || packet.payloadLength == 0) return verdict;
    const Verdict onBytes = verdictOnData(packet, asked);
    if (onBytes.state == FlowState::unseen) return verdict;
    recent.remember(packet, onBytes);
    return onBytes;
}

Verdict FlowDecisions::offer(const HeldPacket& packet, const Offers& asked) {
    const Source source = sourceOf(packet);
    ClaimedFlows::Flow claimed = offerToProxy(packet, source, asked);
    const bool isClaimed = claimed != nullptr;

    const int socketType = packet.flow.protocol == IPPROTO_TCP ? SOCK_STREAM : SOCK_DGRAM;
    const auto shown = std::make_shared<const NEFilterSocketFlow>(
        source.metaData.sourceAppAuditToken, socketType, source.remote);
    const NEFilterNewFlowVerdict verdict = offerToFilter(*shown, asked);

    const bool isDropped = verdict.kind == NEFilterNewFlowVerdict::Kind::drop;
    // A connection that runs already cannot be taken over, only made to begin anew.
    const bool comesTooLate = isClaimed && packet.purpose == PacketPurpose::offeredAgain;
    if (isDropped || comesTooLate) {
        if (isClaimed) claimed->failOpening(systemError(ECONNABORTED));
        return deny(packet, asked);
    }
    const bool isWatched =
        verdict.kind == NEFilterNewFlowVerdict::Kind::filterData && verdict.filterOutbound;
    if (isWatched)
        watched.add(packet.flow,
                    std::make_shared<WatchedFlow>(
                        shown, packet.tcpSequence + (packet.opensTcp ? 1u : 0u), isClaimed));
    if (isClaimed)
        return claim(packet, std::move(claimed),
                     isWatched ? FlowState::claimedAndWatched : FlowState::claimed);
    return {isWatched ? FlowState::watched : FlowState::declined, asked.generation};
}

FlowDecisions::Source FlowDecisions::sourceOf(const HeldPacket& packet) {
    Source source;
    source.remote = remoteEndpointOf(packet.flow);
    source.isOnlyForFilter = isLinkLocal(packet.flow);
    if (const auto owner = attribution.ownerOf(packet.flow)) {
        source.metaData = metaDataOf(*owner);
        source.isOnlyForFilter |= owner->isBoundToDevice;
    }
    return source;
}

ClaimedFlows::Flow FlowDecisions::offerToProxy(const HeldPacket& packet, const Source& source,
                                               const Offers& asked) {
    if (source.isOnlyForFilter || !asksFor(asked.proxyRules, packet.flow)) return nullptr;
    if (packet.flow.protocol == IPPROTO_UDP) {
        // There is nothing that could relay it, so a claim changes nothing.
        providers.proxy->handleNewFlow(
            std::make_shared<NEAppProxyUDPFlow>(source.metaData, source.remote));
        return nullptr;
    }
    if (!claims.canClaim(packet.flow.family)) return nullptr;
    auto implementation = std::make_shared<ProxyFlow>();
    // Filled when the flow turns out to be claimed; goes with the application's side.
    auto aliasHolder = std::make_shared<std::shared_ptr<void>>();
    implementation->setEndHandler([aliasHolder, open = claims.countAsOpen()] {});
    const bool isClaimed = providers.proxy->handleNewFlow(
        std::make_shared<NEAppProxyTCPFlow>(source.metaData, source.remote, implementation));
    if (!isClaimed) return nullptr;
    *aliasHolder = aliases->keepSourceOf(packet.flow);
    return implementation;
}

NEFilterNewFlowVerdict FlowDecisions::offerToFilter(const NEFilterSocketFlow& flow,
                                                    const Offers& asked) {
    if (!asked.filterAction) return NEFilterNewFlowVerdict::allowVerdict();
    switch (*asked.filterAction) {
        case NEFilterAction::filterData:
            return providers.filter->handleNewFlow(flow);
        case NEFilterAction::drop:
            return NEFilterNewFlowVerdict::dropVerdict();
        case NEFilterAction::allow:
        case NEFilterAction::remediate:
            break;
    }
    return NEFilterNewFlowVerdict::allowVerdict();
}

Verdict FlowDecisions::claim(const HeldPacket& packet, ClaimedFlows::Flow flow, FlowState state) {
    // The connection may come as soon as the verdict is given.
    claims.expect(packet.flow, std::move(flow));
    return {state, 0};
}

Verdict FlowDecisions::verdictOnData(const HeldPacket& packet, const Offers& asked) {
    const auto flow = watchedFlow(packet);
    const FlowState unwatched = flow->isClaimed() ? FlowState::claimed : FlowState::declined;
    if (asked.filterAction != NEFilterAction::filterData) {
        watched.remove(packet.flow);
        return {unwatched, asked.generation};
    }
    const NEFilterDataVerdict verdict = providers.filter->handleOutboundData(
        flow->shownAs(), flow->offsetOf(packet), unreadBytes(packet.payloadLength));
    switch (verdict.kind) {
        case NEFilterDataVerdict::Kind::drop:
            return deny(packet, asked);
        case NEFilterDataVerdict::Kind::allow:
            watched.remove(packet.flow);
            return {unwatched, asked.generation};
        case NEFilterDataVerdict::Kind::data:
            break;
    }
    return {};
}

std::shared_ptr<WatchedFlow> FlowDecisions::watchedFlow(const HeldPacket& packet) {
    if (auto known = watched.find(packet.flow)) return known;
    // It had to make room for others: who it is can be found out anew.
    const Source source = sourceOf(packet);
    const int socketType = packet.flow.protocol == IPPROTO_TCP ? SOCK_STREAM : SOCK_DGRAM;
    auto flow = std::make_shared<WatchedFlow>(
        std::make_shared<const NEFilterSocketFlow>(source.metaData.sourceAppAuditToken, socketType,
                                                   source.remote),
        packet.tcpSequence, false);
    watched.add(packet.flow, flow);
    return flow;
}

Verdict FlowDecisions::deny(const HeldPacket& packet, const Offers& asked) {
    // Ending the socket tells the application at once; the mark stops what it leaves behind.
    attribution.destroySocket(packet.flow);
    watched.remove(packet.flow);
    if (packet.flow.protocol == IPPROTO_UDP && packet.purpose != PacketPurpose::newFlow) {
        // A datagram socket may live on. Its next flow to the same place is offered anew.
        recent.forget(packet.flow);
        const MutexGuard guard(entriesLock);
        if (entries) entries->remove(packet.flow);
    }
    return {FlowState::denied, asked.generation};
}

void FlowDecisions::keepHouse() {
    constexpr std::chrono::seconds idleFor{30};
    claims.failOverdue();
    aliases->renew();
    attribution.keepHouse();
    watched.removeEnded(idleFor, [this](const FlowTuple& flow) {
        const MutexGuard guard(entriesLock);
        return entries && !entries->has(flow);
    });
}

}  // namespace platform::interception
