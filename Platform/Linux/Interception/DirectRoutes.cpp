#include "Platform/Linux/Interception/DirectRoutes.h"

#include <sys/socket.h>

#include <linux/fib_rules.h>
#include <linux/rtnetlink.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <optional>
#include <utility>
#include <vector>

#include "Platform/Common/Mutex.h"
#include "Platform/Linux/Interception/NetlinkSocket.h"
#include "Platform/Linux/PlatformLog.h"
#include "Platform/Linux/SystemError.h"

namespace platform::interception {

namespace {

// Fixed, so that a later start finds what a killed process left.
constexpr std::uint32_t tableNumber = 7660;
constexpr std::uint32_t nearRoutesPriority = 7660;
constexpr std::uint32_t ownTablePriority = 7661;

constexpr std::array<unsigned, 4> eventGroups{RTNLGRP_IPV4_RULE, RTNLGRP_IPV6_RULE,
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

using Room = std::array<char, 512>;

nlmsghdr* beginMessage(Room& room, unsigned type, unsigned flags) {
    nlmsghdr* const header = mnl_nlmsg_put_header(room.data());
    header->nlmsg_type = static_cast<std::uint16_t>(type);
    header->nlmsg_flags = static_cast<std::uint16_t>(NLM_F_REQUEST | NLM_F_ACK | flags);
    header->nlmsg_seq = 1;
    return header;
}

nlmsghdr* beginRule(Room& room, unsigned type, unsigned flags, int family, std::uint32_t priority,
                    std::uint32_t lookUp) {
    nlmsghdr* const header = beginMessage(room, type, flags);
    auto* const rule =
        static_cast<fib_rule_hdr*>(mnl_nlmsg_put_extra_header(header, sizeof(fib_rule_hdr)));
    rule->family = static_cast<std::uint8_t>(family);
    rule->action = FR_ACT_TO_TBL;
    mnl_attr_put_u32(header, FRA_PRIORITY, priority);
    mnl_attr_put_u32(header, FRA_TABLE, lookUp);
    return header;
}

nlmsghdr* beginRoute(Room& room, unsigned type, unsigned flags, int family) {
    nlmsghdr* const header = beginMessage(room, type, flags);
    auto* const route = static_cast<rtmsg*>(mnl_nlmsg_put_extra_header(header, sizeof(rtmsg)));
    route->rtm_family = static_cast<std::uint8_t>(family);
    mnl_attr_put_u32(header, RTA_TABLE, tableNumber);
    return header;
}

}  // namespace

// The rules and routes themselves. The network monitor calls from one thread at a time; the end
// may come from another.
class DirectRoutes::Table {
public:
    explicit Table(MarkPlace markPlace)
        : place(markPlace),
          socket(NetlinkSocket::open(NETLINK_ROUTE)),
          events(NetlinkSocket::open(NETLINK_ROUTE, eventGroups)) {
        const MutexGuard guard(lock);
        clear();
    }

    int eventDescriptor() const { return events ? events->descriptor() : -1; }

    // The kernel refuses what is there already; what it takes had been removed by somebody.
    void putBackWhatIsMissing() {
        std::array<char, 64 * 1024> ignored;
        while (recv(eventDescriptor(), ignored.data(), ignored.size(), MSG_DONTWAIT) > 0 ||
               errno == ENOBUFS) {
        }
        const MutexGuard guard(lock);
        if (!socket || hasEnded) return;
        bool wasMissing = false;
        for (const Route& route : inForce) {
            // One that is refused has lost its interface, of which the monitor is about to tell.
            wasMissing |= addRoute(route, NLM_F_EXCL) == 0;
            wasMissing |= addRule(route.family, nearRoutesPriority, RT_TABLE_MAIN, true) == 0;
            wasMissing |= addRule(route.family, ownTablePriority, tableNumber, false) == 0;
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
            removeEvery([&](Room& room) {
                return beginRule(room, RTM_DELRULE, 0, family, nearRoutesPriority, RT_TABLE_MAIN);
            });
            removeEvery([&](Room& room) {
                return beginRule(room, RTM_DELRULE, 0, family, ownTablePriority, tableNumber);
            });
            removeEvery([&](Room& room) { return beginRoute(room, RTM_DELROUTE, 0, family); });
        }
    }

    // A deletion takes one of those that fit.
    template <class Make>
    void removeEvery(Make make) REQUIRES(lock) {
        constexpr int most = 64;
        for (int count = 0; count < most; ++count) {
            alignas(nlmsghdr) Room room{};
            if (socket->request(*make(room)) != 0) return;
        }
    }

    void add(const Route& route) REQUIRES(lock) {
        int error = addRoute(route, NLM_F_REPLACE);
        if (error == 0) error = addRule(route.family, nearRoutesPriority, RT_TABLE_MAIN, true);
        // Of several interfaces of one family the first has brought the rules.
        if (error == 0 || error == EEXIST)
            error = addRule(route.family, ownTablePriority, tableNumber, false);
        if (error != 0 && error != EEXIST)
            platformLog.error(
                "The default route that was removed cannot be used for direct flows: %{public}s",
                systemError(error).localizedDescription);
    }

    int addRoute(const Route& wanted, unsigned ifThereIsOne) REQUIRES(lock) {
        alignas(nlmsghdr) Room room{};
        nlmsghdr* const header =
            beginRoute(room, RTM_NEWROUTE, NLM_F_CREATE | ifThereIsOne, wanted.family);
        auto* const route = static_cast<rtmsg*>(mnl_nlmsg_get_payload(header));
        const auto& gateway = wanted.route.gateway;
        route->rtm_protocol = RTPROT_STATIC;
        route->rtm_scope = gateway ? RT_SCOPE_UNIVERSE : RT_SCOPE_LINK;
        route->rtm_type = RTN_UNICAST;
        if (gateway) {
            route->rtm_flags = RTNH_F_ONLINK;
            mnl_attr_put(header, RTA_GATEWAY, wanted.family == AF_INET ? 4 : 16, gateway->data());
        }
        mnl_attr_put_u32(header, RTA_OIF, static_cast<std::uint32_t>(wanted.interfaceIndex));
        mnl_attr_put_u32(header, RTA_PRIORITY, wanted.route.metric);
        return socket->request(*header);
    }

    int addRule(int family, std::uint32_t priority, std::uint32_t lookUp, bool skipsDefaults)
        REQUIRES(lock) {
        alignas(nlmsghdr) Room room{};
        nlmsghdr* const header =
            beginRule(room, RTM_NEWRULE, NLM_F_CREATE | NLM_F_EXCL, family, priority, lookUp);
        mnl_attr_put_u32(header, FRA_FWMARK, place.value(FlowState::ownTraffic));
        mnl_attr_put_u32(header, FRA_FWMASK, place.stateMask());
        if (skipsDefaults) mnl_attr_put_u32(header, FRA_SUPPRESS_PREFIXLEN, 0);
        return socket->request(*header);
    }

    const MarkPlace place;
    Mutex lock;
    const std::unique_ptr<NetlinkSocket> socket PT_GUARDED_BY(lock);
    const std::unique_ptr<NetlinkSocket> events;
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
