#include "Platform/Linux/Rules/DirectRoutes.h"

#include <sys/socket.h>

#include <linux/fib_rules.h>
#include <linux/rtnetlink.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <optional>
#include <span>
#include <utility>
#include <vector>

#include "Platform/Common/Mutex.h"
#include "Platform/Linux/Netlink/Socket.h"
#include "Platform/Linux/PlatformLog.h"

namespace platform::interception {

namespace {

// Fixed, so that a later start finds what a killed process left.
constexpr std::uint32_t tableNumber = 7660;

constexpr std::array<unsigned, 4> routeEventGroups{RTNLGRP_IPV4_RULE, RTNLGRP_IPV6_RULE,
                                                   RTNLGRP_IPV4_ROUTE, RTNLGRP_IPV6_ROUTE};

struct Route {
    int family = 0;
    int interfaceIndex = 0;
    DefaultRoute route;
    friend bool operator==(const Route&, const Route&) = default;
};

std::vector<Route> routesThatAreMissing(const NetworkState& state) {
    std::vector<Route> missing;
    for (const NetworkInterface& interface : state.interfaces) {
        if (interface.isTunnel) continue;
        if (interface.ipv4 && interface.ipv4->isRemembered)
            missing.push_back({AF_INET, interface.index, *interface.ipv4});
        if (interface.ipv6 && interface.ipv6->isRemembered)
            missing.push_back({AF_INET6, interface.index, *interface.ipv6});
    }
    return missing;
}

netlink::Request ruleRequest(unsigned type, unsigned flags, int family, std::uint32_t priority,
                             std::uint32_t lookUp) {
    fib_rule_hdr rule{};
    rule.family = static_cast<std::uint8_t>(family);
    rule.action = FR_ACT_TO_TBL;
    netlink::Request request(type, NLM_F_ACK | flags, rule);
    request.put(FRA_PRIORITY, priority).put(FRA_TABLE, lookUp);
    return request;
}

netlink::Request routeRequest(unsigned type, unsigned flags, rtmsg route) {
    netlink::Request request(type, NLM_F_ACK | flags, route);
    request.put(RTA_TABLE, tableNumber);
    return request;
}

rtmsg routeOfFamily(int family) {
    rtmsg route{};
    route.rtm_family = static_cast<std::uint8_t>(family);
    return route;
}

std::optional<netlink::Socket> openRoutingSocket(std::span<const unsigned> groups = {}) {
    auto opened = netlink::Socket::open(NETLINK_ROUTE, groups);
    if (opened) return std::move(*opened);
    platformLog.error("The routes of direct flows cannot be kept: %{public}s",
                      opened.error().text());
    return std::nullopt;
}

// Errors of which the one named is none.
bool isFine(const Result<>& result, int harmless) {
    return result || result.error().code() == harmless;
}

}  // namespace

// The rules and routes themselves. The network monitor calls from one thread at a time; the end
// may come from another.
class DirectRoutes::Table {
public:
    explicit Table(MarkPlace markPlace)
        : place(markPlace),
          socket(openRoutingSocket()),
          events(openRoutingSocket(routeEventGroups)) {
        const MutexGuard guard(lock);
        clear();
    }

    int eventDescriptor() const { return events ? events->descriptor() : -1; }

    // The kernel refuses what is there already; what it takes had been removed by somebody.
    void putBackWhatIsMissing() {
        if (events) events->discard();
        const MutexGuard guard(lock);
        if (!socket || hasEnded) return;
        bool wasMissing = false;
        for (const Route& route : inForce) {
            // One that is refused has lost its interface, of which the monitor is about to tell.
            if (addRoute(route, NLM_F_EXCL)) wasMissing = true;
            if (addRule(route.family, nearRoutesPriority, RT_TABLE_MAIN, true)) wasMissing = true;
            if (addRule(route.family, ownTablePriority, tableNumber, false)) wasMissing = true;
        }
        if (wasMissing)
            platformLog.error("The routes of direct flows had been removed and were put back");
    }

    void follow(const NetworkState& state) {
        const MutexGuard guard(lock);
        if (!socket || hasEnded) return;
        auto missing = routesThatAreMissing(state);
        if (missing == inForce) return;
        clear();
        for (const Route& route : missing) add(route);
        inForce = std::move(missing);
    }

    void end() {
        const MutexGuard guard(lock);
        hasEnded = true;
        clear();
    }

private:
    void clear() REQUIRES(lock) {
        if (!socket) return;
        for (const int family : {AF_INET, AF_INET6}) {
            removeEvery(ruleRequest(RTM_DELRULE, 0, family, nearRoutesPriority, RT_TABLE_MAIN));
            removeEvery(ruleRequest(RTM_DELRULE, 0, family, ownTablePriority, tableNumber));
            removeEvery(routeRequest(RTM_DELROUTE, 0, routeOfFamily(family)));
        }
    }

    // A deletion takes one of those that fit.
    void removeEvery(netlink::Request deletion) REQUIRES(lock) {
        constexpr int most = 64;
        for (int count = 0; count < most; ++count)
            if (!socket->request(deletion)) return;
    }

    void add(const Route& route) REQUIRES(lock) {
        auto added = addRoute(route, NLM_F_REPLACE);
        if (added) added = addRule(route.family, nearRoutesPriority, RT_TABLE_MAIN, true);
        // Of several interfaces of one family the first has brought the rules.
        if (isFine(added, EEXIST))
            added = addRule(route.family, ownTablePriority, tableNumber, false);
        if (!isFine(added, EEXIST))
            platformLog.error(
                "The default route that was removed cannot be used for direct flows: %{public}s",
                added.error().text());
    }

    Result<> addRoute(const Route& wanted, unsigned ifThereIsOne) REQUIRES(lock) {
        const auto& gateway = wanted.route.gateway;
        rtmsg route = routeOfFamily(wanted.family);
        route.rtm_protocol = RTPROT_STATIC;
        route.rtm_scope = gateway ? RT_SCOPE_UNIVERSE : RT_SCOPE_LINK;
        route.rtm_type = RTN_UNICAST;
        if (gateway) route.rtm_flags = RTNH_F_ONLINK;
        auto request = routeRequest(RTM_NEWROUTE, NLM_F_CREATE | ifThereIsOne, route);
        const std::size_t length = wanted.family == AF_INET ? 4 : 16;
        if (gateway) request.put(RTA_GATEWAY, std::as_bytes(std::span(*gateway).first(length)));
        request.put(RTA_OIF, static_cast<std::uint32_t>(wanted.interfaceIndex))
            .put(RTA_PRIORITY, wanted.route.metric);
        return socket->request(request);
    }

    Result<> addRule(int family, std::uint32_t priority, std::uint32_t lookUp, bool skipsDefaults)
        REQUIRES(lock) {
        auto request =
            ruleRequest(RTM_NEWRULE, NLM_F_CREATE | NLM_F_EXCL, family, priority, lookUp);
        request.put(FRA_FWMARK, place.ownValue()).put(FRA_FWMASK, place.mask());
        if (skipsDefaults) request.put(FRA_SUPPRESS_PREFIXLEN, std::uint32_t{0});
        return socket->request(request);
    }

    const MarkPlace place;
    Mutex lock;
    std::optional<netlink::Socket> socket GUARDED_BY(lock);
    std::optional<netlink::Socket> events;
    std::vector<Route> inForce GUARDED_BY(lock);
    bool hasEnded GUARDED_BY(lock) = false;
};

DirectRoutes::DirectRoutes(MarkPlace place)
    : table(std::make_shared<Table>(place)),
      following(NetworkMonitor::shared().observe(
          [held = table](const std::shared_ptr<const NetworkState>& state) {
              held->follow(*state);
          })) {
    table->follow(*NetworkMonitor::shared().state());
}

DirectRoutes::~DirectRoutes() {
    following.reset();
    table->end();
}

int DirectRoutes::eventDescriptor() const { return table->eventDescriptor(); }

void DirectRoutes::putBackWhatIsMissing() const { table->putBackWhatIsMissing(); }

}  // namespace platform::interception
