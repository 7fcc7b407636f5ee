#include "Platform/Linux/Decisions/WatchedFlows.h"

#include <algorithm>
#include <vector>

namespace platform::interception {

std::int64_t WatchedFlow::offsetOf(const HeldPacket& packet) {
    const auto length = static_cast<std::int64_t>(packet.payloadLength);
    if (packet.flow.protocol != IPPROTO_TCP) {
        const std::int64_t offset = furthestEnd;
        furthestEnd += length;
        return offset;
    }
    // Data on a SYN begins one behind the SYN's own number. Sequence numbers wrap; the distance to
    // the furthest byte seen does not, as windows are smaller than half the numbers.
    const std::uint32_t sequence = packet.tcpSequence + (packet.opensTcp ? 1u : 0u);
    const std::uint32_t expected = firstByte + static_cast<std::uint32_t>(furthestEnd);
    const auto distance = static_cast<std::int32_t>(sequence - expected);
    const std::int64_t offset = std::max<std::int64_t>(furthestEnd + distance, 0);
    furthestEnd = std::max(furthestEnd, offset + length);
    return offset;
}

std::shared_ptr<WatchedFlow> WatchedFlows::find(const FlowTuple& flow) {
    const MutexGuard guard(lock);
    const auto found = entries.find(flow);
    if (found == entries.end()) return nullptr;
    byLastUse.splice(byLastUse.begin(), byLastUse, found->second);
    found->second->lastUse = Clock::now();
    return found->second->watched;
}

void WatchedFlows::add(const FlowTuple& flow, std::shared_ptr<WatchedFlow> watched) {
    const MutexGuard guard(lock);
    if (const auto found = entries.find(flow); found != entries.end()) {
        byLastUse.erase(found->second);
        entries.erase(found);
    }
    if (byLastUse.size() >= capacity) {
        entries.erase(byLastUse.back().flow);
        byLastUse.pop_back();
    }
    byLastUse.push_front({flow, std::move(watched), Clock::now()});
    entries.emplace(flow, byLastUse.begin());
}

void WatchedFlows::remove(const FlowTuple& flow) {
    const MutexGuard guard(lock);
    const auto found = entries.find(flow);
    if (found == entries.end()) return;
    byLastUse.erase(found->second);
    entries.erase(found);
}

void WatchedFlows::removeEnded(std::chrono::seconds idleFor,
                               const std::function<bool(const FlowTuple&)>& isOver) {
    const auto now = Clock::now();
    std::vector<FlowTuple> idle;
    {
        const MutexGuard guard(lock);
        for (Entry& entry : byLastUse) {
            if (now - entry.lastUse < idleFor) continue;
            entry.lastUse = now;
            idle.push_back(entry.flow);
        }
    }
    for (const FlowTuple& flow : idle)
        if (isOver(flow)) remove(flow);
}

std::size_t WatchedFlows::count() {
    const MutexGuard guard(lock);
    return byLastUse.size();
}

}  // namespace platform::interception
