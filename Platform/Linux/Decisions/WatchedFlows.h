// The flows whose outbound bytes are shown to the filter, and how far in its stream each of them
// is. Any thread may look up; a flow's own fields are for the thread that decides its packets,
// which is one at a time. Bounded: beyond the capacity the flow that sent nothing for longest is
// forgotten, and is offered to the filter again with its next packet.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <unordered_map>

#include "Platform/Common/Mutex.h"
#include "Platform/Linux/Packets/HeldPacket.h"
#include "Platform/NEFilterFlow.h"

namespace platform::interception {

class WatchedFlow {
public:
    // `firstSequence`: of the first byte of a TCP stream. `ofSocket`: 0 if it is not known.
    WatchedFlow(std::shared_ptr<const NEFilterSocketFlow> shown, std::uint32_t firstSequence,
                std::uint64_t ofSocket)
        : flow(std::move(shown)), firstByte(firstSequence), cookie_(ofSocket) {}

    const NEFilterSocketFlow& shownAs() const { return *flow; }
    // The kernel's number for the socket.
    std::uint64_t cookie() const { return cookie_; }

    // Where the packet's payload begins in the flow's stream, counted from its first byte. A
    // retransmission repeats its place; datagrams follow each other.
    std::int64_t offsetOf(const HeldPacket& packet);

private:
    std::shared_ptr<const NEFilterSocketFlow> flow;
    std::uint32_t firstByte;
    std::uint64_t cookie_;
    std::int64_t furthestEnd = 0;
};

class WatchedFlows {
public:
    static constexpr std::size_t standardCapacity = 16384;
    explicit WatchedFlows(std::size_t mostFlows = standardCapacity) : capacity(mostFlows) {}

    // Null if the flow is not known, or was forgotten.
    std::shared_ptr<WatchedFlow> find(const FlowTuple& flow);
    void add(const FlowTuple& flow, std::shared_ptr<WatchedFlow> watched);
    void remove(const FlowTuple& flow);
    // Asks about each flow that has sent nothing for so long, outside the lock, and forgets those
    // that are over. The others are not asked about again for as long.
    void removeEnded(std::chrono::seconds idleFor,
                     const std::function<bool(const FlowTuple&)>& isOver);
    std::size_t count();

private:
    using Clock = std::chrono::steady_clock;
    struct Entry {
        FlowTuple flow;
        std::shared_ptr<WatchedFlow> watched;
        Clock::time_point lastUse;  // or the last time that it was asked about
    };
    using Entries = std::list<Entry>;

    const std::size_t capacity;
    Mutex lock;
    Entries byLastUse GUARDED_BY(lock);  // the latest first
    std::unordered_map<FlowTuple, Entries::iterator, FlowHash, SameFlow> entries GUARDED_BY(lock);
};

}  // namespace platform::interception
