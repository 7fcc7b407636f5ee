// What becomes of each packet that is held: asks who sent it, offers the flow to the proxy and then
// to the filter, shows the bytes of watched flows, and turns the answers into states of the table in
// FlowTable.h. Called on many threads at once, for one packet of a flow at a time.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include "Platform/Common/Mutex.h"
#include "Platform/Linux/Attribution/FlowOwner.h"
#include "Platform/Linux/Decisions/AddressAliases.h"
#include "Platform/Linux/Decisions/ClaimedFlows.h"
#include "Platform/Linux/Decisions/ClosedFlows.h"
#include "Platform/Linux/Decisions/DatagramFlows.h"
#include "Platform/Linux/Decisions/DeniedFlows.h"
#include "Platform/Linux/Decisions/RecentVerdicts.h"
#include "Platform/Linux/Decisions/WatchedFlows.h"
#include "Platform/Linux/Health/Health.h"
#include "Platform/Linux/Packets/HeldPacket.h"
#include "Platform/Linux/Packets/PacketQueue.h"
#include "Platform/Linux/Rules/ConnectionEntries.h"
#include "Platform/Linux/Rules/FlowMark.h"
#include "Platform/Linux/Steering/Steering.h"
#include "Platform/NEProvider.h"

namespace platform::interception {

struct Providers {
    std::shared_ptr<NETransparentProxyProvider> proxy;
    std::shared_ptr<NEFilterDataProvider> filter;
    // What they would decide of a connection. Without it all datagrams go the system's own way.
    std::function<JSONObject(const FlowQuestion&)> explain = nullptr;
};

// Who is asked at present, and about what.
struct Offers {
    std::vector<NENetworkRule> proxyRules;       // none: the proxy is not asked
    std::optional<NEFilterAction> filterAction;  // nothing: the filter is not asked
    unsigned generation = 0;                     // how often declined flows were offered again
    unsigned flush = 0;                          // the generation in which they last were to both
    unsigned changesOver = 0;                    // how many changes of the rules were noticed
    bool areDatagramsDirect = false;             // those of direct applications are steered
};

class FlowDecisions {
public:
    explicit FlowDecisions(Providers toAsk);

    ListenerPorts listenerPorts() const { return claims.ports(); }

    std::shared_ptr<const Offers> offers() const;
    void setOffers(Offers replacement);

    // The rules begin to change, or the change is over. A flow that is declined on the word of providers
    // that were asked in between is marked so that its next packet is offered again.
    void setRulesChanging(bool) { ruleChanges.fetch_add(1); }

    // Where in marks the states of flows stand.
    void setPlace(MarkPlace place) { placeShift = place.shift(); }

    // From now on the kernel carries what the proxy claims; null ends that.
    void steerBy(std::shared_ptr<steering::Steering> carrier);

    PacketVerdict verdictOn(const HeldPacket& packet);
    // The kernel has it. Before there was an entry to end, the flow's socket may have been closed, or the way of
    // a steered datagram have changed.
    void verdictWasGiven(const FlowTuple& flow, const PacketVerdict& verdict);

    // Whose socket it is. For questions, not on a packet's way.
    std::optional<FlowOwner> ownerOf(const FlowTuple& flow) { return attribution.ownerOf(flow); }

    // It is wanted, and the kernel carries them.
    bool areDatagramsDirect() const { return offers()->areDatagramsDirect && steering(); }
    // What was steered of datagrams is offered again.
    void offerSteeredDatagramsAgain();

    // Forgets what is over. To be called every few seconds.
    void keepHouse();

    void awaitEndsOfClaimed(std::chrono::milliseconds longest);

private:
    struct Source;
    // Null where direct connections are relayed.
    std::shared_ptr<steering::Steering> steering() const;
    class Claim;
    class RelayClaim;
    class SteeredClaim;

    // No change was under way when `ruleChanges` was read, and none has begun since.
    bool isSettledSince(unsigned changesBefore) const {
        return changesBefore % 2 == 0 && changesBefore == ruleChanges;
    }

    // What one packet is judged by, looked at once.
    struct Occasion {
        const HeldPacket& packet;
        const Offers& asked;
        unsigned ruleChanges;
        std::uint64_t wayChanges;
    };

    std::uint64_t wayChanges() const;
    std::optional<Verdict> movedDatagram(const Occasion& occasion);
    bool hasOutlivedItsRule(const HeldPacket& packet);
    Verdict beginAgain(const HeldPacket& packet, Verdict verdict);
    Verdict verdictOnFlow(const Occasion& occasion);
    void remember(const HeldPacket& packet, const Verdict& verdict);
    bool isStillDenied(const Occasion& occasion);
    bool isOfAnotherSocket(const HeldPacket& packet, std::uint64_t cookie);
    Verdict offer(const Occasion& occasion);
    // The application's side of the flow if the proxy claims it, else null.
    std::unique_ptr<Claim> offerToProxy(const HeldPacket& packet, const Source& source,
                                        const Offers& asked);
    std::unique_ptr<Claim> offerToSteer(steering::Steering& steering, const HeldPacket& packet,
                                        const Source& source);
    std::unique_ptr<Claim> offerToRelay(const HeldPacket& packet, const Source& source);
    std::optional<Verdict> verdictOnSteered(const HeldPacket& packet, const Source& source);
    Verdict unwatched(const Occasion& occasion, bool isClaimed, std::uint64_t cookie);
    std::optional<Verdict> verdictOnDatagram(const Occasion& occasion, const Source& source,
                                             bool isWatched);
    bool isCurrent(const Occasion& occasion, const Verdict& verdict) const;
    bool beginsAfresh(const HeldPacket& packet, const Verdict& verdict);
    PacketVerdict steeredDatagram(const Occasion& occasion, const Verdict& verdict);
    unsigned uplinkOf(const FlowTuple& flow);
    NEFilterNewFlowVerdict offerToFilter(const NEFilterSocketFlow& flow, const Offers& asked);
    void watch(const HeldPacket& packet, const Source& source,
               std::shared_ptr<const NEFilterSocketFlow> shown);
    Verdict verdictOnData(const Occasion& occasion);
    Verdict verdictOnForgotten(const Occasion& occasion);
    Verdict show(const Occasion& occasion, WatchedFlow& flow, bool isClaimed);
    Source sourceOf(const HeldPacket& packet);
    bool isOfferedToFilterAlone(const Occasion& occasion, const Source& source);
    bool isDirectByDefault(const HeldPacket& packet, const Source& source);
    Verdict deny(const Occasion& occasion, std::uint64_t cookie);
    bool countsForItsFlow(const HeldPacket& packet, const Verdict& verdict);
    void forgetFlow(const FlowTuple& flow);
    void endFlow(const FlowTuple& flow);
    PacketVerdict packetVerdict(const Occasion& occasion, const Verdict& verdict);

    const Providers providers;
    FlowAttribution attribution;
    const std::shared_ptr<AddressAliases> aliases;
    ClaimedFlows claims;
    RecentVerdicts recent;
    WatchedFlows watched;
    DeniedFlows denied;
    DatagramFlows datagrams;
    health::State heardCloses{health::Place::verdicts, "closedSockets",
                              "Ends of datagram sockets are", "told by the kernel"};
    health::State namedBy{health::Place::attribution, "attribution", "Programs are named",
                          attribution.hasNotes() ? "by what the kernel notes"
                                                 : "by searching /proc, slower and with gaps"};
    health::State datagramsGo{health::Place::steering, "directDatagrams",
                              "Datagrams of direct applications", "go the system's own way"};
    health::Counter unattributed{health::Place::attribution, "unattributedFlows",
                                 "Flows that no program could be named for"};

    Mutex entriesLock;
    const std::unique_ptr<ConnectionEntries> entries PT_GUARDED_BY(entriesLock);
    mutable Mutex offersLock;
    std::shared_ptr<const Offers> inForce GUARDED_BY(offersLock);
    std::shared_ptr<steering::Steering> presentSteering GUARDED_BY(offersLock);
    // How often a change of the rules has begun or ended.
    std::atomic<unsigned> ruleChanges = 0;
    std::atomic<unsigned> placeShift = 0;
    // Null where the kernel does not tell. The last one: its thread uses the others.
    std::unique_ptr<ClosedFlows> closedFlows;
};

}  // namespace platform::interception
