#include "Platform/Linux/Decisions/ClosedFlows.h"

#include <poll.h>
#include <sys/eventfd.h>

#include <array>
#include <utility>

namespace platform::interception {

Result<std::unique_ptr<ClosedFlows>> ClosedFlows::begin(DatagramFlows& datagrams,
                                                        Forget forgetFlow) {
    auto sockets = ClosedSockets::attach();
    if (!sockets) return sockets.error();
    auto entries = ConnectionEntries::open();
    if (!entries) return entries.error();
    return std::unique_ptr<ClosedFlows>(new ClosedFlows(std::move(*sockets), std::move(*entries),
                                                        datagrams, std::move(forgetFlow)));
}

ClosedFlows::ClosedFlows(std::unique_ptr<ClosedSockets> closedSockets,
                         std::unique_ptr<ConnectionEntries> ofTable, DatagramFlows& datagrams,
                         Forget forgetFlow)
    : sockets(std::move(closedSockets)),
      known(datagrams),
      forget(std::move(forgetFlow)),
      entries(std::move(ofTable)),
      stop(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      thread([this] { serve(); }) {}

ClosedFlows::~ClosedFlows() {
    eventfd_write(stop.get(), 1);
    thread.join();
}

void ClosedFlows::Round::add(const DatagramFlows::Ended& ended) {
    flows.insert(flows.end(), ended.flows.begin(), ended.flows.end());
    if (ended.hasMore) ports.insert(ended.flows.front().sourcePort);
}

void ClosedFlows::serve() {
    for (;;) {
        std::array<pollfd, 2> polled{
            {{sockets->eventDescriptor(), POLLIN, 0}, {stop.get(), POLLIN, 0}}};
        poll(polled.data(), polled.size(), -1);
        if (polled[1].revents != 0) return;
        if (polled[0].revents != 0) end(take());
    }
}

ClosedFlows::Round ClosedFlows::take() {
    Round round;
    const bool isComplete = sockets->take([&](std::uint64_t cookie) {
        if (const auto ended = known.end(cookie)) round.add(*ended);
    });
    if (isComplete) return round;
    for (const auto& ended : known.endAll()) round.add(ended);
    return round;
}

void ClosedFlows::end(const Round& round) {
    for (const FlowTuple& flow : round.flows) forget(flow);
    entries->remove(round.flows);
    if (round.ports.empty()) return;
    for (const FlowTuple& flow : entries->removeDatagramsFrom(round.ports)) forget(flow);
}

}  // namespace platform::interception
