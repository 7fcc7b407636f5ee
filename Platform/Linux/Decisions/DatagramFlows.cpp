#include "Platform/Linux/Decisions/DatagramFlows.h"

#include <algorithm>
#include <utility>

#include "Platform/Linux/Packets/HeldPacket.h"

namespace platform::interception {

bool DatagramFlows::enter(std::uint64_t cookie, const FlowTuple& flow) {
    const MutexGuard guard(lock);
    if (isClosed(cookie)) return false;
    if (sockets.size() >= mostSockets && !sockets.contains(cookie)) return false;
    auto& [flows, hasMore] = sockets[cookie];
    const SameFlow isSame;
    const bool isKnown =
        std::ranges::any_of(flows, [&](const FlowTuple& known) { return isSame(known, flow); });
    if (isKnown) return true;
    hasMore |= flows.size() >= mostFlowsOfSocket;
    if (!hasMore) flows.push_back(flow);
    return true;
}

void DatagramFlows::noteClosed(std::uint64_t cookie) {
    if (closed.size() >= closedSockets) closedBefore = std::exchange(closed, {});
    closed.insert(cookie);
}

std::optional<DatagramFlows::Ended> DatagramFlows::end(std::uint64_t cookie) {
    const MutexGuard guard(lock);
    noteClosed(cookie);
    const auto found = sockets.find(cookie);
    if (found == sockets.end()) return std::nullopt;
    Ended ended = std::move(found->second);
    sockets.erase(found);
    return ended;
}

std::vector<DatagramFlows::Ended> DatagramFlows::endAll() {
    const MutexGuard guard(lock);
    std::vector<Ended> all;
    all.reserve(sockets.size());
    for (auto& [cookie, flows] : sockets) all.push_back(std::move(flows));
    sockets.clear();
    return all;
}

bool DatagramFlows::isEnded(std::uint64_t cookie) {
    const MutexGuard guard(lock);
    const bool hasRoom = sockets.size() < mostSockets;
    return isClosed(cookie) || (hasRoom && !sockets.contains(cookie));
}

}  // namespace platform::interception
