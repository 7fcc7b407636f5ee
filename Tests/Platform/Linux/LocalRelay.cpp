#include "Tests/Platform/Linux/LocalRelay.h"

#include <gtest/gtest.h>

#include <chrono>
#include <utility>
#include <vector>

#include "Platform/Linux/Relay/SocketFlow.h"
#include "Platform/NEAppProxyFlow.h"
#include "Tests/Platform/Linux/Sockets.h"

namespace platform {

using vantry::ProxySession;

LocalRelay::LocalRelay(std::string serverAddress, std::uint16_t serverPort,
                       std::optional<NWInterface> interface)
    : server(std::move(serverAddress)), port(serverPort), requiredInterface(std::move(interface)) {
    auto listener = listenOnLoopback();
    listeningPort = portOf(listener);
    makeNonBlocking(listener);
    acceptor = std::make_unique<ConnectionAcceptor>(
        std::move(listener),
        [this](FileDescriptor socket, const sockaddr_storage&) { relay(std::move(socket)); });
}

LocalRelay::~LocalRelay() {
    acceptor = nullptr;
    EXPECT_TRUE(hasEnded());
}

FileDescriptor LocalRelay::connect() const { return connectTo("127.0.0.1", listeningPort); }

bool LocalRelay::hasEnded() {
    std::unique_lock guard(mutex);
    return changed.wait_for(guard, std::chrono::seconds(60), [&] { return sessions.empty(); });
}

bool LocalRelay::hasRun(int count) {
    std::unique_lock guard(mutex);
    return changed.wait_for(guard, std::chrono::seconds(20), [&] { return nextSession >= count; });
}

void LocalRelay::cancelAll() {
    std::vector<std::shared_ptr<ProxySession>> ending;
    {
        const std::lock_guard guard(mutex);
        // As the provider does: one that has not been started tells nobody of its end.
        for (const auto& [id, session] : std::exchange(sessions, {})) ending.push_back(session);
    }
    for (const auto& session : ending) session->cancelGracefully();
}

void LocalRelay::relay(FileDescriptor socket) {
    const auto side = std::make_shared<NEAppProxyTCPFlow::Implementation>();
    const auto flow = std::make_shared<NEAppProxyTCPFlow>(
        NEFlowMetaData{}, NWHostEndpoint{server, std::to_string(port)}, side);
    NWParameters parameters = NWParameters::tcp();
    parameters.requiredInterface = requiredInterface;
    const auto connection = std::make_shared<NWConnection>(
        NWEndpoint::Host(server), *NWEndpoint::Port::fromString(std::to_string(port)), parameters);
    std::shared_ptr<ProxySession> session;
    {
        const std::lock_guard guard(mutex);
        const int id = nextSession++;
        session = std::make_shared<ProxySession>(flow, connection, "org.example.application", id,
                                                 Logger("org.example", "Test"));
        sessions[id] = session;
    }
    session->start([this, id = session->sessionId] { sessionEnded(id); });
    side->supplySocket(std::move(socket));
}

void LocalRelay::sessionEnded(std::int64_t id) {
    const std::lock_guard guard(mutex);
    EXPECT_TRUE(completed.insert(id).second) << "completed twice: " << id;
    sessions.erase(id);
    changed.notify_all();
}

}  // namespace platform
