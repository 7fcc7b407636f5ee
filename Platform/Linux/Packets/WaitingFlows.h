// The held packets by flow, and whose turn it is. Accounts take turns, so that a flood from one of them holds
// up no other: each has a share of the packets that wait and of the threads that work. For the owner of
// one lock.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <unordered_map>
#include <utility>
#include <vector>

#include "Platform/Linux/Packets/HeldPacket.h"

namespace platform::interception {

class WaitingFlows {
public:
    using Clock = std::chrono::steady_clock;

    struct Shares {
        // Of an account. Far more than the busiest programs wait for at once, and a quarter of what the
        // kernel's queue has room for.
        std::size_t mostPackets = 2048;
        std::size_t mostWorkers = 24;
    };
    struct Account;
    struct Waiting {
        HeldPacket packet;
        Clock::time_point arrival;
        bool isReleased = false;  // its verdict has been given, or is just being given
    };
    // The packets of one flow that wait; the flow is ready, or in work, while there are any.
    struct Flow {
        FlowTuple tuple;
        Account* account = nullptr;
        std::vector<Waiting> packets;
    };

    explicit WaitingFlows(Shares ofAccount) : shares(ofAccount) {}

    // False, and nothing is kept, if as many packets wait as the account may have.
    bool add(const HeldPacket& packet, Clock::time_point arrival);

    // True if `take` gives a flow.
    bool isAnyReady() const { return !turns.empty(); }
    // The flow whose turn it is; its packets stay where they are, for `visitPackets` to see.
    Flow& take();
    // The first packets of a taken flow have their verdicts.
    void removeFirst(Flow& flow, std::size_t count);
    // The taken flow has no packets left and is gone.
    void finish(Flow& flow);

    template <class Visit>
    void visitPackets(Visit visit) {
        for (auto& [tuple, flow] : flows)
            for (Waiting& waiting : flow.packets) visit(waiting);
    }

    struct Account {
        std::uint32_t id = 0;
        std::deque<Flow*> ready;
        std::size_t packets = 0;
        std::size_t workers = 0;
        bool hasTurn = false;
    };

private:
    void giveTurn(Account& account);

    const Shares shares;
    std::unordered_map<FlowTuple, Flow, FlowHash, SameFlow> flows;
    std::unordered_map<std::uint32_t, Account> accounts;
    std::deque<Account*> turns;  // those with a ready flow that may have one more worker
};

}  // namespace platform::interception
