#include "Platform/Linux/Packets/WaitingFlows.h"

namespace platform::interception {

bool WaitingFlows::add(const HeldPacket& packet, Clock::time_point arrival) {
    const auto known = flows.find(packet.flow);
    const bool isNew = known == flows.end();
    Account& account = isNew ? accounts[packet.account] : *known->second.account;
    if (account.packets >= shares.mostPackets) return false;
    Flow& flow = isNew ? flows[packet.flow] : known->second;
    ++account.packets;
    flow.packets.push_back({packet, arrival});
    if (!isNew) return true;
    account.id = packet.account;
    flow.tuple = packet.flow;
    flow.account = &account;
    account.ready.push_back(&flow);
    giveTurn(account);
    return true;
}

void WaitingFlows::giveTurn(Account& account) {
    if (account.hasTurn || account.ready.empty() || account.workers >= shares.mostWorkers) return;
    account.hasTurn = true;
    turns.push_back(&account);
}

WaitingFlows::Flow& WaitingFlows::take() {
    Account& account = *turns.front();
    turns.pop_front();
    account.hasTurn = false;
    Flow& flow = *account.ready.front();
    account.ready.pop_front();
    ++account.workers;
    giveTurn(account);
    return flow;
}

void WaitingFlows::removeFirst(Flow& flow, std::size_t count) {
    flow.packets.erase(flow.packets.begin(),
                       flow.packets.begin() + static_cast<std::ptrdiff_t>(count));
    flow.account->packets -= count;
}

void WaitingFlows::finish(Flow& flow) {
    Account& account = *flow.account;
    --account.workers;
    const FlowTuple ended = flow.tuple;
    flows.erase(ended);
    giveTurn(account);
    if (account.packets == 0 && account.workers == 0) accounts.erase(std::uint32_t{account.id});
}

}  // namespace platform::interception
