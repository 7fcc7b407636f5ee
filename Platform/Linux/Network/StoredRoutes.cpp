#include "Platform/Linux/Network/StoredRoutes.h"

#include <arpa/inet.h>

#include <array>
#include <memory>
#include <optional>
#include <sstream>
#include <utility>

#include "Platform/Common/Mutex.h"
#include "Platform/Foundation.h"
#include "Platform/Linux/HostChannel/FixedPlaces.h"
#include "Platform/Linux/PlatformLog.h"

namespace platform {
namespace {

// A line each: the interface's index, the metric, the gateway.
void append(std::ostream& lines, int index, int family, const std::optional<DefaultRoute>& route) {
    if (!route || !route->gateway) return;
    std::array<char, INET6_ADDRSTRLEN> gateway{};
    ::inet_ntop(family, route->gateway->data(), gateway.data(), gateway.size());
    lines << index << ' ' << route->metric << ' ' << gateway.data() << '\n';
}

std::string linesOf(const NetworkState& network) {
    std::ostringstream lines;
    for (const auto& interface : network.interfaces) {
        if (interface.isTunnel) continue;
        append(lines, interface.index, AF_INET, interface.ipv4);
        append(lines, interface.index, AF_INET6, interface.ipv6);
    }
    return lines.str();
}

}  // namespace

NetworkState readStoredRoutes() {
    NetworkState network;
    const auto content = NSFileManager::defaultManager().contentsAtPath(places::storedRoutesFile);
    if (!content) return network;
    std::istringstream lines{std::string(content->bytes().value_or(""))};
    NetworkInterface interface;
    DefaultRoute route;
    for (std::string gateway; lines >> interface.index >> route.metric >> gateway;) {
        const int family = gateway.find(':') == std::string::npos ? AF_INET : AF_INET6;
        route.gateway.emplace();
        if (::inet_pton(family, gateway.c_str(), route.gateway->data()) != 1) continue;
        auto& place =
            network.interfaces.empty() || network.interfaces.back().index != interface.index
                ? network.interfaces.emplace_back(interface)
                : network.interfaces.back();
        (family == AF_INET ? place.ipv4 : place.ipv6) = route;
    }
    return network;
}

class StoredRoutes::File {
public:
    // The latest picture, whichever call comes first.
    void update() {
        const MutexGuard oneWriteAtATime(lock);
        auto lines = linesOf(*NetworkMonitor::shared().state());
        if (lines == stored) return;
        const auto failure =
            NSFileManager::defaultManager().writeAtomically(lines, places::storedRoutesFile);
        if (failure)
            return platformLog.error("The default routes cannot be stored: %{public}s",
                                     failure->localizedDescription);
        stored = std::move(lines);
    }

private:
    Mutex lock;  // held across the write, so that the latest one is the last
    std::string stored GUARDED_BY(lock);
};

StoredRoutes::StoredRoutes() {
    const auto file = std::make_shared<File>();
    following = NetworkMonitor::shared().observe([file](const auto&) { file->update(); });
    file->update();
}

}  // namespace platform
