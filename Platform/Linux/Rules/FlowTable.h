// What becomes of an outbound packet, by the state that its connection is in. The state is one of eight
// and stands in the connection's mark in the kernel (FlowMark.h); the packet rules are made from the table
// below, and the verdicts are states of it. Pure values; any thread.
//
// state           | TCP opening | datagram    | TCP payload | other TCP
// ----------------+-------------+-------------+-------------+------------
// unseen          | offer       | offer, if   | pass        | pass
//                 |             | it is first |             |
// passed unseen   | offer       | offer again | offer again | offer again
// declined        | offer       | pass        | pass        | pass
//  in an earlier  | offer       | offer again | offer again | offer again
//  generation     |             |             |             |
// claimed         | offer       | pass        | pass        | pass
// watched         | offer       | show        | show        | pass
//  and claimed    | offer       | show        | show        | pass
// denied          | offer       | offer again | refuse      | refuse
// our own         | refuse      | pass        | pass        | pass
//
// Left alone before that: what leaves by the loopback interface, the daemon's own packets (by their mark),
// TCP resets, and packets of no process, but for the payload that a closed socket still has to send. An opening is
// a SYN: one that meets a connection is either sent again or of another socket that has the same ports, which the
// daemon tells apart; one that meets a connection of our own can't be either. Unseen connections whose packets pass
// are older than the rules.
//
// An offered connection is "passed unseen" from the moment when its packet enters the queue until the
// verdict comes. So whatever lets the packet pass without one (a queue that is full, a verdict that
// comes too late, the end of the daemon), the connection is offered again with its next packet. What
// is offered again keeps its state meanwhile.
//
// A generation ends with a flush, or with a change of the rules. What was declined before a flush is offered to
// both providers, and what was declined before a change of the rules, with no flush since, to the filter alone:
// the proxy might claim it now, and a connection that runs can't be taken over.
//
// A denied connection stays so, as no verdict on a packet that had waited meanwhile changes it, and
// a further datagram is answered from memory as long as its socket and the rules are the same (DeniedFlows).
#pragma once

#include <array>
#include <cstdint>

namespace platform::interception {

enum class FlowState : std::uint8_t {
    unseen = 0,             // never offered: not ours, or older than the rules
    declined = 1,           // on the system's own route, not looked at again in this generation
    claimed = 2,            // direct: steered by the kernel, or redirected to the local listener
    watched = 3,            // on the system's own route, its outbound bytes are shown
    claimedAndWatched = 4,  // both
    denied = 5,             // refused, with every packet to come
    ownTraffic = 6,         // of a socket of this process; the socket bears it too
    passedUnseen = 7,       // without a verdict, or while one is waited for
};

inline constexpr std::array<FlowState, 8> allFlowStates{
    FlowState::unseen,     FlowState::declined,          FlowState::claimed,
    FlowState::watched,    FlowState::claimedAndWatched, FlowState::denied,
    FlowState::ownTraffic, FlowState::passedUnseen};

enum class PacketKind : std::uint8_t { tcpOpening, datagram, tcpPayload, otherTcp };

enum class Effect : std::uint8_t { pass, offer, offerIfFirst, offerAgain, show, refuse };

// The table. Declined connections are those of earlier generations: the rules let the others pass first.
constexpr Effect effectOn(FlowState state, PacketKind kind) {
    if (kind == PacketKind::tcpOpening)
        return state == FlowState::ownTraffic ? Effect::refuse : Effect::offer;
    const bool isDatagram = kind == PacketKind::datagram;
    switch (state) {
        case FlowState::unseen:
            return isDatagram ? Effect::offerIfFirst : Effect::pass;
        case FlowState::passedUnseen:
        case FlowState::declined:
            return Effect::offerAgain;
        case FlowState::watched:
        case FlowState::claimedAndWatched:
            return kind == PacketKind::otherTcp ? Effect::pass : Effect::show;
        case FlowState::denied:
            return isDatagram ? Effect::offerAgain : Effect::refuse;
        case FlowState::claimed:
        case FlowState::ownTraffic:
            break;
    }
    return Effect::pass;
}

constexpr bool isClaimed(FlowState state) {
    return state == FlowState::claimed || state == FlowState::claimedAndWatched;
}
constexpr bool isWatched(FlowState state) {
    return state == FlowState::watched || state == FlowState::claimedAndWatched;
}

}  // namespace platform::interception
