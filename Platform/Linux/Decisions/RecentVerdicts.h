// The verdicts of the last moments. Packets of one opening can reach us more than once: a SYN that is
// retransmitted, a burst of datagrams that were queued before the first one's verdict. They get the
// verdict of the first one, so that a flow is offered once. Any thread; bounded in time and number.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <optional>
#include <unordered_map>

#include "Platform/Common/Mutex.h"
#include "Platform/Linux/Packets/HeldPacket.h"
#include "Platform/Linux/Rules/FlowMark.h"

namespace platform::interception {

struct Verdict {
    FlowState state = FlowState::unseen;
    unsigned generation = 0;       // in which it was asked for
    std::uint64_t cookie = 0;      // of the socket that it is about, 0 if that is not known
    unsigned uplink = 0;           // of a claimed one: the number in its mark; 0 if it is relayed
    bool isOfFilterAlone = false;  // the proxy was not asked
    bool isDropped = false;        // the packet goes nowhere, and leaves its connection as it is
    // Of steered datagrams: as many changes of rules had begun or ended, and of the ways that datagrams take.
    unsigned ruleChanges = 0;
    std::uint64_t wayChanges = 0;
};

class RecentVerdicts {
public:
    using Clock = std::chrono::steady_clock;

    // The verdict on what `packet` belongs to, if it was given just now. A flow that is offered
    // again counts as something else in each generation.
    std::optional<Verdict> find(const HeldPacket& packet, unsigned generation);
    void remember(const HeldPacket& packet, Verdict verdict);
    // The flow has ended: what comes next between its ports is another one.
    void forget(const FlowTuple& flow);

private:
    // A SYN is sent again after one second and then after two more.
    static constexpr std::chrono::seconds lifetime{4};
    static constexpr std::size_t capacity = 16384;

    struct Entry {
        PacketPurpose purpose;
        std::uint32_t occasion;
        Verdict verdict;
        Clock::time_point expiry;
    };
    struct Expiring {
        FlowTuple flow;
        Clock::time_point expiry;
    };

    void forgetExpired(Clock::time_point now) REQUIRES(lock);

    Mutex lock;
    std::unordered_map<FlowTuple, Entry, FlowHash, SameFlow> entries GUARDED_BY(lock);
    std::deque<Expiring> byExpiry GUARDED_BY(lock);  // holds each entry of the table
};

}  // namespace platform::interception
