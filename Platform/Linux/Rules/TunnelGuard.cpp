#include "Platform/Linux/Rules/TunnelGuard.h"

#include <arpa/inet.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <linux/rtnetlink.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "Platform/Common/Mutex.h"
#include "Platform/Linux/FileDescriptor.h"
#include "Platform/Linux/Health/Health.h"
#include "Platform/Linux/Netlink/Socket.h"
#include "Platform/Linux/Network/PrivateNetworks.h"
#include "Platform/Linux/Network/RememberedRoutes.h"
#include "Platform/Linux/PlatformLog.h"
#include "Platform/Linux/Recording/RecordedSystem.h"
#include "Platform/Linux/Rules/PacketRule.h"
#include "Platform/Linux/Rules/RuleCounters.h"
#include "Platform/Linux/Rules/RuleLanguage.h"
#include "Platform/TunnelGuard.h"

namespace platform::interception {

namespace {

// Addresses that no machine has (RFC 5737, RFC 3849): what leads to them is the default route,
// whichever table or rule it stands in. Nothing is ever sent there.
constexpr const char* farIPv4 = "198.51.100.1";
constexpr const char* farIPv6 = "2001:db8:100::1";

struct Family {
    int number;
    const char* farAddress;
    const char* keyword;
    const char* protocol;
    // Near wherever they are used.
    const char* alwaysNear;
};
constexpr std::array<Family, 2> families{{
    {AF_INET, farIPv4, "ip", "ipv4",
     "127.0.0.0/8, 169.254.0.0/16, 224.0.0.0/4, 255.255.255.255/32"},
    {AF_INET6, farIPv6, "ip6", "ipv6", "::1/128, fe80::/10, ff00::/8"},
}};
constexpr int millisecondsToNextAttempt = 1000;
// For a VPN that is up to take the default route, in one family after the other.
constexpr std::chrono::seconds timeForRoutes{5};
// Of tunnels, in each family.
constexpr std::size_t mostAddresses = 64;
constexpr std::size_t addressLength(int family) { return family == AF_INET ? 4 : 16; }

// A VPN that routes by policy changes the default with a rule and a table of its own, in one family after
// the other; the state of the network does not show that.
constexpr std::array<unsigned, 4> guardEventGroups{RTNLGRP_IPV4_RULE, RTNLGRP_IPV6_RULE,
                                                   RTNLGRP_IPV4_ROUTE, RTNLGRP_IPV6_ROUTE};

// What the rules say.
struct Guarded {
    std::array<bool, families.size()> isFamily{};
    std::set<std::string> interfaces;
    std::set<int> oddlyNamed;  // interfaces whose names no rule can have
    std::array<std::set<std::string>, families.size()> near;
    // That tunnels have, or had, those of before first.
    std::array<std::vector<std::string>, families.size()> tunnelAddresses;
    friend bool operator==(const Guarded&, const Guarded&) = default;

    bool isNothing() const { return !isFamily[0] && !isFamily[1]; }
};

netlink::Request routeRequest(unsigned flags, int family, std::size_t destinationLength) {
    rtmsg route{};
    route.rtm_family = static_cast<std::uint8_t>(family);
    route.rtm_dst_len = static_cast<std::uint8_t>(destinationLength);
    return netlink::Request(RTM_GETROUTE, flags, route);
}

// The interface by which packets to a far address leave now; 0 if there is none.
int interfaceOfDefault(netlink::Socket& socket, const Family& family) {
    std::array<std::uint8_t, 16> address{};
    ::inet_pton(family.number, family.farAddress, address.data());
    const std::size_t length = addressLength(family.number);
    auto request = routeRequest(NLM_F_ACK, family.number, length * 8);
    request.put(RTA_DST, std::as_bytes(std::span(address).first(length)));
    int index = 0;
    // Without a route the kernel refuses, and there is none.
    static_cast<void>(socket.request(request, [&](const netlink::Message& answer) {
        if (answer.type() != RTM_NEWROUTE) return;
        if (const auto interface = answer.attributes<rtmsg>().find(RTA_OIF))
            index = static_cast<int>(interface->number<std::uint32_t>().value_or(0));
    }));
    return index;
}

std::string prefixText(int family, const void* address, int length) {
    std::array<char, INET6_ADDRSTRLEN> text{};
    ::inet_ntop(family, address, text.data(), text.size());
    return std::string(text.data()) + '/' + std::to_string(length);
}

struct Prefix {
    int family = 0;
    std::array<std::uint8_t, 16> address{};
    int length = 0;
};

// A network of the machine's own. What a router or a server says is on the link may be as large as it likes.
bool isOwnNetwork(const NetworkInterface& interface, const Prefix& prefix) {
    const int shortest = prefix.family == AF_INET ? 16 : 48;
    return prefix.length >= shortest &&
           std::ranges::any_of(interface.addresses, [&](InterfaceAddress address) {
               address.prefixLength = prefix.length;
               return address.family == prefix.family && isOnLinkOf(address, prefix.address);
           });
}

// The server that gives out addresses may hand out routes to anything, by a gateway or without one, so it counts
// what they lead to. Single hosts are near, as VPNs have routes to their own server, unless the route came with the
// address.
bool isNear(const NetworkInterface& interface, const Prefix& prefix, std::uint8_t protocol) {
    const bool isHost = prefix.length == static_cast<int>(addressLength(prefix.family)) * 8;
    return (isHost && protocol != RTPROT_DHCP) || isOwnNetwork(interface, prefix) ||
           isPrivateNetwork(prefix.family, prefix.address, prefix.length);
}

using Interfaces = std::vector<const NetworkInterface*>;

const NetworkInterface* interfaceOf(const netlink::Attributes& route,
                                    const Interfaces& interfaces) {
    const auto number = route.find(RTA_OIF);
    const auto index = number ? static_cast<int>(number->number<std::uint32_t>().value_or(0)) : 0;
    const auto found = std::ranges::find(interfaces, index, &NetworkInterface::index);
    return found == interfaces.end() ? nullptr : *found;
}

// The prefix of a route of the main table that leads to something near; empty for all others. Two
// halves of all addresses are a default route as well.
std::string nearPrefix(const netlink::Message& answer, const Interfaces& interfaces) {
    const auto route = answer.fixedHeader<rtmsg>();
    if (!route || route->rtm_dst_len <= 1 || route->rtm_table != RT_TABLE_MAIN) return {};
    const auto attributes = answer.attributes<rtmsg>();
    const auto* const interface = interfaceOf(attributes, interfaces);
    if (interface == nullptr) return {};
    Prefix prefix{.family = route->rtm_family, .length = route->rtm_dst_len};
    if (const auto destination = attributes.find(RTA_DST))
        prefix.address = destination->address<16>();
    if (!isNear(*interface, prefix, route->rtm_protocol)) return {};
    return prefixText(prefix.family, prefix.address.data(), prefix.length);
}

// None where the kernel did not tell, or changed them meanwhile: those before then stay.
std::set<std::string> nearPrefixes(netlink::Socket& socket, int family,
                                   const Interfaces& interfaces) {
    std::set<std::string> prefixes;
    auto request = routeRequest(NLM_F_DUMP, family, 0);
    const auto isTold = socket.request(request, [&](const netlink::Message& answer) {
        if (answer.type() != RTM_NEWROUTE) return;
        if (auto prefix = nearPrefix(answer, interfaces); !prefix.empty())
            prefixes.insert(std::move(prefix));
    });
    return isTold ? prefixes : std::set<std::string>();
}

bool isTunnel(const NetworkState& network, int index) {
    const auto found = std::ranges::find(network.interfaces, index, &NetworkInterface::index);
    return found != network.interfaces.end() && found->isTunnel;
}

// The addresses of an interface that are seen beyond its link.
std::vector<std::string> addressesOf(const NetworkInterface& interface, int family) {
    std::vector<std::string> addresses;
    std::array<char, INET6_ADDRSTRLEN> text{};
    for (const auto& address : interface.addresses) {
        if (address.family != family || address.isLinkLocal) continue;
        ::inet_ntop(family, address.bytes.data(), text.data(), text.size());
        addresses.emplace_back(text.data());
    }
    return addresses;
}

// Those that a tunnel has now become the latest; those that another interface has now are no tunnel's any more.
void rememberAddresses(std::vector<std::string>& known, const NetworkState& network, int family) {
    for (const bool ofTunnels : {true, false}) {
        for (const auto& interface : network.interfaces) {
            if (interface.isTunnel != ofTunnels) continue;
            for (auto& address : addressesOf(interface, family)) {
                std::erase(known, address);
                if (ofTunnels) known.push_back(std::move(address));
            }
        }
    }
    if (known.size() > mostAddresses)
        known.erase(known.begin(), known.end() - static_cast<std::ptrdiff_t>(mostAddresses));
}

std::string listOf(const std::vector<std::string>& words) {
    std::string list;
    for (const auto& word : words) list.append(word).append(", ");
    return "{ " + list + "}";
}

void appendAccept(std::string& rules, const std::string& match) {
    rules += "  " + match + " accept\n";
}

// With a tunnel's address nothing has business on such an interface, but for what is carried directly: that gets the
// interface's address after this.
void appendDropOfTunnelAddresses(std::string& rules, const Family& family,
                                 const std::vector<std::string>& addresses, MarkPlace place) {
    if (addresses.empty()) return;
    const auto stateText = [&](FlowState state) { return std::to_string(place.value(state)); };
    rules.append("  ct mark & ").append(std::to_string(place.stateMask())).append(" != ");
    rules += listOf({stateText(FlowState::claimed), stateText(FlowState::claimedAndWatched)});
    rules.append(" ").append(family.keyword).append(" saddr ").append(listOf(addresses));
    rules += " counter drop\n";
}

// What the guard lets pass, of any program.
std::string exceptionsText(const Guarded& guarded, bool knowsIPsec) {
    std::string names;
    std::string numbers;
    for (const auto& name : guarded.interfaces) names += '"' + name + "\", ";
    for (const int number : guarded.oddlyNamed) numbers += std::to_string(number) + ", ";
    std::string isElsewhere;
    if (!names.empty()) isElsewhere.append("oifname != { ").append(names).append("} ");
    if (!numbers.empty()) isElsewhere.append("meta oif != { ").append(numbers).append("}");
    std::string rules;
    appendAccept(rules, isElsewhere);
    // By policies, a tunnel's packets are seen here before they are encrypted.
    if (knowsIPsec) appendAccept(rules, "rt ipsec exists");
    for (std::size_t i = 0; i < families.size(); ++i) {
        const Family& family = families[i];
        const std::string destination = std::string(family.keyword) + " daddr ";
        if (!guarded.isFamily[i])
            appendAccept(rules, std::string("meta nfproto ") + family.protocol);
        appendAccept(rules, destination + "{ " + family.alwaysNear + " }");
        for (const auto& prefix : guarded.near[i]) appendAccept(rules, destination + prefix);
    }
    return rules;
}

// The chains stay, empty where nothing is guarded: when one goes, the kernel drops all packets that wait for a verdict.
std::string chainsText(const Guarded& guarded, MarkPlace place, bool knowsIPsec) {
    std::string refusing;
    std::string leaving;
    std::string translated;
    if (!guarded.isNothing()) {
        const std::string isWatched = "ct mark & " + std::to_string(place.mask()) +
                                      " == " + std::to_string(place.value(FlowState::watched));
        leaving = translated = exceptionsText(guarded, knowsIPsec);
        // Only a connection that begins can be told: it would go on into the tunnel that comes, under the uplink's
        // address, and hang.
        refusing =
            "  meta l4proto != tcp accept\n"
            "  tcp flags & (fin | syn | rst | ack) != syn accept\n" +
            leaving + "  " + isWatched + " counter reject with tcp reset\n";
        leaving += "  " + isWatched + " counter drop\n";
        for (std::size_t i = 0; i < families.size(); ++i)
            appendDropOfTunnelAddresses(translated, families[i], guarded.tunnelAddresses[i], place);
    }
    const auto chain = [](const char* name, const char* hook, const std::string& rules) {
        return std::string(" chain ") + name + " {\n  type filter hook " + hook + "\n" + rules +
               " }\n";
    };
    // Programs that have a way of their own beside the tunnel have the address translated.
    return chain("refusing", "output priority 202", refusing) +
           chain("leaving", "postrouting priority 0", leaving) +
           chain("translated", "postrouting priority srcnat + 10", translated);
}

}  // namespace

class TunnelGuard::Work {
public:
    explicit Work(MarkPlace markPlace) : place(markPlace) {
        thread = std::thread([this] { serve(); });
    }

    void want(bool isWantedNow, bool isConnectedNow) {
        const MutexGuard guard(lock);
        isWanted = isWantedNow;
        if (isConnectedNow && !isConnected) {
            hasComeUp = true;
            settlesAt = Clock::now() + timeForRoutes;
        }
        if (!isConnectedNow) settlesAt.reset();
        isConnected = isConnectedNow;
        tell();
    }
    void networkChanged() {
        const MutexGuard guard(lock);
        tell();
    }
    void end() {
        {
            const MutexGuard guard(lock);
            hasEnded = true;
            tell();
        }
        thread.join();
        countedBefore += countedNow();
        rules.end();
    }

private:
    using Clock = std::chrono::steady_clock;
    // What a look at the network is to go by.
    struct News {
        bool isWanted = false;
        bool hasComeUp = false;   // the VPN, since the last one
        bool hasSettled = false;  // its time for routes is over
    };

    void serve() {
        while (const auto news = awaitNews()) {
            if (news->hasComeUp) hasLed = {};
            if (news->hasSettled) guarded.isFamily = hasLed;
            if (news->isWanted)
                look();
            else
                guarded = {};
            if (!rules.isThere() && !inForce.isNothing()) {
                platformLog.error(
                    "What keeps watched flows in the tunnel had ended with the process that holds "
                    "it, and is put back");
                inForce = {};
            }
            if (guarded != inForce) putInForce();
        }
    }

    void tell() { eventfd_write(wakeUp.get(), 1); }

    // None when the end has come.
    std::optional<News> awaitNews() {
        std::array<pollfd, 3> descriptors{{{wakeUp.get(), POLLIN, 0},
                                           {events ? events->descriptor() : -1, POLLIN, 0},
                                           {rules.descriptor(), POLLIN, 0}}};
        while (poll(descriptors.data(), descriptors.size(), patience()) < 0 && errno == EINTR) {
        }
        eventfd_t ignored = 0;
        eventfd_read(wakeUp.get(), &ignored);
        if (events) events->discard();
        const MutexGuard guard(lock);
        if (hasEnded) return std::nullopt;
        const bool hasSettled = settlesAt && Clock::now() >= *settlesAt;
        if (hasSettled) settlesAt.reset();
        return News{isWanted, std::exchange(hasComeUp, false), hasSettled};
    }

    int patience() {
        using namespace std::chrono;
        const int longest = wasDone ? -1 : millisecondsToNextAttempt;
        const MutexGuard guard(lock);
        if (!settlesAt) return longest;
        const auto left = ceil<milliseconds>(*settlesAt - Clock::now()).count();
        const int untilSettled = std::max(0, static_cast<int>(left));
        return wasDone ? untilSettled : std::min(longest, untilSettled);
    }

    // Takes in what the network shows now. What was guarded stays so, whatever comes and goes: that a
    // route is missing is just when the guard is needed.
    void look() {
        if (!socket) return;
        const auto network = NetworkMonitor::shared().state();
        Interfaces interfaces;
        for (const auto& interface : network->interfaces) {
            if (interface.isTunnel || (!interface.ipv4 && !interface.ipv6)) continue;
            if (isPlainName(interface.name))
                guarded.interfaces.insert(interface.name);
            else
                guarded.oddlyNamed.insert(interface.index);
        }
        for (const auto& interface : network->interfaces)
            if (guarded.interfaces.contains(interface.name) ||
                guarded.oddlyNamed.contains(interface.index))
                interfaces.push_back(&interface);
        for (std::size_t i = 0; i < families.size(); ++i) {
            if (isTunnel(*network, interfaceOfDefault(*socket, families[i])))
                guarded.isFamily[i] = hasLed[i] = true;
            rememberAddresses(guarded.tunnelAddresses[i], *network, families[i].number);
            // Gone for a moment when an address is renewed, and then back.
            if (auto near = nearPrefixes(*socket, families[i].number, interfaces); !near.empty())
                guarded.near[i] = std::move(near);
        }
        if (guarded.interfaces.empty() && guarded.oddlyNamed.empty()) guarded.isFamily = {};
    }

    void putInForce() {
        std::string failure;
        bool isDone = install(true, failure);
        // The kernel may lack IPsec.
        if (!isDone) isDone = install(false, failure);
        if (!isDone && guarded.isNothing()) {
            rules.end();
            isDone = true;
        }
        if (isDone) inForce = guarded;
        if (std::exchange(wasDone, isDone) == isDone) return;
        if (isDone)
            platformLog.info("The kernel keeps watched flows in the tunnel after all");
        else
            platformLog.error(
                "The kernel cannot keep watched flows in the tunnel when it goes: %{public}s",
                failure);
    }

    bool install(bool knowsIPsec, std::string& failure) {
        const auto counted = countedNow();
        const bool isDone = replaced(knowsIPsec, failure);
        if (isDone) countedBefore += counted;
        return isDone;
    }

    bool replaced(bool knowsIPsec, std::string& failure) {
        const std::string table = std::string("table inet ") + guardTableName;
        auto answer =
            rules.run("add " + table + " { flags owner; }\nflush " + table + '\n' + table +
                      " {\n flags owner\n" + chainsText(guarded, place, knowsIPsec) + "}\n");
        failure = std::move(answer.failure);
        return answer.isDone;
    }

    static std::uint64_t countedNow() {
        auto socket = netlink::Socket::open(NETLINK_NETFILTER);
        return socket ? packetsCounted(guardTableName, *socket).value_or(0) : 0;
    }

    // By rules that others have replaced since, also those of another guard.
    static inline std::atomic<std::uint64_t> countedBefore{0};

    const MarkPlace place;
    // For the thread alone. The table goes with the process of the rules.
    RuleLanguage rules;
    Result<netlink::Socket> socket = netlink::Socket::open(NETLINK_ROUTE);
    Result<netlink::Socket> events = netlink::Socket::open(NETLINK_ROUTE, guardEventGroups);
    Guarded guarded;
    Guarded inForce;
    bool wasDone = true;
    std::array<bool, families.size()> hasLed{};  // into a tunnel, since the VPN is up
    const FileDescriptor wakeUp{eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)};
    Mutex lock;
    bool isWanted GUARDED_BY(lock) = false;
    bool isConnected GUARDED_BY(lock) = true;
    bool hasComeUp GUARDED_BY(lock) = false;
    std::optional<Clock::time_point> settlesAt GUARDED_BY(lock);
    bool hasEnded GUARDED_BY(lock) = false;
    health::Gauge kept{health::Place::packets, "keptInTunnel",
                       "Packets kept from leaving beside the tunnel",
                       [] { return countedBefore + countedNow(); }};
    std::thread thread;
};

namespace {

// The one guard of the process, and whether it is wanted: the wish may come first.
struct Wish {
    Mutex lock;
    std::function<void(bool, bool)> tell GUARDED_BY(lock);
    bool isWanted GUARDED_BY(lock) = false;
    bool isVpnConnected GUARDED_BY(lock) = true;
};

Wish& wish() {
    static Wish& one = *std::make_unique<Wish>().release();
    return one;
}

}  // namespace

TunnelGuard::TunnelGuard(MarkPlace place)
    : work(std::make_shared<Work>(place)),
      following(NetworkMonitor::shared().observe(
          [held = work](const std::shared_ptr<const NetworkState>&) { held->networkChanged(); })) {
    const MutexGuard guard(wish().lock);
    wish().tell = [held = work](bool isWanted, bool isVpnConnected) {
        held->want(isWanted, isVpnConnected);
    };
    work->want(wish().isWanted, wish().isVpnConnected);
}

TunnelGuard::~TunnelGuard() {
    {
        const MutexGuard guard(wish().lock);
        wish().tell = nullptr;
    }
    following.reset();
    work->end();
}

}  // namespace platform::interception

void platform::keepWatchedFlowsInTunnel(bool isWanted, bool isVpnConnected) {
    recording::noteTunnelGuard(isWanted, isVpnConnected);
    auto& wish = interception::wish();
    const MutexGuard guard(wish.lock);
    wish.isWanted = isWanted;
    wish.isVpnConnected = isVpnConnected;
    if (wish.tell) wish.tell(isWanted, isVpnConnected);
}
