#include "Host/vantryctl/OwnFlows.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <optional>
#include <thread>

#include "Host/settings/Documents.h"
#include "Host/vantryctl/Daemon.h"
#include "Host/vantryctl/SettingsClient.h"
#include "Platform/Linux/FileDescriptor.h"
#include "Platform/Linux/Network/NetworkMonitor.h"

namespace vantryctl {

using platform::FileDescriptor;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

namespace {

constexpr std::uint16_t portOfHTTPS = 443;
// What leaves at all leaves within this; a service manager may have to make the group first.
constexpr milliseconds longestLook{3000};
constexpr milliseconds slice{100};
// For what leaves a second time, the wrong way.
constexpr milliseconds afterwards{300};
constexpr std::chrono::seconds longestRule{60};
constexpr unsigned longestLife = 10;
// A verdict takes this at most. Until then the sender of a datagram must be found, where the kernel
// takes no notes by who holds its socket.
constexpr std::chrono::seconds longestVerdict{2};

bool isIPv6(const Destination& destination) {
    return destination.host.find(':') != std::string::npos;
}

// How a flow is to leave: by this interface, by a tunnel, by any physical one, or not at all.
struct Expectation {
    enum class Leaves {
        bySystemsRoute,
        byTunnel,
        directly,
        notAtAll,
        unknown
    } leaves = Leaves::unknown;
    std::string interface;
    std::string reason;  // of `unknown`
};
using Leaves = Expectation::Leaves;

bool hasPhysicalWay(const Destination& destination) {
    using Type = platform::NWInterface::InterfaceType;
    const auto state = platform::NetworkMonitor::shared().state();
    return std::ranges::any_of(state->interfaces, [&](const auto& each) {
        const bool isPhysical = each.type == Type::wifi || each.type == Type::wiredEthernet;
        return isPhysical && !each.isTunnel && each.isAvailable() &&
               (isIPv6(destination) ? each.ipv6 : each.ipv4).has_value();
    });
}

Expectation bySystemsRoute(const Destination& destination) {
    auto interface = interfaceTowards(destination);
    if (interface.empty()) return {Leaves::unknown, "", "no route leads there"};
    return {Leaves::bySystemsRoute, std::move(interface), ""};
}

// The fallback of vpn concerns connections, and datagrams of HTTP/3.
bool isHeldBack(const StoredSettings& stored, bool isDatagram, const Destination& destination) {
    return !stored.tunnel.isUp && stored.choices.settings.vpnFallback == "block" &&
           (!isDatagram || destination.port == portOfHTTPS);
}

// Whether they are depends on the kernel too, so the daemon is asked.
bool areDatagramsDirect(const std::string& identifier, const Destination& destination) {
    const auto answer = askPlatform({{"question", "why"},
                                     {"identifier", identifier},
                                     {"protocol", "udp"},
                                     {"host", destination.host},
                                     {"port", std::int64_t{destination.port}}});
    const auto* document = std::get_if<platform::JSONObject>(&answer);
    const auto* explanation =
        document ? vantryhost::objectUnder(*document, "explanation") : nullptr;
    return explanation && vantryhost::textUnder(*explanation, "route") == "direct";
}

Expectation expectationFor(const OwnFlow& flow, const std::string& identifier,
                           const StoredSettings& stored, const std::set<std::string>& tunnels) {
    const auto way = flow.way;
    const bool isDatagram = flow.isDatagram;
    const auto& destination = flow.to;
    if (way == Way::blocked) return {Leaves::notAtAll, "", ""};
    if (way == Way::vpn && isHeldBack(stored, isDatagram, destination))
        return {Leaves::notAtAll, "", ""};
    if (way == Way::vpn && belongsInTunnel(destination, tunnels)) return {Leaves::byTunnel, "", ""};
    if (way == Way::vpn || (isDatagram && !areDatagramsDirect(identifier, destination)))
        return bySystemsRoute(destination);
    if (hasPhysicalWay(destination)) return {Leaves::directly, "", ""};
    return {Leaves::unknown, "", "no physical interface leads there"};
}

void judge(OwnFlow& flow, const Expectation& expected, const std::set<std::string>& tunnels) {
    const auto find = [&](bool isRight, std::string reason) {
        flow.finding = isRight ? OwnFlow::Finding::right : OwnFlow::Finding::wrong;
        if (!isRight) flow.reason = std::move(reason);
    };
    const auto& left = flow.interfaces;
    switch (expected.leaves) {
        case Leaves::notAtAll:
            return find(left.empty(), "nothing was to leave");
        case Leaves::bySystemsRoute:
            return find(left == std::set{expected.interface},
                        fmt::format("it was to leave by {}", expected.interface));
        case Leaves::byTunnel:
            return find(!left.empty() && std::ranges::includes(tunnels, left),
                        "it was to leave by the tunnel");
        case Leaves::directly:
            return find(!left.empty() &&
                            std::ranges::none_of(
                                left, [&](const auto& name) { return tunnels.contains(name); }),
                        "it was to leave by the physical interface");
        case Leaves::unknown:
            flow.reason = expected.reason;
    }
}

std::string ownProgram() {
    std::error_code none;
    return std::filesystem::read_symlink("/proc/self/exe", none);
}

std::vector<std::string> wordsOfKnock(const std::vector<Destination>& destinations) {
    std::vector<std::string> words{ownProgram(), "knock"};
    for (const auto& each : destinations) {
        words.push_back(each.host);
        words.push_back(std::to_string(each.port));
    }
    return words;
}

// One route's program while it runs, and what left of its flows.
class Attempt {
public:
    Attempt(Way way, const std::vector<Destination>& destinations, const RuledCommand& running)
        : command(running) {
        for (const auto& destination : destinations)
            for (const bool isDatagram : {false, true})
                flows.push_back({way, isDatagram, destination, {}, OwnFlow::Finding::notTried, ""});
    }

    // Whether it is one of these flows.
    bool take(const Left& left) {
        if (!left.identifier.empty() && left.identifier != command.identifier) return false;
        for (auto& flow : flows) {
            if (flow.isDatagram != left.isDatagram || textOf(flow.to) != left.to) continue;
            flow.interfaces.insert(left.interface);
            return true;
        }
        return false;
    }
    bool haveAllLeft() const {
        return std::ranges::none_of(flows,
                                    [](const auto& each) { return each.interfaces.empty(); });
    }
    bool hasEnded() {
        if (!status) {
            int found = 0;
            if (waitpid(command.process, &found, WNOHANG) == command.process) status = found;
        }
        return status.has_value();
    }
    // Ends it. False: it never came to send anything.
    bool finish() {
        bool hasRun = hasEnded() && *status == 0;
        if (!status) {
            std::string name;
            std::getline(std::ifstream(fmt::format("/proc/{}/comm", command.process)), name);
            hasRun = ownProgram().ends_with("/" + name);
            kill(command.process, SIGKILL);
            waitpid(command.process, nullptr, 0);
        }
        return hasRun;
    }
    std::vector<OwnFlow> flows;

private:
    const RuledCommand& command;
    std::optional<int> status;
};

std::vector<OwnFlow> notTried(Way way, const std::vector<Destination>& destinations,
                              const std::string& reason) {
    std::vector<OwnFlow> flows;
    flows.reserve(destinations.size());
    for (const auto& destination : destinations)
        flows.push_back({way, false, destination, {}, OwnFlow::Finding::notTried, reason});
    return flows;
}

struct Surroundings {
    PacketWatch& packets;
    const Departures& departures;
    const volatile std::sig_atomic_t& isOver;
    const std::function<void(Left)>& other;
};

// Looks until all has left that can, or the program has ended.
void watch(Attempt& attempt, const Surroundings& around) {
    const auto see = [&](const DepartingFlow& departing) {
        auto left = around.departures.examine(departing);
        if (!attempt.take(left)) around.other(std::move(left));
    };
    const auto end = Clock::now() + longestLook;
    while (Clock::now() < end && around.isOver == 0 && !attempt.hasEnded() &&
           !attempt.haveAllLeft())
        around.packets.watch(slice, around.isOver, see);
    around.packets.watch(afterwards, around.isOver, see);
}

std::vector<OwnFlow> flowsBy(Way way, const std::vector<Destination>& destinations,
                             const Surroundings& around) {
    const auto loaded = loadSettings();
    if (const auto* failure = failureOf(loaded)) return notTried(way, destinations, failure->what);
    const auto started =
        startUnderRule(wordsOfKnock(destinations), CommandKind::verify, way, longestRule);
    if (const auto* failure = failureOf(started)) return notTried(way, destinations, failure->what);
    const auto& command = std::get<RuledCommand>(started);
    Attempt attempt(way, destinations, command);
    watch(attempt, around);
    const bool hasRun = attempt.finish();
    const auto& stored = std::get<StoredSettings>(loaded);
    for (auto& flow : attempt.flows)
        judge(flow, expectationFor(flow, command.identifier, stored, around.departures.tunnels()),
              around.departures.tunnels());
    const auto ended = endRuleOf(command);
    if (const auto* failure = failureOf(ended)) return notTried(way, destinations, failure->what);
    if (!hasRun) return notTried(way, destinations, "the flows could not be made");
    return std::move(attempt.flows);
}

struct DropAddresses {
    void operator()(addrinfo* list) const { ::freeaddrinfo(list); }
};

// A socket of that kind that has begun to connect; none if it was refused at once.
FileDescriptor connecting(const std::string& host, const std::string& port, int kind) {
    addrinfo hints{};
    hints.ai_socktype = kind;
    hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV;
    addrinfo* found = nullptr;
    if (::getaddrinfo(host.c_str(), port.c_str(), &hints, &found) != 0) return {};
    const std::unique_ptr<addrinfo, DropAddresses> address(found);
    FileDescriptor socket(::socket(address->ai_family, kind | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const bool isConnecting =
        ::connect(socket.get(), address->ai_addr, address->ai_addrlen) == 0 || errno == EINPROGRESS;
    return isConnecting ? std::move(socket) : FileDescriptor{};
}

}  // namespace

std::vector<Destination> harmlessDestinations() {
    std::vector<Destination> destinations;
    for (const Destination& each : {farIPv4, farIPv6})
        if (!interfaceTowards(each).empty()) destinations.push_back(each);
    return destinations;
}

std::vector<OwnFlow> makeOwnFlows(PacketWatch& packets, const Departures& departures,
                                  const std::vector<Destination>& destinations,
                                  const volatile std::sig_atomic_t& isOver,
                                  const std::function<void(Left)>& other) {
    if (destinations.empty()) return {};
    const Surroundings around{packets, departures, isOver, other};
    std::vector<OwnFlow> all;
    // What a connection tries again may still be on its way when the next route begins: the direct one last.
    for (const Way way : {Way::blocked, Way::vpn, Way::direct}) {
        auto flows = flowsBy(way, destinations, around);
        std::ranges::move(flows, std::back_inserter(all));
    }
    return all;
}

ExitCode knock(const std::vector<std::string>& hostsAndPorts) {
    alarm(longestLife);
    std::vector<FileDescriptor> connections;
    std::vector<FileDescriptor> datagrams;
    for (std::size_t at = 0; at + 1 < hostsAndPorts.size(); at += 2) {
        const auto& host = hostsAndPorts[at];
        const auto& port = hostsAndPorts[at + 1];
        if (auto socket = connecting(host, port, SOCK_DGRAM)) {
            // That it is refused is what a block is for.
            [[maybe_unused]] const auto sent = send(socket.get(), "", 1, MSG_NOSIGNAL);
            datagrams.push_back(std::move(socket));
        }
        if (auto socket = connecting(host, port, SOCK_STREAM))
            connections.push_back(std::move(socket));
    }
    for (const auto& connection : connections) {
        pollfd state{connection.get(), POLLOUT, 0};
        poll(&state, 1, -1);
        int error = 0;
        socklen_t length = sizeof error;
        getsockopt(connection.get(), SOL_SOCKET, SO_ERROR, &error, &length);
        if (error == 0) pause();
    }
    if (!datagrams.empty()) std::this_thread::sleep_for(longestVerdict);
    return ExitCode::done;
}

}  // namespace vantryctl
