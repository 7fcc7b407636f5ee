#include "Platform/Linux/Decisions/FlowDecisions.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <string>
#include <utility>

#include "Platform/Linux/Decisions/NetworkRules.h"
#include "Platform/Linux/DirectSessions.h"
#include "Platform/Linux/PlatformLog.h"
#include "Platform/Linux/RefusedFlows.h"
#include "Platform/Linux/Relay/RelayPairing.h"
#include "Platform/Linux/Relay/SocketFlow.h"
#include "Platform/Linux/SystemError.h"

namespace platform::interception {

// A flow's origin and aim, as both providers are shown them.
struct FlowDecisions::Source {
    NEFlowMetaData metaData;
    RemoteEndpoint remote;
    std::uint64_t cookie = 0;
    bool isOnlyForFilter = false;
    bool isAttributed = false;

    int socketType(const HeldPacket& packet) const {
        return packet.flow.protocol == IPPROTO_TCP ? SOCK_STREAM : SOCK_DGRAM;
    }
    std::shared_ptr<const NEFilterSocketFlow> shownFor(const HeldPacket& packet) const {
        return std::make_shared<const NEFilterSocketFlow>(metaData.sourceAppAuditToken,
                                                          socketType(packet), remote);
    }
};

// A flow that the proxy has claimed, and how it is carried.
class FlowDecisions::Claim {
public:
    virtual ~Claim() = default;
    // It is not to be.
    virtual void refuse(const NSError& error) = 0;
    // Nothing stands against it: what becomes of its first packet.
    virtual Verdict carry(FlowState state) = 0;
};

class FlowDecisions::RelayClaim final : public Claim {
public:
    RelayClaim(ClaimedFlows& claimedFlows, const FlowTuple& flowTuple,
               std::shared_ptr<SocketFlow> flow)
        : claims(claimedFlows), tuple(flowTuple), side(std::move(flow)) {}

    void refuse(const NSError& error) override { side->failOpening(error); }
    Verdict carry(FlowState state) override {
        // The connection may come as soon as the verdict is given.
        claims.expect(tuple, std::move(side));
        return {.state = state};
    }

private:
    ClaimedFlows& claims;
    const FlowTuple tuple;
    std::shared_ptr<SocketFlow> side;
};

class FlowDecisions::SteeredClaim final : public Claim {
public:
    SteeredClaim(std::unique_ptr<steering::Steering::Offer> claimed, std::shared_ptr<void> toKeep)
        : offer(std::move(claimed)), kept(std::move(toKeep)) {}

    void refuse(const NSError& error) override { offer->refuse(error); }
    Verdict carry(FlowState state) override {
        return steered(offer->claim(std::move(kept)), state);
    }

    static Verdict steered(const steering::Steering::Verdict& verdict, FlowState state) {
        using Decision = steering::SteeredSession::Decision;
        switch (verdict.decision) {
            case Decision::steer:
                return {.state = state, .uplink = verdict.number};
            case Decision::drop:
                return {.state = state, .isDropped = true};
            case Decision::unreachable:
                return {.state = FlowState::claimed, .uplink = steering::unreachableNumber};
            case Decision::deny:
                break;
        }
        return {.state = FlowState::denied};
    }

private:
    const std::unique_ptr<steering::Steering::Offer> offer;
    std::shared_ptr<void> kept;
};

namespace {

NWHostEndpoint destinationOf(const FlowTuple& flow) {
    return {steering::destinationText(flow), std::to_string(flow.destinationPort)};
}

// Empty where there is none.
std::string textIn(const JSONObject& document, std::string_view key) {
    const auto found = document.find(key);
    const auto* value = found == document.end() ? nullptr : found->second.as<std::string>();
    return value == nullptr ? std::string() : *value;
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

bool isDatagram(const HeldPacket& packet) { return packet.flow.protocol == IPPROTO_UDP; }

FlowState stateOf(bool isClaimed, bool isWatched) {
    if (isClaimed) return isWatched ? FlowState::claimedAndWatched : FlowState::claimed;
    return isWatched ? FlowState::watched : FlowState::declined;
}

}  // namespace

FlowDecisions::FlowDecisions(Providers toAsk)
    : providers(std::move(toAsk)),
      aliases(std::make_shared<AddressAliases>()),
      entries(ConnectionEntries::openOrNull()),
      inForce(std::make_shared<const Offers>()) {
    auto closes =
        ClosedFlows::begin(datagrams, [this](const FlowTuple& flow) { forgetFlow(flow); });
    if (closes) {
        closedFlows = std::move(*closes);
        return;
    }
    heardCloses.set("not told: " + closes.error().text());
    platformLog.error(
        "The kernel does not tell when datagram sockets are closed: %{public}s. For half a minute "
        "the next program on a port is treated as the one before",
        closes.error().text());
}

std::shared_ptr<const Offers> FlowDecisions::offers() const {
    const MutexGuard guard(offersLock);
    return inForce;
}

void FlowDecisions::setOffers(Offers replacement) {
    if (!replacement.areDatagramsDirect)
        datagramsGo.set("go the system's own way");
    else if (steering())
        datagramsGo.set("go directly, but for name look-ups");
    else if (datagramsGo.set("go the system's own way: only the kernel could carry them"))
        platformLog.error(
            "The datagrams of direct applications go the system's own way, as the kernel carries "
            "no "
            "direct connections");
    auto published = std::make_shared<const Offers>(std::move(replacement));
    const MutexGuard guard(offersLock);
    inForce = std::move(published);
}

void FlowDecisions::steerBy(std::shared_ptr<steering::Steering> carrier) {
    const MutexGuard guard(offersLock);
    presentSteering.swap(carrier);
}

std::shared_ptr<steering::Steering> FlowDecisions::steering() const {
    const MutexGuard guard(offersLock);
    return presentSteering;
}

PacketVerdict FlowDecisions::verdictOn(const HeldPacket& packet) {
    constexpr int mostTries = 3;
    for (int tries = 1;; ++tries) {
        const auto asked = offers();
        const Occasion occasion{packet, *asked, ruleChanges, wayChanges()};
        const bool isData = packet.purpose == PacketPurpose::watchedData;
        const Verdict verdict = isData ? verdictOnData(occasion) : verdictOnFlow(occasion);
        const bool isSteered = isDatagram(packet) && isClaimed(verdict.state);
        if (isSteered && tries < mostTries && !isCurrent(occasion, verdict)) {
            recent.forget(packet.flow);
            continue;
        }
        PacketVerdict given =
            isSteered ? steeredDatagram(occasion, verdict) : packetVerdict(occasion, verdict);
        if (isDatagram(packet) && closedFlows) given.datagramSocket = verdict.cookie;
        if (isSteered && !given.isDropped) given.steeredAfter = occasion.wayChanges;
        return given;
    }
}

void FlowDecisions::verdictWasGiven(const FlowTuple& flow, const PacketVerdict& verdict) {
    const bool isClosed = verdict.datagramSocket != 0 && datagrams.isEnded(verdict.datagramSocket);
    const bool isOvertaken = verdict.steeredAfter && *verdict.steeredAfter != wayChanges();
    if (isClosed || isOvertaken) endFlow(flow);
}

std::uint64_t FlowDecisions::wayChanges() const {
    const auto carrier = steering();
    return carrier ? carrier->wayChanges() : 0;
}

// False for a verdict that a change of the rules has overtaken.
bool FlowDecisions::isCurrent(const Occasion& occasion, const Verdict& verdict) const {
    return isSettledSince(occasion.ruleChanges) && verdict.generation == offers()->generation;
}

PacketVerdict FlowDecisions::packetVerdict(const Occasion& occasion, const Verdict& verdict) {
    const HeldPacket& packet = occasion.packet;
    if (verdict.isDropped) return PacketVerdict::drop(packet);
    if (verdict.state == FlowState::unseen) return PacketVerdict::pass(packet);
    if (isDatagram(packet) && !countsForItsFlow(packet, verdict))
        return PacketVerdict::of(packet, FlowState::passedUnseen);
    if (beginsAfresh(packet, verdict)) return PacketVerdict::drop(packet);
    if (isClaimed(verdict.state)) return PacketVerdict::of(packet, verdict.state, verdict.uplink);
    if (verdict.state != FlowState::declined) return PacketVerdict::of(packet, verdict.state);
    // When a change is over a generation ends: that is enough for the filter to be asked again.
    if (!verdict.isOfFilterAlone && !isSettledSince(occasion.ruleChanges)) {
        recent.forget(packet.flow);
        return PacketVerdict::of(packet, FlowState::declined, staleGeneration);
    }
    // The verdict may have taken long, and many flushes may have come meanwhile.
    const unsigned generation = markedGeneration(verdict.generation, offers()->generation);
    return PacketVerdict::of(packet, FlowState::declined, generation);
}

// An entry keeps for good how its first packet was translated. Where an opening that meets one is to go another
// way the entry goes, and the opening comes again.
bool FlowDecisions::beginsAfresh(const HeldPacket& packet, const Verdict& verdict) {
    if (packet.purpose != PacketPurpose::newFlow || !packet.meetsEntry ||
        packet.isOfClaimed == isClaimed(verdict.state))
        return false;
    const MutexGuard guard(entriesLock);
    const bool isGone = entries && entries->remove(packet.flow);
    return isGone || packet.isOfClaimed;
}

// Only the first packet of an entry is translated: one that was something else before goes, and the next
// datagram begins another.
PacketVerdict FlowDecisions::steeredDatagram(const Occasion& occasion, const Verdict& verdict) {
    const HeldPacket& packet = occasion.packet;
    if (verdict.isDropped) return PacketVerdict::drop(packet);
    const bool isFirst = packet.purpose == PacketPurpose::newFlow || packet.isOfClaimed;
    if (isCurrent(occasion, verdict) && isFirst) {
        countsForItsFlow(packet, verdict);
        return PacketVerdict::of(packet, verdict.state, verdict.uplink);
    }
    recent.forget(packet.flow);
    const MutexGuard guard(entriesLock);
    if (entries) entries->remove(packet.flow);
    return PacketVerdict::drop(packet);
}

// Of datagrams: the next ones from the port may be another socket's.
bool FlowDecisions::countsForItsFlow(const HeldPacket& packet, const Verdict& verdict) {
    const bool isEntered =
        verdict.cookie == 0 || !closedFlows || datagrams.enter(verdict.cookie, packet.flow);
    return isEntered || verdict.state != FlowState::declined;
}

Verdict FlowDecisions::verdictOnFlow(const Occasion& occasion) {
    const auto& [packet, asked, changes, ways] = occasion;
    if (isStillDenied(occasion)) return {FlowState::denied, asked.generation};
    auto known = recent.find(packet, asked.generation);
    // Of datagrams, the port alone does not tell whose they are.
    const bool isOther = known && isDatagram(packet) &&
                         (isOfAnotherSocket(packet, known->cookie) ||
                          (isClaimed(known->state) && (known->ruleChanges != occasion.ruleChanges ||
                                                       known->wayChanges != occasion.wayChanges)));
    if (isOther) known.reset();
    const Verdict verdict = known ? *known : offer(occasion);
    if (!known) remember(packet, verdict);
    // The first datagram, and data on a SYN, are the first bytes of a watched flow.
    if (verdict.isDropped || !isWatched(verdict.state) || packet.payloadLength == 0) return verdict;
    const auto flow = watched.find(packet.flow);
    if (!flow) return verdict;
    Verdict onBytes = show(occasion, *flow, isClaimed(verdict.state));
    if (onBytes.state == FlowState::unseen) return verdict;
    onBytes.uplink = verdict.uplink;
    remember(packet, onBytes);
    return onBytes;
}

void FlowDecisions::remember(const HeldPacket& packet, const Verdict& verdict) {
    // Of steered connections, their sessions know more.
    if (isClaimed(verdict.state) && steering() && !isDatagram(packet)) return;
    // The way may be there for the next one.
    if (verdict.isDropped) return;
    // Of denied datagrams `denied` knows more.
    if (!isDatagram(packet) || verdict.state != FlowState::denied) recent.remember(packet, verdict);
}

bool FlowDecisions::isStillDenied(const Occasion& occasion) {
    const HeldPacket& packet = occasion.packet;
    const auto known = denied.find(packet.flow);
    if (!known) return false;
    const bool isSameConnection = !isDatagram(packet) && packet.purpose != PacketPurpose::newFlow;
    const bool isSameSocket = isDatagram(packet) && known->ruleChanges == occasion.ruleChanges &&
                              !isOfAnotherSocket(packet, known->cookie);
    if (isSameConnection || isSameSocket) {
        // What is in use is not forgotten.
        denied.remember(packet.flow, *known);
        return true;
    }
    denied.forget(packet.flow);
    return false;
}

bool FlowDecisions::isOfAnotherSocket(const HeldPacket& packet, std::uint64_t cookie) {
    const auto present = cookie == 0 ? std::nullopt : attribution.cookieOf(packet.asSent());
    return present && *present != cookie;
}

Verdict FlowDecisions::offer(const Occasion& occasion) {
    const auto& [packet, asked, changes, ways] = occasion;
    Source source = sourceOf(packet);
    source.isOnlyForFilter |= isOfferedToFilterAlone(occasion, source);
    if (const auto known = verdictOnSteered(packet, source)) return *known;
    const auto claimed = offerToProxy(packet, source, asked);
    const bool isClaimed = claimed != nullptr;
    auto shown = source.shownFor(packet);
    const NEFilterNewFlowVerdict verdict = offerToFilter(*shown, asked);

    const bool isDropped = verdict.kind == NEFilterNewFlowVerdict::Kind::drop;
    if (isDropped) RefusedFlows::shared().note(source.metaData, packet.flow);
    // A connection that runs already cannot be taken over, only made to begin again.
    const bool comesTooLate = isClaimed && packet.purpose == PacketPurpose::offeredAgain;
    if (isDropped || comesTooLate) {
        if (isClaimed) claimed->refuse(systemError(ECONNABORTED));
        return deny(occasion, source.cookie);
    }
    const bool isWatched =
        verdict.kind == NEFilterNewFlowVerdict::Kind::filterData && verdict.filterOutbound;
    if (isWatched)
        watch(packet, source, std::move(shown));
    else
        watched.remove(packet.flow);
    FlowState state = stateOf(isClaimed, isWatched);
    if (isClaimed) {
        Verdict carried = claimed->carry(state);
        if (carried.state == FlowState::denied) return deny(occasion, source.cookie);
        carried.generation = asked.generation;
        carried.cookie = source.cookie;
        return carried;
    }
    if (const auto steered = verdictOnDatagram(occasion, source, isWatched)) return *steered;
    // Its next packet may tell more.
    if (!source.isAttributed && packet.purpose == PacketPurpose::newFlow &&
        state == FlowState::declined)
        state = FlowState::passedUnseen;
    Verdict unclaimed{state, asked.generation, source.cookie};
    unclaimed.isOfFilterAlone = source.isOnlyForFilter;
    return unclaimed;
}

void FlowDecisions::watch(const HeldPacket& packet, const Source& source,
                          std::shared_ptr<const NEFilterSocketFlow> shown) {
    const std::uint32_t firstByte = packet.tcpSequence + (packet.opensTcp ? 1u : 0u);
    watched.add(packet.flow,
                std::make_shared<WatchedFlow>(std::move(shown), firstByte, source.cookie));
}

FlowDecisions::Source FlowDecisions::sourceOf(const HeldPacket& packet) {
    Source source;
    source.remote = destinationOf(packet.asSent());
    source.isOnlyForFilter = isLinkLocal(packet.asSent());
    if (const auto owner = attribution.ownerOf(packet.asSent())) {
        source.metaData = metaDataOf(*owner);
        // No session could be made for what has no socket any more.
        source.isOnlyForFilter |= owner->isBoundToDevice || owner->isGivenUp;
        source.cookie = owner->socketCookie;
        source.isAttributed = true;
    } else if (packet.purpose == PacketPurpose::newFlow) {
        unattributed.add();
    }
    return source;
}

// True for what the proxy has declined since the last flush: only the rules have changed, and what it would
// claim now can't be taken over. Also for what it would claim by the default: no rule of the application's asks for
// its connections to begin again.
bool FlowDecisions::isOfferedToFilterAlone(const Occasion& occasion, const Source& source) {
    const HeldPacket& packet = occasion.packet;
    const Offers& asked = occasion.asked;
    if (packet.purpose != PacketPurpose::offeredAgain) return false;
    const auto mark = [&] {
        const MutexGuard guard(entriesLock);
        return entries ? entries->markOf(packet.flow) : std::nullopt;
    }();
    const MarkPlace place(placeShift);
    if (!mark || place.stateOf(*mark) != FlowState::declined) return false;
    return isAfterFlush(place.generationOf(*mark), asked.flush, asked.generation) ||
           isDirectByDefault(packet, source);
}

bool FlowDecisions::isDirectByDefault(const HeldPacket& packet, const Source& source) {
    if (!providers.explain || isDatagram(packet)) return false;
    const auto connection = providers.explain({source.metaData, destinationOf(packet.flow)});
    return textIn(connection, "route") == "direct" && textIn(connection, "decidedBy") == "default";
}

// A connection that the kernel carries already, and that sends its opening again.
std::optional<Verdict> FlowDecisions::verdictOnSteered(const HeldPacket& packet,
                                                       const Source& source) {
    const auto carrier = steering();
    if (!carrier || !packet.opensTcp || source.cookie == 0) return std::nullopt;
    const auto known = carrier->verdictOnKnown(packet, source.cookie);
    if (!known) return std::nullopt;
    const bool isWatchedStill = watched.find(packet.flow) != nullptr;
    Verdict verdict = SteeredClaim::steered(*known, stateOf(true, isWatchedStill));
    verdict.cookie = source.cookie;
    return verdict;
}

// The proxy declines datagrams. Those of an application whose connections it would claim go the same way, if
// that is wanted. Null for all others.
std::optional<Verdict> FlowDecisions::verdictOnDatagram(const Occasion& occasion,
                                                        const Source& source, bool isWatched) {
    const auto& [packet, asked, changes, ways] = occasion;
    const auto carrier = steering();
    const bool isMeant = asked.areDatagramsDirect && carrier && providers.explain &&
                         isDatagram(packet) && source.isAttributed && !source.isOnlyForFilter &&
                         steering::Steering::isForDatagrams(packet.flow);
    if (!isMeant) return std::nullopt;
    const auto connections = providers.explain({source.metaData, destinationOf(packet.flow)});
    const auto text = [&](std::string_view key) { return textIn(connections, key); };
    Verdict verdict{stateOf(true, isWatched), asked.generation, source.cookie};
    verdict.ruleChanges = changes;
    verdict.wayChanges = ways;
    verdict.isDropped = text("route") == "blocked" && text("decidedBy") == "directFallback";
    if (verdict.isDropped) return verdict;
    if (text("route") != "direct") return std::nullopt;
    using Kind = steering::Way::Kind;
    const auto way = carrier->wayOfDatagrams(packet.flow, text("interface"));
    verdict.isDropped = way.kind == Kind::none;
    verdict.uplink = way.kind == Kind::open ? way.number : steering::unreachableNumber;
    return verdict;
}

void FlowDecisions::offerSteeredDatagramsAgain() {
    if (const auto carrier = steering()) carrier->forgetDatagrams();
}

std::unique_ptr<FlowDecisions::Claim> FlowDecisions::offerToProxy(const HeldPacket& packet,
                                                                  const Source& source,
                                                                  const Offers& asked) {
    if (source.isOnlyForFilter || !asksFor(asked.proxyRules, packet.asSent())) return nullptr;
    if (packet.flow.protocol == IPPROTO_UDP) {
        // There is nothing that could relay it, so a claim changes nothing.
        providers.proxy->handleNewFlow(
            std::make_shared<NEAppProxyUDPFlow>(source.metaData, source.remote));
        return nullptr;
    }
    const DirectSessions::Offer underWay(source.metaData.sourceAppSigningIdentifier, packet.flow);
    const auto carrier = steering();
    return carrier ? offerToSteer(*carrier, packet, source) : offerToRelay(packet, source);
}

std::unique_ptr<FlowDecisions::Claim> FlowDecisions::offerToSteer(steering::Steering& carrier,
                                                                  const HeldPacket& packet,
                                                                  const Source& source) {
    auto offered = carrier.offer(packet, source.cookie);
    const auto flow =
        std::make_shared<NEAppProxyTCPFlow>(source.metaData, source.remote, offered->flow());
    {
        const steering::Steering::Offer::Pairing pairing(*offered);
        if (!providers.proxy->handleNewFlow(flow)) return nullptr;
    }
    return std::make_unique<SteeredClaim>(std::move(offered), aliases->keepSourceOf(packet.flow));
}

std::unique_ptr<FlowDecisions::Claim> FlowDecisions::offerToRelay(const HeldPacket& packet,
                                                                  const Source& source) {
    auto implementation = std::make_shared<SocketFlow>();
    // Filled when the flow turns out to be claimed; goes with the application's side.
    auto aliasHolder = std::make_shared<std::shared_ptr<void>>();
    implementation->setEndHandler([aliasHolder, open = claims.countAsOpen()] {});
    const auto flow =
        std::make_shared<NEAppProxyTCPFlow>(source.metaData, source.remote, implementation);
    {
        const RelayPairing pairing(*implementation, steering::destinationText(packet.flow),
                                   packet.flow.destinationPort);
        if (!providers.proxy->handleNewFlow(flow)) return nullptr;
    }
    if (!claims.canClaim(packet.flow.family)) {
        implementation->failOpening(systemError(ENOBUFS));
        return nullptr;
    }
    *aliasHolder = aliases->keepSourceOf(packet.flow);
    return std::make_unique<RelayClaim>(claims, packet.flow, std::move(implementation));
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

Verdict FlowDecisions::verdictOnData(const Occasion& occasion) {
    const HeldPacket& packet = occasion.packet;
    if (isStillDenied(occasion)) return {FlowState::denied, occasion.asked.generation};
    const auto flow = watched.find(packet.flow);
    if (flow && isDatagram(packet) && isOfAnotherSocket(packet, flow->cookie())) {
        watched.remove(packet.flow);
        return verdictOnFlow(occasion);
    }
    return flow ? show(occasion, *flow, packet.isOfClaimed) : verdictOnForgotten(occasion);
}

// It had to make room for others.
Verdict FlowDecisions::verdictOnForgotten(const Occasion& occasion) {
    const auto& [packet, asked, changes, ways] = occasion;
    if (const auto moved = movedDatagram(occasion)) return *moved;
    const Source source = sourceOf(packet);
    auto shown = source.shownFor(packet);
    const NEFilterNewFlowVerdict verdict = offerToFilter(*shown, asked);
    if (verdict.kind == NEFilterNewFlowVerdict::Kind::drop) return deny(occasion, source.cookie);
    if (verdict.kind != NEFilterNewFlowVerdict::Kind::filterData || !verdict.filterOutbound)
        return unwatched(occasion, packet.isOfClaimed, source.cookie);
    watch(packet, source, std::move(shown));
    const auto flow = watched.find(packet.flow);
    return flow ? show(occasion, *flow, packet.isOfClaimed) : Verdict();
}

Verdict FlowDecisions::show(const Occasion& occasion, WatchedFlow& flow, bool isClaimed) {
    const auto& [packet, asked, changes, ways] = occasion;
    if (asked.filterAction != NEFilterAction::filterData) {
        watched.remove(packet.flow);
        return unwatched(occasion, isClaimed, flow.cookie());
    }
    const NEFilterDataVerdict verdict = providers.filter->handleOutboundData(
        flow.shownAs(), flow.offsetOf(packet), unreadBytes(packet.payloadLength));
    switch (verdict.kind) {
        case NEFilterDataVerdict::Kind::drop:
            // The end may have begun since it was asked, and the providers know of no rules any more.
            if (offers()->filterAction) return deny(occasion, flow.cookie());
            [[fallthrough]];
        case NEFilterDataVerdict::Kind::allow:
            watched.remove(packet.flow);
            return unwatched(occasion, isClaimed, flow.cookie());
        case NEFilterDataVerdict::Kind::data:
            break;
    }
    return {};
}

// A flow that goes on and is looked at no more.
Verdict FlowDecisions::unwatched(const Occasion& occasion, bool isClaimed, std::uint64_t cookie) {
    Verdict verdict{stateOf(isClaimed, false), occasion.asked.generation, cookie};
    // The packet that opens a connection has no entry yet; its verdict brings the number.
    if (isClaimed && !occasion.packet.opensTcp) verdict.uplink = uplinkOf(occasion.packet.flow);
    return verdict;
}

// The number in the connection's mark.
unsigned FlowDecisions::uplinkOf(const FlowTuple& flow) {
    const auto carrier = steering();
    if (!carrier) return 0;
    const MutexGuard guard(entriesLock);
    const auto mark = entries ? entries->markOf(flow) : std::nullopt;
    return mark ? carrier->place().generationOf(*mark) : 0;
}

// A socket without a peer can't be told that its datagrams are direct by now: the next one begins a flow. Null if
// they are not.
std::optional<Verdict> FlowDecisions::movedDatagram(const Occasion& occasion) {
    const HeldPacket& packet = occasion.packet;
    if (!isDatagram(packet)) return std::nullopt;
    const auto moved = verdictOnDatagram(occasion, sourceOf(packet), false);
    return moved ? std::optional(beginAgain(packet, *moved)) : std::nullopt;
}

// Whether nothing stands against a datagram but that the rule for which its flow was watched is gone.
bool FlowDecisions::hasOutlivedItsRule(const HeldPacket& packet) {
    if (!isDatagram(packet) || !providers.explain) return false;
    const Source source = sourceOf(packet);
    if (!source.isAttributed) return false;
    const auto newFlow = providers.explain({source.metaData, destinationOf(packet.flow), true});
    // Told of what is neither blocked nor stopped while the VPN is down.
    const auto isWatched = newFlow.find("isWatched");
    const auto* value = isWatched == newFlow.end() ? nullptr : isWatched->second.as<bool>();
    return value != nullptr && !*value;
}

// This datagram goes, and the next one is the first of a new flow.
Verdict FlowDecisions::beginAgain(const HeldPacket& packet, Verdict verdict) {
    verdict.isDropped = true;
    recent.forget(packet.flow);
    const MutexGuard guard(entriesLock);
    if (entries) entries->remove(packet.flow);
    return verdict;
}

Verdict FlowDecisions::deny(const Occasion& occasion, std::uint64_t cookie) {
    const HeldPacket& packet = occasion.packet;
    const FlowTuple& flow = packet.flow;
    // Ending the socket tells the application at once; state and memory stop what it leaves behind.
    const bool isTold = attribution.destroySocket(packet.asSent());
    watched.remove(flow);
    if (!isTold) {
        if (const auto moved = movedDatagram(occasion)) return *moved;
        if (hasOutlivedItsRule(packet)) return beginAgain(packet, {});
    }
    denied.remember(flow, {cookie, occasion.ruleChanges});
    return {FlowState::denied, occasion.asked.generation, cookie};
}

void FlowDecisions::awaitEndsOfClaimed(std::chrono::milliseconds longest) {
    if (const auto carrier = steering()) carrier->awaitEnds(longest);
    claims.awaitEnds(longest);
}

// What comes next from its port is another one.
void FlowDecisions::endFlow(const FlowTuple& flow) {
    forgetFlow(flow);
    const MutexGuard guard(entriesLock);
    if (entries) entries->remove(flow);
}

void FlowDecisions::forgetFlow(const FlowTuple& flow) {
    recent.forget(flow);
    watched.remove(flow);
    denied.forget(flow);
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
