#include "Host/vantryctl/Departures.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include "Host/settings/Documents.h"
#include "Host/vantryctl/Daemon.h"
#include "Host/vantryctl/Destination.h"
#include "Host/vantryctl/TunnelSockets.h"
#include "Platform/Linux/Network/NetworkMonitor.h"

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

Departure judged(const DepartingFlow& departing, const std::string& route,
                 const std::set<std::string>& tunnels) {
    const bool isInTunnel = tunnels.contains(departing.interface);
    if (route.empty())
        return !isInTunnel && isTunnelsOwn(departing.flow) ? Departure::tunnelsOwn
                                                           : Departure::notJudged;
    if (route == "blocked") return Departure::leaked;
    if (route == "direct") return isInTunnel ? Departure::inTunnel : Departure::right;
    if (isInTunnel) return Departure::right;
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
