#include "Platform/Simulated/SimulatedNetwork.h"

#include <algorithm>
#include <utility>

#include "Platform/Simulated/Contracts.h"
#include "Platform/Simulated/Machine.h"

namespace platform {
namespace simulated {

// Peers.

void Peer::refuses() { become(Reachability::refuses, 0); }
void Peer::isUnreachable() { become(Reachability::unreachable, 0); }
void Peer::waits(int times) { become(Reachability::accepts, times); }

void Peer::become(Reachability reachability, int attemptsThatWait) {
    {
        const MutexGuard guard(network.mutex);
        auto& state = network.peers[name];
        state.reachability = reachability;
        state.attemptsThatWait = attemptsThatWait;
    }
    forAll([](Connection& each) { each.tryAgain(); }, false);
}

void Peer::forAll(const Step& step, bool alsoThoseToCome) {
    std::vector<std::shared_ptr<Connection>> present;
    {
        const MutexGuard guard(network.mutex);
        auto& state = network.peers[name];
        present = state.connections;
        if (alsoThoseToCome) state.script.push_back(step);
    }
    for (const auto& each : present) step(*each);
}

void Peer::sends(std::string bytes) {
    forAll([piece = PeerPiece{std::move(bytes)}](Connection& each) { each.peerGives(piece); },
           true);
}

void Peer::sendsLast(std::string bytes) {
    forAll([piece = PeerPiece{std::move(bytes), true}](Connection& each) { each.peerGives(piece); },
           true);
}

void Peer::ends() { sendsLast({}); }

void Peer::sendsNothing() {
    PeerPiece nothing;
    nothing.isNothing = true;
    forAll([nothing](Connection& each) { each.peerGives(nothing); }, true);
}

void Peer::breaks(NSError error, std::string bytesWithIt) {
    const PeerPiece piece{std::move(bytesWithIt), false, std::move(error)};
    forAll([piece](Connection& each) { each.peerGives(piece); }, true);
}

void Peer::echoes() {
    forAll([](Connection& each) { each.peerEchoes(); }, true);
}

void Peer::stopsReading() {
    forAll([](Connection& each) { each.peerStopsReading(); }, true);
}

void Peer::readsOn() {
    forAll([](Connection& each) { each.peerReadsOn(); }, true);
}

void Peer::failsNextSend(NSError error) {
    forAll([error = std::move(error)](Connection& each) { each.failNextSend(error); }, true);
}

void Peer::fails(NSError error) {
    forAll([error = std::move(error)](
               Connection& each) { each.enter(NWConnection::State::Kind::failed, error); },
           false);
}

void Peer::makesWaiting(NSError error) {
    forAll([error = std::move(error)](
               Connection& each) { each.enter(NWConnection::State::Kind::waiting, error); },
           false);
}

std::vector<std::shared_ptr<Connection>> Peer::connections() const {
    const MutexGuard guard(network.mutex);
    return network.peers[name].connections;
}

std::shared_ptr<Connection> Peer::connection(std::size_t index) const {
    const auto all = connections();
    return index < all.size() ? all[index] : nullptr;
}

std::string Peer::received() const {
    std::string all;
    for (const auto& each : connections()) all += each->receivedByPeer();
    return all;
}

// The network.

void Network::setPath(std::vector<NWInterface> interfaces) {
    std::vector<std::shared_ptr<NWPathMonitor::Implementation>> monitorsNow;
    std::vector<std::shared_ptr<Connection>> connectionsNow;
    NWPath path{std::move(interfaces)};
    {
        const MutexGuard guard(mutex);
        currentPath = path;
        monitorsNow = running;
        connectionsNow = made;
    }
    for (const auto& monitor : monitorsNow) monitor->pathChanges(path);
    for (const auto& connection : connectionsNow) connection->tryAgain();
}

NWPath Network::path() const {
    const MutexGuard guard(mutex);
    return currentPath.value_or(NWPath());
}

MonitorCounts Network::monitors() const {
    const MutexGuard guard(mutex);
    return counts;
}

std::size_t Network::monitorsAtWork() const {
    const MutexGuard guard(mutex);
    return running.size();
}

Peer Network::peer(std::string host, std::uint16_t port) {
    return Peer(*this, {std::move(host), port});
}

std::vector<std::shared_ptr<Connection>> Network::connections() const {
    const MutexGuard guard(mutex);
    return made;
}

void Network::forgetConnections() {
    std::vector<std::shared_ptr<Connection>> forgotten;
    const MutexGuard guard(mutex);
    forgotten.swap(made);
    for (auto& [name, peer] : peers) peer.connections.clear();
}

void Network::end() {
    for (const auto& connection : connections()) connection->letGo();
    std::vector<std::shared_ptr<NWPathMonitor::Implementation>> monitorsNow;
    {
        const MutexGuard guard(mutex);
        monitorsNow = running;
    }
    for (const auto& monitor : monitorsNow) monitor->letGo();
}

void Network::connectionIsMade(const std::shared_ptr<Connection>& connection) {
    const MutexGuard guard(mutex);
    made.push_back(connection);
}

void Network::connectionStarts(const std::shared_ptr<Connection>& connection) {
    std::vector<Peer::Step> script;
    {
        const MutexGuard guard(mutex);
        auto& state = peers[{connection->host(), connection->port()}];
        state.connections.push_back(connection);
        script = state.script;
    }
    for (const auto& step : script) step(*connection);
}

Network::Outcome Network::outcomeOfAttempt(const Connection& connection) {
    const MutexGuard guard(mutex);
    const auto& interface = connection.requiredInterface();
    if (interface && currentPath) {
        const auto& usable = currentPath->availableInterfaces;
        const bool isThere = std::any_of(usable.begin(), usable.end(), [&](const auto& each) {
            return each.name() == interface->name();
        });
        if (!isThere) return {Reachability::unreachable};
    }
    auto& state = peers[{connection.host(), connection.port()}];
    if (state.attemptsThatWait > 0) {
        --state.attemptsThatWait;
        return {Reachability::unreachable, std::nullopt, 1.0};
    }
    return {state.reachability};
}

void Network::monitorIsMade() {
    const MutexGuard guard(mutex);
    ++counts.made;
}

void Network::monitorStarts(const std::shared_ptr<NWPathMonitor::Implementation>& monitor) {
    NWPath path;
    {
        const MutexGuard guard(mutex);
        ++counts.started;
        running.push_back(monitor);
        path = currentPath.value_or(NWPath());
    }
    monitor->pathChanges(std::move(path));
}

void Network::monitorEnds(const NWPathMonitor::Implementation* monitor, bool byCancel) {
    const MutexGuard guard(mutex);
    const auto removed =
        std::erase_if(running, [&](const auto& each) { return each.get() == monitor; });
    if (byCancel)
        ++counts.cancelled;
    else if (removed > 0)
        ++counts.letGoWithoutCancel;
}

}  // namespace simulated

// Path monitors.

using simulated::machine;

NWPathMonitor::Implementation::Implementation() : updates(machine().scheduler.makeLane()) {
    machine().network.monitorIsMade();
}

void NWPathMonitor::Implementation::setHandler(std::function<void(const NWPath&)> newHandler) {
    Handler set = std::make_shared<const std::function<void(const NWPath&)>>(std::move(newHandler));
    const MutexGuard guard(mutex);
    if (isStarted || handler)
        return simulated::breach("a path monitor's handler is set twice or after its start");
    handler = std::move(set);
}

bool NWPathMonitor::Implementation::start() {
    const MutexGuard guard(mutex);
    if (std::exchange(isStarted, true)) {
        simulated::breach("a path monitor is started a second time");
        return false;
    }
    return !isOver;
}

void NWPathMonitor::Implementation::cancel() {
    {
        const MutexGuard guard(mutex);
        isOver = true;
    }
    machine().network.monitorEnds(this, true);
}

void NWPathMonitor::Implementation::letGo() {
    Handler dropped;
    {
        const MutexGuard guard(mutex);
        isOver = true;
        dropped.swap(handler);
    }
    machine().network.monitorEnds(this, false);
}

void NWPathMonitor::Implementation::pathChanges(NWPath path) {
    machine().scheduler.deliver(
        "path update",
        [self = shared_from_this(), newPath = std::move(path)] { self->deliver(newPath); },
        updates);
}

void NWPathMonitor::Implementation::deliver(const NWPath& path) {
    Handler called;
    {
        const MutexGuard guard(mutex);
        if (isOver) return;
        called = handler;
    }
    if (called && *called) (*called)(path);
}

NWPathMonitor::NWPathMonitor() : implementation(std::make_shared<Implementation>()) {
    simulated::checkPlatformCall("NWPathMonitor");
}

NWPathMonitor::~NWPathMonitor() { implementation->letGo(); }

void NWPathMonitor::setPathUpdateHandler(std::function<void(const NWPath&)> handler) {
    simulated::checkPlatformCall("NWPathMonitor.setPathUpdateHandler");
    implementation->setHandler(std::move(handler));
}

void NWPathMonitor::start(DispatchQueue) {
    simulated::checkPlatformCall("NWPathMonitor.start");
    if (implementation->start()) machine().network.monitorStarts(implementation);
}

void NWPathMonitor::cancel() {
    simulated::checkPlatformCall("NWPathMonitor.cancel");
    implementation->cancel();
}

void keepWatchedFlowsInTunnel(bool isWanted, bool) {
    simulated::checkPlatformCall("keepWatchedFlowsInTunnel");
    machine().network.keepWatchedFlowsInTunnel(isWanted);
}

}  // namespace platform
