#include "Host/vantryctl/VerifyCommand.h"

#include <arpa/inet.h>
#include <fmt/format.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <csignal>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "Host/settings/Documents.h"
#include "Host/vantryctl/Daemon.h"
#include "Host/vantryctl/Destination.h"
#include "Host/vantryctl/Duration.h"
#include "Host/vantryctl/PacketWatch.h"
#include "Platform/Linux/Network/NetworkMonitor.h"

namespace vantryctl {

using platform::FlowTuple;
using platform::JSONObject;
using vantryhost::flagUnder;
using vantryhost::textUnder;

namespace {

// Ends the look before its time.
volatile std::sig_atomic_t isInterrupted = 0;

// How a flow left, against how it was to.
enum class Departure { right, notJudged, leaked, inTunnel };

struct Left {
    std::string identifier;  // empty: the system's, or no one's that can be named
    std::string to;
    std::string interface;
    Departure departure = Departure::notJudged;
};

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

std::set<std::string> tunnelNames() {
    std::set<std::string> names;
    for (const auto& interface : platform::NetworkMonitor::shared().state()->interfaces)
        if (interface.isTunnel) names.insert(interface.name);
    return names;
}

Departure judged(const DepartingFlow& departing, const JSONObject& answer,
                 const std::set<std::string>& tunnels) {
    const bool isInTunnel = tunnels.contains(departing.interface);
    const auto route = textUnder(answer, "route");
    if (route.empty()) return Departure::notJudged;
    if (route == "blocked") return Departure::leaked;
    if (route == "direct") return isInTunnel ? Departure::inTunnel : Departure::right;
    if (isInTunnel) return Departure::right;
    // What is near, or outside of a tunnel for some networks only, leaves here by the system's own route.
    const bool isSystemsRoute =
        interfaceTowards(destinationOf(departing.flow)) == departing.interface;
    return isSystemsRoute ? Departure::right : Departure::leaked;
}

const char* wordFor(Departure departure) {
    switch (departure) {
        case Departure::right:
            return "right";
        case Departure::notJudged:
            return "not judged";
        case Departure::leaked:
            return "LEAKED";
        case Departure::inTunnel:
            return "IN THE TUNNEL";
    }
    return "";
}

bool isWrong(const Left& left) {
    return left.departure == Departure::leaked || left.departure == Departure::inTunnel;
}

class Watcher {
public:
    void see(const DepartingFlow& departing) {
        if (departing.interface == "lo") return;
        const auto answer = askPlatform(questionAbout(departing.flow));
        const auto* document = std::get_if<JSONObject>(&answer);
        Left left{document ? textUnder(*document, "identifier") : "",
                  textOf(destinationOf(departing.flow)), departing.interface};
        if (document) left.departure = judged(departing, *document, tunnels);
        seen.push_back(std::move(left));
    }
    const std::vector<Left>& all() const { return seen; }

private:
    const std::set<std::string> tunnels = tunnelNames();
    std::vector<Left> seen;
};

// "14 flows, all eth0", by application.
void printSummary(const std::vector<Left>& all, const Console& console) {
    std::map<std::string, std::map<std::string, std::size_t>> flows;
    for (const auto& left : all) ++flows[left.identifier][left.interface];
    for (const auto& [identifier, byInterface] : flows) {
        std::size_t count = 0;
        std::string ways;
        for (const auto& [interface, number] : byInterface) {
            count += number;
            ways += fmt::format("{}{} {}", ways.empty() ? "" : ", ", number, interface);
        }
        if (byInterface.size() == 1) ways = "all " + byInterface.begin()->first;
        console.out << fmt::format(
            "{}: {} flow{}, {}\n",
            identifier.empty() ? "(the system, or unknown)" : printable(identifier), count,
            count == 1 ? "" : "s", ways);
    }
}

void print(const std::vector<Left>& all, std::uint32_t missed, const Console& console) {
    printSummary(all, console);
    std::size_t wrong = 0;
    for (const auto& left : all) {
        if (!isWrong(left)) continue;
        ++wrong;
        console.out << fmt::format("{}: {} to {} by {}\n", wordFor(left.departure),
                                   printable(left.identifier), left.to, left.interface);
    }
    console.out << "leaks: " << (wrong == 0 ? "none" : std::to_string(wrong)) << '\n';
    if (missed > 0)
        console.note(fmt::format("{} packets came faster than they could be looked at.", missed));
}

JSONObject documentOfFlows(const std::vector<Left>& all, std::uint32_t missed) {
    platform::JSONArray list;
    std::int64_t wrong = 0;
    for (const auto& left : all) {
        if (isWrong(left)) ++wrong;
        list.emplace_back(JSONObject{{"identifier", left.identifier},
                                     {"to", left.to},
                                     {"interface", left.interface},
                                     {"finding", wordFor(left.departure)}});
    }
    return {{"flows", std::move(list)}, {"leaks", wrong}, {"packetsMissed", std::int64_t{missed}}};
}

}  // namespace

ExitCode verify(const VerifyOptions& options, const Console& console) {
    // What cannot be asked is said before the wait.
    const auto status = askForStatus();
    if (const auto* failure = failureOf(status)) return console.report(*failure);
    auto opened = PacketWatch::open();
    if (const auto* failure = failureOf(opened)) return console.report(*failure);
    auto& packets = std::get<PacketWatch>(opened);
    if (!options.asJSON)
        console.out << "Looking at what leaves for " << durationText(options.time.count())
                    << ", or until Ctrl-C; use the applications meanwhile.\n"
                    << std::flush;
    Watcher watcher;
    std::signal(SIGINT, [](int) { isInterrupted = 1; });
    packets.watch(options.time, isInterrupted, [&](const auto& flow) { watcher.see(flow); });
    const auto missed = packets.missed();
    if (options.asJSON)
        console.out << documentOf(documentOfFlows(watcher.all(), missed));
    else
        print(watcher.all(), missed, console);
    return std::ranges::any_of(watcher.all(), isWrong) ? ExitCode::failed : ExitCode::done;
}

}  // namespace vantryctl
