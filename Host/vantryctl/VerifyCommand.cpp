#include "Host/vantryctl/VerifyCommand.h"

#include <fmt/format.h>

#include <algorithm>
#include <csignal>
#include <map>
#include <set>
#include <vector>

#include "Host/settings/Documents.h"
#include "Host/vantryctl/Daemon.h"
#include "Host/vantryctl/Departures.h"
#include "Host/vantryctl/Duration.h"
#include "Host/vantryctl/OwnFlows.h"
#include "Host/vantryctl/PacketWatch.h"

namespace vantryctl {

using platform::JSONObject;

namespace {

// Ends the look before its time.
volatile std::sig_atomic_t isInterrupted = 0;

const char* wordFor(Way way) {
    switch (way) {
        case Way::direct:
            return "direct";
        case Way::vpn:
            return "vpn";
        case Way::blocked:
            break;
    }
    return "blocked";
}

const char* wordFor(OwnFlow::Finding finding) {
    switch (finding) {
        case OwnFlow::Finding::right:
            return "right";
        case OwnFlow::Finding::wrong:
            return "WRONG";
        case OwnFlow::Finding::notTried:
            break;
    }
    return "not tried";
}

// "TCP by eth0", with what was to happen instead.
std::string textOf(const OwnFlow& flow) {
    if (flow.finding == OwnFlow::Finding::notTried) return flow.reason;
    const auto left = flow.interfaces.empty()
                          ? std::string(": nothing left")
                          : fmt::format(" by {}", fmt::join(flow.interfaces, ", "));
    const auto text = fmt::format("{}{}", flow.isDatagram ? "UDP" : "TCP", left);
    return flow.reason.empty() ? text : fmt::format("{}: {}", text, flow.reason);
}

std::string lineOf(const OwnFlow& flow, const std::string& text) {
    return fmt::format("  {:<9}  {:<7}  {}\n", wordFor(flow.finding), wordFor(flow.way), text);
}

// A line for each way and protocol, or for each destination where they differ.
void print(const std::vector<OwnFlow>& flows, const Console& console) {
    std::vector<std::string> destinations;
    for (const auto& flow : flows)
        if (std::ranges::find(destinations, textOf(flow.to)) == destinations.end())
            destinations.push_back(textOf(flow.to));
    if (destinations.empty())
        console.out << "Flows of its own: none could be made, as no route leads anywhere.\n";
    else
        console.out << fmt::format("Flows of its own, to {}:\n", fmt::join(destinations, " and "));
    std::set<std::string> printed;
    for (const auto& flow : flows) {
        const bool differs = std::ranges::any_of(flows, [&](const auto& other) {
            return other.way == flow.way && other.isDatagram == flow.isDatagram &&
                   textOf(other) != textOf(flow);
        });
        const auto line =
            lineOf(flow, differs ? fmt::format("{} (to {})", textOf(flow), textOf(flow.to))
                                 : textOf(flow));
        if (printed.insert(line).second) console.out << line;
    }
    console.out << std::flush;
}

std::string nameOf(const Left& left) {
    if (left.departure == Departure::tunnelsOwn) return "(the VPN itself)";
    return left.identifier.empty() ? "(the system, or unknown)" : printable(left.identifier);
}

// "14 flows, all eth0", by application.
void printSummary(const std::vector<Left>& all, const Console& console) {
    std::map<std::string, std::map<std::string, std::size_t>> flows;
    for (const auto& left : all) ++flows[nameOf(left)][left.interface];
    for (const auto& [name, byInterface] : flows) {
        std::size_t count = 0;
        std::string ways;
        for (const auto& [interface, number] : byInterface) {
            count += number;
            ways += fmt::format("{}{} {}", ways.empty() ? "" : ", ", number, interface);
        }
        if (byInterface.size() == 1) ways = "all " + byInterface.begin()->first;
        console.out << fmt::format("{}: {} flow{}, {}\n", name, count, count == 1 ? "" : "s", ways);
    }
}

void print(const std::vector<Left>& all, std::uint32_t missed, const Console& console) {
    printSummary(all, console);
    const auto wrong = std::ranges::count_if(all, &Left::isWrong);
    for (const auto& left : all)
        if (left.isWrong())
            console.out << fmt::format("{}: {} to {} by {}\n", wordFor(left.departure),
                                       printable(left.identifier), left.to, left.interface);
    console.out << "leaks: " << (wrong == 0 ? "none" : std::to_string(wrong)) << '\n';
    if (missed > 0)
        console.note(fmt::format("{} packets came faster than they could be looked at.", missed));
}

JSONObject documentOfFlow(const OwnFlow& flow) {
    return {{"way", wordFor(flow.way)},
            {"protocol", flow.isDatagram ? "udp" : "tcp"},
            {"to", textOf(flow.to)},
            {"interfaces", platform::JSONArray(flow.interfaces.begin(), flow.interfaces.end())},
            {"finding", wordFor(flow.finding)},
            {"reason", flow.reason}};
}

JSONObject documentOfFlows(const std::vector<OwnFlow>& own, const std::vector<Left>& all,
                           std::uint32_t missed) {
    platform::JSONArray ownList;
    for (const auto& flow : own) ownList.emplace_back(documentOfFlow(flow));
    platform::JSONArray list;
    for (const auto& left : all)
        list.emplace_back(JSONObject{{"identifier", left.identifier},
                                     {"to", left.to},
                                     {"interface", left.interface},
                                     {"finding", wordFor(left.departure)}});
    return {{"own", std::move(ownList)},
            {"flows", std::move(list)},
            {"leaks", static_cast<std::int64_t>(std::ranges::count_if(all, &Left::isWrong))},
            {"packetsMissed", std::int64_t{missed}}};
}

// Where to; none where no own flows are wanted.
Outcome<std::vector<Destination>> destinationsOf(const VerifyOptions& options) {
    std::vector<Destination> destinations;
    if (options.onlyLooks) return destinations;
    if (options.to.empty()) return harmlessDestinations();
    for (const auto& word : options.to) {
        auto destination = destinationIn(word);
        if (auto* failure = std::get_if<Failure>(&destination)) return std::move(*failure);
        destinations.push_back(std::get<Destination>(std::move(destination)));
        if (interfaceTowards(destinations.back()) == "lo")
            return Failure{ExitCode::usage, word + " is on this machine: such flows meet no rule.",
                           "Give a host elsewhere, or none."};
    }
    return destinations;
}

}  // namespace

ExitCode verify(const VerifyOptions& options, const Console& console) {
    // What cannot be asked is said before the wait.
    const auto status = askForStatus();
    if (const auto* failure = failureOf(status)) return console.report(*failure);
    const auto destinations = destinationsOf(options);
    if (const auto* failure = failureOf(destinations)) return console.report(*failure);
    auto opened = PacketWatch::open();
    if (const auto* failure = failureOf(opened)) return console.report(*failure);
    auto& packets = std::get<PacketWatch>(opened);
    Departures departures;
    isInterrupted = 0;
    std::signal(SIGINT, [](int) { isInterrupted = 1; });
    const auto keep = [&](Left left) {
        if (left.interface != "lo") departures.keep(std::move(left));
    };
    std::vector<OwnFlow> own;
    if (!options.onlyLooks)
        own = makeOwnFlows(packets, departures, std::get<std::vector<Destination>>(destinations),
                           isInterrupted, keep);
    if (!options.asJSON) {
        if (!options.onlyLooks) print(own, console);
        console.out << "Looking at what leaves for " << durationText(options.time.count())
                    << ", or until Ctrl-C; use the applications meanwhile.\n"
                    << std::flush;
    }
    packets.watch(options.time, isInterrupted,
                  [&](const auto& flow) { keep(departures.examine(flow)); });
    std::signal(SIGINT, SIG_DFL);
    const auto missed = packets.missed();
    if (options.asJSON)
        console.out << documentOf(documentOfFlows(own, departures.all(), missed));
    else
        print(departures.all(), missed, console);
    const bool isWrong = std::ranges::any_of(departures.all(), &Left::isWrong) ||
                         std::ranges::any_of(own, [](const auto& flow) {
                             return flow.finding == OwnFlow::Finding::wrong;
                         });
    return isWrong ? ExitCode::failed : ExitCode::done;
}

}  // namespace vantryctl
