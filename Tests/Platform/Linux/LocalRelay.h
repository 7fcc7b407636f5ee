// A relay of sessions of the extension for tests: it listens on the loopback address and relays every
// connection to one server, as the provider's direct path does. Its sessions run on the platform's
// event loops; the test calls it from its own threads.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <utility>

#include "Extension/proxy-session/ProxySession.h"
#include "Platform/Linux/Relay/ConnectionAcceptor.h"
#include "Platform/Linux/Relay/SocketFlow.h"
#include "Platform/NEAppProxyFlow.h"
#include "Platform/Network.h"
#include "Tests/Platform/Linux/Sockets.h"

namespace platform {

class LocalRelay {
public:
    LocalRelay(std::string serverAddress, std::uint16_t serverPort,
               std::optional<NWInterface> interface = {})
        : server(std::move(serverAddress)),
          port(std::to_string(serverPort)),
          requiredInterface(std::move(interface)) {
        auto listener = listenOnLoopback();
        listeningPort = portOf(listener);
        makeNonBlocking(listener);
        acceptor = std::make_unique<ConnectionAcceptor>(
            std::move(listener),
            [this](FileDescriptor socket, const sockaddr_storage&) { relay(std::move(socket)); });
    }
    // Fails the test if a session does not end.
    ~LocalRelay() {
        acceptor = nullptr;
        EXPECT_TRUE(hasEnded());
    }

    std::uint16_t listeningOn() const { return listeningPort; }
    FileDescriptor connect() const { return connectTo("127.0.0.1", listeningPort); }

    // Whether all sessions end, and so many have begun, within the test's patience.
    bool hasEnded() {
        std::unique_lock guard(mutex);
        return changed.wait_for(guard, std::chrono::seconds(60), [&] { return sessions.empty(); });
    }
    bool hasRun(int count) {
        std::unique_lock guard(mutex);
        return changed.wait_for(guard, std::chrono::seconds(20),
                                [&] { return nextSession >= count; });
    }
    // As the provider does: one that has not been started tells no one of its end.
    void cancelAll() {
        std::unique_lock guard(mutex);
        const auto ending = std::exchange(sessions, {});
        guard.unlock();
        for (const auto& [id, session] : ending) session->cancelGracefully();
    }

private:
    void relay(FileDescriptor socket) {
        const auto side = std::make_shared<SocketFlow>();
        const auto flow = std::make_shared<NEAppProxyTCPFlow>(NEFlowMetaData{},
                                                              NWHostEndpoint{server, port}, side);
        NWParameters parameters = NWParameters::tcp();
        parameters.requiredInterface = requiredInterface;
        const auto remotePort = *NWEndpoint::Port::fromString(port);
        const RelayPairing pairing(*side, server, remotePort.rawValue());
        const auto connection =
            std::make_shared<NWConnection>(NWEndpoint::Host(server), remotePort, parameters);
        std::unique_lock guard(mutex);
        const auto session =
            std::make_shared<vantry::ProxySession>(flow, connection, "org.example.application",
                                                   nextSession++, Logger("org.example", "Test"));
        sessions[session->sessionId] = session;
        guard.unlock();
        session->start([this, id = session->sessionId] { sessionEnded(id); });
        side->supplySocket(std::move(socket));
    }
    void sessionEnded(std::int64_t id) {
        const std::lock_guard guard(mutex);
        EXPECT_TRUE(completed.insert(id).second) << "completed twice: " << id;
        sessions.erase(id);
        changed.notify_all();
    }

    const std::string server;
    const std::string port;
    const std::optional<NWInterface> requiredInterface;
    std::uint16_t listeningPort = 0;
    std::mutex mutex;
    std::condition_variable changed;
    std::map<std::int64_t, std::shared_ptr<vantry::ProxySession>> sessions;
    int nextSession = 0;
    std::set<std::int64_t> completed;
    std::unique_ptr<ConnectionAcceptor> acceptor;
};

}  // namespace platform
