#include "Platform/Linux/Steering/SteeringRoutes.h"

#include <sys/socket.h>

#include <linux/fib_rules.h>
#include <linux/rtnetlink.h>

#include <algorithm>
#include <cerrno>
#include <limits>
#include <span>
#include <utility>

namespace platform::steering {

namespace {

constexpr std::array<unsigned, 6> eventGroups{RTNLGRP_IPV4_RULE,   RTNLGRP_IPV6_RULE,
                                              RTNLGRP_IPV4_ROUTE,  RTNLGRP_IPV6_ROUTE,
                                              RTNLGRP_IPV4_IFADDR, RTNLGRP_IPV6_IFADDR};

// Where nothing of others' is further to the front.
constexpr std::uint32_t usualPreference = 20000;
// Of the interception's own connections; they concern no other packets.
constexpr std::array<std::uint32_t, 2> preferencesOfOwnTraffic{7660, 7661};
constexpr std::size_t mostKnownWays = 4096;
constexpr std::uint32_t lastResort = std::numeric_limits<std::uint32_t>::max();

// Addresses that no machine has (RFC 5737, RFC 3849). What leads to them is the default route.
constexpr std::array<std::uint8_t, 16> farIPv4{198, 51, 100, 1};
constexpr std::array<std::uint8_t, 16> farIPv6{0x20, 0x01, 0x0d, 0xb8, 0x01};

std::size_t addressLength(int family) { return family == AF_INET ? 4 : 16; }
std::uint32_t tableOf(unsigned number) { return firstTable + number; }
std::uint32_t tableTowardsTunnel(unsigned number) { return firstTable + 16 + number; }

netlink::Bytes bytesOf(int family, const std::array<std::uint8_t, 16>& address) {
    return std::as_bytes(std::span(address).first(addressLength(family)));
}

std::uint32_t numberIn(const netlink::Attributes& attributes, std::uint16_t type) {
    const auto attribute = attributes.find(type);
    return attribute ? attribute->number<std::uint32_t>().value_or(0) : 0;
}

std::optional<std::array<std::uint8_t, 16>> addressIn(const netlink::Attributes& attributes,
                                                      std::uint16_t type) {
    const auto attribute = attributes.find(type);
    return attribute ? std::optional(attribute->address<16>()) : std::nullopt;
}

// Routes and rules that are there already, or are gone already, are as they should be.
Result<> unless(int harmless, const Result<>& result) {
    return !result && result.error().code() == harmless ? Result<>() : result;
}

}  // namespace

struct SteeringRoutes::Route {
    int family = 0;
    std::uint32_t table = 0;
    std::uint8_t type = RTN_UNICAST;
    std::uint8_t length = 0;
    std::array<std::uint8_t, 16> destination{};
    std::optional<std::array<std::uint8_t, 16>> gateway = std::nullopt;
    std::optional<std::array<std::uint8_t, 16>> source = std::nullopt;
    std::uint32_t metric = 0;
    int interfaceIndex = 0;  // 0 for those that lead nowhere

    auto operator<=>(const Route&) const = default;
};

struct SteeringRoutes::Rule {
    int family = 0;
    std::uint32_t preference = 0;
    std::uint32_t table = 0;
    std::uint32_t mark = 0;
    std::uint32_t mask = 0;

    bool operator==(const Rule&) const = default;
};

Result<std::unique_ptr<SteeringRoutes>> SteeringRoutes::open(SteeringMarks marks) {
    auto asking = netlink::Socket::open(NETLINK_ROUTE);
    if (!asking) return asking.error();
    asking->enable(NETLINK_GET_STRICT_CHK);
    auto questions = netlink::Socket::open(NETLINK_ROUTE);
    if (!questions) return questions.error();
    auto reports = netlink::Socket::open(NETLINK_ROUTE, eventGroups);
    if (!reports) return reports.error();
    return std::unique_ptr<SteeringRoutes>(
        new SteeringRoutes(marks, std::move(*asking), std::move(*questions), std::move(*reports)));
}

SteeringRoutes::SteeringRoutes(SteeringMarks steeringMarks, netlink::Socket asking,
                               netlink::Socket forQuestions, netlink::Socket reports)
    : marks(steeringMarks),
      socket(std::move(asking)),
      events(std::move(reports)),
      questions(std::move(forQuestions)) {}

void SteeringRoutes::takeAway() {
    if (std::exchange(isTakenAway, true)) return;
    // What the kernel does not take away does no harm: no packet has its mark any more.
    static_cast<void>(update({}, {}));
    discardEvents();
}

Result<> SteeringRoutes::update(const std::vector<Uplink>& uplinks, const NetworkState& network) {
    hasRoom = true;
    std::set<int> others;
    auto ipv4 = updateFamily(AF_INET, uplinks, network, others);
    auto ipv6 = updateFamily(AF_INET6, uplinks, network, others);
    {
        const MutexGuard guard(questionsLock);
        otherNetworks = std::move(others);
    }
    // A machine without IPv6 has no rules for it.
    if (ipv4) return unless(EAFNOSUPPORT, unless(EOPNOTSUPP, ipv6));
    return ipv4;
}

Result<> SteeringRoutes::updateFamily(int family, const std::vector<Uplink>& uplinks,
                                      const NetworkState& network, std::set<int>& others) {
    const auto present = rules(family);
    if (!present) return present.error();
    const auto chosen = preference(*present);
    if (!chosen) hasRoom = false;
    const auto main = uplinks.empty() ? Result<std::vector<Route>>(std::vector<Route>())
                                      : routesIn(family, RT_TABLE_MAIN);
    if (!main) return main.error();
    const auto towards =
        uplinks.empty() ? std::vector<Route>() : routesByTunnels(family, network, *main);

    std::vector<Route> wantedRoutes;
    std::vector<Rule> wantedRules;
    const auto addRule = [&](std::uint32_t mark, std::uint32_t table) {
        wantedRules.push_back({family, chosen.value_or(0), table, mark, marks.mask()});
    };
    for (const Uplink& uplink : uplinks) {
        appendNearRoutes(family, uplink, wantedRoutes, *main);
        const bool isTowardsTunnel = !towards.empty() && uplink.reach(family).source;
        appendOtherNetworks(uplink, isTowardsTunnel, wantedRoutes, *main, network, others);
        if (isTowardsTunnel) appendRoutesTowards(towards, family, uplink, wantedRoutes);
        addRule(marks.ofPacket(uplink.number), tableOf(uplink.number));
        addRule(marks.ofSocket(uplink.number),
                isTowardsTunnel ? tableTowardsTunnel(uplink.number) : tableOf(uplink.number));
    }
    // Routes come first and rules go first, so that no rule leads to an empty table.
    std::set<std::uint32_t> tables;
    for (const Rule& rule : *present)
        if (isTableOfSteering(rule.table)) tables.insert(rule.table);
    for (const Rule& rule : wantedRules) tables.insert(rule.table);
    if (auto put = putRoutes(family, tables, wantedRoutes); !put) return put;
    return putRules(wantedRules, *present);
}

void SteeringRoutes::appendNearRoutes(int family, const Uplink& uplink, std::vector<Route>& wanted,
                                      const std::vector<Route>& main) {
    const std::uint32_t table = tableOf(uplink.number);
    for (Route route : main) {
        // Two halves of all addresses are a default route as well.
        if (route.interfaceIndex != uplink.interfaceIndex || route.length <= 1) continue;
        route.table = table;
        wanted.push_back(route);
    }
    appendDefault(family, uplink, table, wanted);
}

// Networks of this machine beside the uplink's own, such as those of containers and virtual machines: what
// goes there leaves by no uplink, whatever its rule. Those inside of a tunnel are the VPN's.
void SteeringRoutes::appendOtherNetworks(const Uplink& uplink, bool isTowardsTunnel,
                                         std::vector<Route>& wanted, const std::vector<Route>& main,
                                         const NetworkState& network, std::set<int>& interfaces) {
    const std::uint32_t table = tableOf(uplink.number);
    for (Route route : main) {
        const auto interface =
            std::ranges::find(network.interfaces, route.interfaceIndex, &NetworkInterface::index);
        if (interface == network.interfaces.end() || interface->isTunnel || route.gateway ||
            route.interfaceIndex == uplink.interfaceIndex || route.length <= 1)
            continue;
        const bool isOnUplinkToo = std::ranges::any_of(wanted, [&](const Route& known) {
            return known.table == table && known.length == route.length &&
                   known.destination == route.destination;
        });
        if (isOnUplinkToo) continue;
        route.table = table;
        wanted.push_back(route);
        interfaces.insert(route.interfaceIndex);
        route.table = tableTowardsTunnel(uplink.number);
        if (isTowardsTunnel) wanted.push_back(route);
    }
}

// When a tunnel's device goes, its routes go with it, and the uplink's takes their place at once.
void SteeringRoutes::appendRoutesTowards(const std::vector<Route>& towards, int family,
                                         const Uplink& uplink, std::vector<Route>& wanted) {
    const std::uint32_t table = tableTowardsTunnel(uplink.number);
    for (Route route : towards) {
        route.table = table;
        route.source = uplink.reach(family).source->bytes;
        wanted.push_back(route);
    }
    appendDefault(family, uplink, table, wanted);
}

void SteeringRoutes::appendDefault(int family, const Uplink& uplink, std::uint32_t table,
                                   std::vector<Route>& wanted) {
    if (const auto& reach = uplink.reach(family); reach.route)
        wanted.push_back({.family = family,
                          .table = table,
                          .gateway = reach.route->gateway,
                          .metric = 2,
                          .interfaceIndex = uplink.interfaceIndex});
    wanted.push_back(
        {.family = family, .table = table, .type = RTN_UNREACHABLE, .metric = lastResort});
}

// One before the first rule of others, but never 0: there the kernel would give later rules without a
// preference 0 as well, in the order of their making. And always after the rule by which the machine knows its
// own addresses, which some programs move.
std::optional<std::uint32_t> SteeringRoutes::preference(const std::vector<Rule>& present) const {
    std::uint32_t first = usualPreference + 1;
    std::uint32_t ofOwnAddresses = lastResort;
    for (const Rule& rule : present) {
        const bool isOwnTraffic = std::ranges::find(preferencesOfOwnTraffic, rule.preference) !=
                                  preferencesOfOwnTraffic.end();
        if (rule.table == RT_TABLE_LOCAL)
            ofOwnAddresses = std::min(ofOwnAddresses, rule.preference);
        else if (!isTableOfSteering(rule.table) && !isOwnTraffic && rule.preference > 0)
            first = std::min(first, rule.preference);
    }
    if (ofOwnAddresses == lastResort) ofOwnAddresses = 0;
    return first > ofOwnAddresses + 1 ? std::optional(first - 1) : std::nullopt;
}

// Those of split tunnels, as they are in the main table, and one by the tunnel that has the default route.
std::vector<SteeringRoutes::Route> SteeringRoutes::routesByTunnels(int family,
                                                                   const NetworkState& network,
                                                                   const std::vector<Route>& main) {
    std::vector<Route> towards;
    for (const Route& route : main) {
        const auto interface =
            std::ranges::find(network.interfaces, route.interfaceIndex, &NetworkInterface::index);
        const bool isTunnel = interface != network.interfaces.end() && interface->isTunnel;
        if (isTunnel && route.length > 1) towards.push_back(route);
    }
    if (const int tunnel = tunnelOfDefault(family, network); tunnel != 0)
        towards.push_back({.family = family, .metric = 1, .interfaceIndex = tunnel});
    return towards;
}

// The tunnel that unmarked packets to a far address take now; 0 if it is none.
int SteeringRoutes::tunnelOfDefault(int family, const NetworkState& network) {
    rtmsg route{};
    route.rtm_family = static_cast<std::uint8_t>(family);
    route.rtm_dst_len = static_cast<std::uint8_t>(addressLength(family) * 8);
    netlink::Request request(RTM_GETROUTE, NLM_F_ACK, route);
    request.put(RTA_DST, bytesOf(family, family == AF_INET ? farIPv4 : farIPv6));
    int index = 0;
    const auto asked = socket.request(request, [&](const netlink::Message& answer) {
        if (answer.type() == RTM_NEWROUTE)
            index = static_cast<int>(numberIn(answer.attributes<rtmsg>(), RTA_OIF));
    });
    const auto interface = std::ranges::find(network.interfaces, index, &NetworkInterface::index);
    const bool isTunnel = asked && interface != network.interfaces.end() && interface->isTunnel;
    return isTunnel ? index : 0;
}

Result<std::vector<SteeringRoutes::Route>> SteeringRoutes::routesIn(int family,
                                                                    std::uint32_t table) {
    rtmsg header{};
    header.rtm_family = static_cast<std::uint8_t>(family);
    netlink::Request dump(RTM_GETROUTE, NLM_F_DUMP, header);
    dump.put(RTA_TABLE, table);
    std::vector<Route> routes;
    auto dumped = socket.request(dump, [&](const netlink::Message& answer) {
        const auto about = answer.fixedHeader<rtmsg>();
        if (answer.type() != RTM_NEWROUTE || !about || (about->rtm_flags & RTM_F_CLONED) != 0)
            return;
        const auto attributes = answer.attributes<rtmsg>();
        const bool isUnicast = about->rtm_type == RTN_UNICAST;
        // A next hop of the other family is nothing that could be written down here.
        if (numberIn(attributes, RTA_TABLE) != table || attributes.find(RTA_VIA)) return;
        if (!isUnicast && about->rtm_type != RTN_UNREACHABLE) return;
        Route route{.family = family, .table = table, .type = about->rtm_type};
        route.length = about->rtm_dst_len;
        route.destination = addressIn(attributes, RTA_DST).value_or(route.destination);
        route.gateway = addressIn(attributes, RTA_GATEWAY);
        route.source = addressIn(attributes, RTA_PREFSRC);
        route.metric = numberIn(attributes, RTA_PRIORITY);
        if (isUnicast) route.interfaceIndex = static_cast<int>(numberIn(attributes, RTA_OIF));
        routes.push_back(route);
    });
    // A table that nothing was ever put into does not exist.
    if (auto done = unless(ENOENT, dumped); !done) return done.error();
    return routes;
}

Result<> SteeringRoutes::putRoutes(int family, const std::set<std::uint32_t>& tables,
                                   const std::vector<Route>& wanted) {
    std::vector<Route> present;
    for (const std::uint32_t table : tables) {
        const auto found = routesIn(family, table);
        if (!found) return found.error();
        present.insert(present.end(), found->begin(), found->end());
    }
    const auto isIn = [](const std::vector<Route>& list, const Route& route) {
        return std::ranges::find(list, route) != list.end();
    };
    Result<> done;
    for (const Route& route : present)
        if (!isIn(wanted, route)) static_cast<void>(change(RTM_DELROUTE, 0, route));
    for (const Route& route : wanted) {
        if (isIn(present, route)) continue;
        // A route that has just lost its interface or its source comes again with the next change.
        auto added = unless(EEXIST, change(RTM_NEWROUTE, NLM_F_CREATE | NLM_F_EXCL, route));
        if (!added && done) done = std::move(added);
    }
    return done;
}

Result<> SteeringRoutes::change(unsigned type, unsigned flags, const Route& route) {
    rtmsg header{};
    header.rtm_family = static_cast<std::uint8_t>(route.family);
    header.rtm_dst_len = route.length;
    header.rtm_type = route.type;
    header.rtm_protocol = RTPROT_KERNEL;
    const bool isOnLink = route.type == RTN_UNICAST && !route.gateway;
    header.rtm_scope = isOnLink ? RT_SCOPE_LINK : RT_SCOPE_UNIVERSE;
    if (route.gateway) header.rtm_flags = RTNH_F_ONLINK;
    netlink::Request request(type, NLM_F_ACK | flags, header);
    request.put(RTA_TABLE, route.table).put(RTA_PRIORITY, route.metric);
    if (route.length > 0) request.put(RTA_DST, bytesOf(route.family, route.destination));
    if (route.gateway) request.put(RTA_GATEWAY, bytesOf(route.family, *route.gateway));
    if (route.source) request.put(RTA_PREFSRC, bytesOf(route.family, *route.source));
    if (route.interfaceIndex != 0)
        request.put(RTA_OIF, static_cast<std::uint32_t>(route.interfaceIndex));
    return socket.request(request);
}

Result<std::vector<SteeringRoutes::Rule>> SteeringRoutes::rules(int family) {
    fib_rule_hdr header{};
    header.family = static_cast<std::uint8_t>(family);
    netlink::Request dump(RTM_GETRULE, NLM_F_DUMP, header);
    std::vector<Rule> found;
    const auto dumped = socket.request(dump, [&](const netlink::Message& answer) {
        if (answer.type() != RTM_NEWRULE) return;
        const auto attributes = answer.attributes<fib_rule_hdr>();
        found.push_back({family, numberIn(attributes, FRA_PRIORITY),
                         numberIn(attributes, FRA_TABLE), numberIn(attributes, FRA_FWMARK),
                         numberIn(attributes, FRA_FWMASK)});
    });
    if (!dumped) return dumped.error();
    return found;
}

Result<> SteeringRoutes::putRules(const std::vector<Rule>& wanted,
                                  const std::vector<Rule>& present) {
    Result<> done;
    for (const Rule& rule : wanted) {
        if (std::ranges::find(present, rule) != present.end()) continue;
        auto added = unless(EEXIST, change(RTM_NEWRULE, NLM_F_CREATE | NLM_F_EXCL, rule));
        if (!added && done) done = std::move(added);
    }
    for (const Rule& rule : present) {
        if (!isTableOfSteering(rule.table) || std::ranges::find(wanted, rule) != wanted.end())
            continue;
        static_cast<void>(change(RTM_DELRULE, 0, rule));
    }
    return done;
}

Result<> SteeringRoutes::change(unsigned type, unsigned flags, const Rule& rule) {
    fib_rule_hdr header{};
    header.family = static_cast<std::uint8_t>(rule.family);
    header.action = FR_ACT_TO_TBL;
    netlink::Request request(type, NLM_F_ACK | flags, header);
    request.put(FRA_PRIORITY, rule.preference)
        .put(FRA_TABLE, rule.table)
        .put(FRA_FWMARK, rule.mark)
        .put(FRA_FWMASK, rule.mask)
        .put(FRA_PROTOCOL, std::uint8_t{RTPROT_KERNEL});
    return socket.request(request);
}

void SteeringRoutes::discardEvents() {
    events.discard();
    const MutexGuard guard(questionsLock);
    isSettled = false;
    knownLeads.clear();
}

void SteeringRoutes::settle() {
    const MutexGuard guard(questionsLock);
    isSettled = true;
}

SteeringRoutes::Lead SteeringRoutes::leadOf(const Uplink& uplink, int family,
                                            const std::array<std::uint8_t, 16>& destination) {
    const MutexGuard guard(questionsLock);
    const KnownWay way{uplink.number, family, destination};
    if (const auto known = knownLeads.find(way); known != knownLeads.end()) return known->second;
    const Lead lead = findLead(uplink, family, destination);
    if (lead == Lead::nowhere) return lead;
    if (knownLeads.size() == mostKnownWays) knownLeads.clear();
    if (isSettled) knownLeads.insert({way, lead});
    return lead;
}

SteeringRoutes::Lead SteeringRoutes::findLead(const Uplink& uplink, int family,
                                              const std::array<std::uint8_t, 16>& destination) {
    rtmsg route{};
    route.rtm_family = static_cast<std::uint8_t>(family);
    route.rtm_dst_len = static_cast<std::uint8_t>(addressLength(family) * 8);
    netlink::Request request(RTM_GETROUTE, NLM_F_ACK, route);
    request.put(RTA_DST, bytesOf(family, destination)).put(RTA_MARK, marks.ofPacket(uplink.number));
    int index = 0;
    const auto asked = questions.request(request, [&](const netlink::Message& answer) {
        if (answer.type() == RTM_NEWROUTE)
            index = static_cast<int>(numberIn(answer.attributes<rtmsg>(), RTA_OIF));
    });
    if (!asked) return Lead::nowhere;
    // Of several uplinks, one's own network is another one to the others.
    if (index != uplink.interfaceIndex)
        return otherNetworks.contains(index) ? Lead::toOtherNetwork : Lead::nowhere;
    return uplink.reach(family).source ? Lead::out : Lead::nowhere;
}

std::set<SteeringRoutes::MarkTest> SteeringRoutes::marksInRules() {
    std::set<MarkTest> tests;
    for (const int family : {AF_INET, AF_INET6}) {
        const auto present = rules(family);
        if (!present) continue;
        for (const Rule& rule : *present)
            if (isTableOfSteering(rule.table)) tests.insert({rule.mark, rule.mask});
    }
    return tests;
}

}  // namespace platform::steering
