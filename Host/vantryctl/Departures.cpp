#include "Host/vantryctl/Departures.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>

#include "Host/settings/Documents.h"
#include "Host/vantryctl/Daemon.h"
#include "Host/vantryctl/Destination.h"
#include "Host/vantryctl/TunnelSockets.h"
#include "Platform/Linux/Network/NetworkMonitor.h"
#include "Platform/Linux/Network/PrivateNetworks.h"
#include "Platform/Linux/Network/RememberedRoutes.h"

namespace vantryctl {

using platform::FlowTuple;
using platform::JSONObject;
using vantryhost::textUnder;

namespace {

std::string textOfAddress(int family, const std::array<std::uint8_t, 16>& address) {
    char text[INET6_ADDRSTRLEN] = "";
    inet_ntop(family, address.data(), text, sizeof text);
    return text;
}

Destination destinationOf(const FlowTuple& flow) {
    return {textOfAddress(flow.family, flow.destinationAddress), flow.destinationPort};
}

JSONObject questionAbout(const FlowTuple& flow) {
    return {{"question", "owner"},
            {"protocol", flow.protocol == IPPROTO_UDP ? "udp" : "tcp"},
            {"source", textOfAddress(flow.family, flow.sourceAddress)},
            {"sourcePort", std::int64_t{flow.sourcePort}},
            {"host", textOfAddress(flow.family, flow.destinationAddress)},
            {"port", std::int64_t{flow.destinationPort}},
            {"interface", std::int64_t{flow.outputInterface}}};
}

struct Prefix {
    int family;
    const char* address;
    int length;
};
constexpr std::array<Prefix, 7> alwaysNear{{{AF_INET, "127.0.0.0", 8},
                                            {AF_INET, "169.254.0.0", 16},
                                            {AF_INET, "224.0.0.0", 4},
                                            {AF_INET, "255.255.255.255", 32},
                                            {AF_INET6, "::1", 128},
                                            {AF_INET6, "fe80::", 10},
                                            {AF_INET6, "ff00::", 8}}};

// Private, of the link, or to many; or on the link of one of the machine's interfaces.
bool isNear(const Destination& destination) {
    const int family = destination.host.find(':') == std::string::npos ? AF_INET : AF_INET6;
    std::array<std::uint8_t, 16> address{};
    if (inet_pton(family, destination.host.c_str(), address.data()) != 1) return false;
    const auto covers = [&](const platform::InterfaceAddress& network) {
        return network.family == family && platform::isOnLinkOf(network, address);
    };
    const bool isAlwaysNear = std::ranges::any_of(alwaysNear, [&](const Prefix& prefix) {
        platform::InterfaceAddress network{.family = prefix.family, .prefixLength = prefix.length};
        inet_pton(prefix.family, prefix.address, network.bytes.data());
        return covers(network);
    });
    constexpr int lengthOfHost = 128;
    const auto state = platform::NetworkMonitor::shared().state();
    return isAlwaysNear || platform::isPrivateNetwork(family, address, lengthOfHost) ||
           std::ranges::any_of(state->interfaces, [&](const auto& interface) {
               return !interface.isTunnel && std::ranges::any_of(interface.addresses, covers);
           });
}

Departure judged(const DepartingFlow& departing, const std::string& route,
                 const std::set<std::string>& tunnels) {
    const bool isInTunnel = tunnels.contains(departing.interface);
    if (route.empty())
        return !isInTunnel && isTunnelsOwn(departing.flow) ? Departure::tunnelsOwn
                                                           : Departure::notJudged;
    if (route == "blocked") return Departure::leaked;
    if (route == "direct") return isInTunnel ? Departure::inTunnel : Departure::right;
    if (isInTunnel) return Departure::right;
    if (isTunnelsOwn(departing.flow)) return Departure::tunnelsOwn;
    if (belongsInTunnel(destinationOf(departing.flow), tunnels)) return Departure::leaked;
    // What is near, or outside of a tunnel for some networks only, leaves here by the system's own route.
    const bool isSystemsRoute =
        interfaceTowards(destinationOf(departing.flow)) == departing.interface;
    return isSystemsRoute ? Departure::right : Departure::leaked;
}

}  // namespace

const char* wordFor(Departure departure) {
    switch (departure) {
        case Departure::right:
            return "right";
        case Departure::notJudged:
            return "not judged";
        case Departure::tunnelsOwn:
            return "the tunnel's own";
        case Departure::leaked:
            return "LEAKED";
        case Departure::inTunnel:
            return "IN THE TUNNEL";
    }
    return "";
}

bool belongsInTunnel(const Destination& destination, const std::set<std::string>& tunnels) {
    const bool hasDefault =
        tunnels.contains(interfaceTowards(farIPv4)) || tunnels.contains(interfaceTowards(farIPv6));
    return hasDefault && !isNear(destination);
}

std::set<std::string> tunnelNames() {
    std::set<std::string> names;
    for (const auto& interface : platform::NetworkMonitor::shared().state()->interfaces)
        if (interface.isTunnel) names.insert(interface.name);
    return names;
}

Left Departures::examine(const DepartingFlow& departing) const {
    const auto answer = askPlatform(questionAbout(departing.flow));
    const auto* document = std::get_if<JSONObject>(&answer);
    Left left{document ? textUnder(*document, "identifier") : "",
              textOf(destinationOf(departing.flow)), departing.interface,
              departing.flow.protocol == IPPROTO_UDP};
    if (document) left.departure = judged(departing, textUnder(*document, "route"), tunnels());
    return left;
}

}  // namespace vantryctl
