// A relay of sessions of the extension for tests: it listens on the loopback address and relays every
// connection to one server, as the provider's direct path does. Its sessions run on the platform's
// event loops; the test calls it from its own threads.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>

#include "Extension/proxy-session/ProxySession.h"
#include "Platform/Linux/FileDescriptor.h"
#include "Platform/Linux/Relay/ConnectionAcceptor.h"
#include "Platform/Network.h"

namespace platform {

class LocalRelay {
public:
    LocalRelay(std::string serverAddress, std::uint16_t serverPort,
               std::optional<NWInterface> interface = {});
    // Fails the test if a session does not end.
    ~LocalRelay();

    std::uint16_t listeningOn() const { return listeningPort; }
    FileDescriptor connect() const;

    // Whether all sessions end, and so many have begun, within the test's patience.
    bool hasEnded();
    bool hasRun(int count);
    void cancelAll();

private:
    void relay(FileDescriptor socket);
    void sessionEnded(std::int64_t id);

    const std::string server;
    const std::uint16_t port;
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
