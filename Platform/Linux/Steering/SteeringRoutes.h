// The routing of steered connections: for each uplink a table of its own, which a rule for its mark leads to.
//
//     table of the uplink     its near routes and its default, both as in the main table, or the default
//                             remembered where a VPN has deleted it; last of all "unreachable", so that
//                             a lost route never falls through into the tunnel
//     table towards tunnel    the tunnels' routes, with the uplink's address as the source, and those to other
//                             networks: what a firewall that lets only the tunnel out may see of a socket
//                             with our mark. Where there is no tunnel that rule leads to the uplink's table
//
// All of it has protocol "kernel", which network managers leave alone, stays when the process dies, and
// is brought to what it should be by `update`: after changes of the network, and when
// somebody else touched it. One thread, but for `leadOf`.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <tuple>
#include <vector>

#include "Platform/Common/Mutex.h"
#include "Platform/Linux/Netlink/Socket.h"
#include "Platform/Linux/Network/NetworkState.h"
#include "Platform/Linux/Result.h"
#include "Platform/Linux/Rules/SteeringMarks.h"
#include "Platform/Linux/Steering/Uplinks.h"

namespace platform::steering {

class SteeringRoutes {
public:
    // Takes nothing over of what an earlier process left: `update` replaces it.
    static Result<std::unique_ptr<SteeringRoutes>> open(SteeringMarks marks);
    ~SteeringRoutes() { takeAway(); }
    SteeringRoutes(const SteeringRoutes&) = delete;
    SteeringRoutes& operator=(const SteeringRoutes&) = delete;

    // Becomes readable when somebody changes rules, routes or addresses.
    int eventDescriptor() const { return events.descriptor(); }
    void discardEvents();
    // No event waits, and everything is as it should be: ways that are found are known until the next event.
    void settle();

    // Puts in force what these uplinks need. Fails with the first thing that the kernel refuses.
    Result<> update(const std::vector<Uplink>& uplinks, const NetworkState& network);
    // Takes rules and tables away, once: the next ones may be another's.
    void takeAway();

    // False where a rule of somebody else stands so far to the front that none fits before it.
    bool hasRoomForRules() const { return hasRoom; }

    // Where a packet with the uplink's mark would go now: another network of this machine is reached without any
    // address of the uplink's. Any thread.
    enum class Lead { nowhere, out, toOtherNetwork };
    Lead leadOf(const Uplink& uplink, int family, const std::array<std::uint8_t, 16>& destination);

    // The marks, value and mask, for which rules lead to our tables: those of an earlier process, before
    // the first update.
    struct MarkTest {
        std::uint32_t value;
        std::uint32_t mask;
        friend bool operator<(const MarkTest& left, const MarkTest& right) {
            return std::tie(left.value, left.mask) < std::tie(right.value, right.mask);
        }
    };
    std::set<MarkTest> marksInRules();

private:
    struct Route;
    struct Rule;

    SteeringRoutes(SteeringMarks steeringMarks, netlink::Socket asking,
                   netlink::Socket forQuestions, netlink::Socket reports);

    Result<> updateFamily(int family, const std::vector<Uplink>& uplinks,
                          const NetworkState& network, std::set<int>& others);
    std::optional<std::uint32_t> preference(const std::vector<Rule>& present) const;
    int tunnelOfDefault(int family, const NetworkState& network);
    Result<std::vector<Route>> routesIn(int family, std::uint32_t table);
    void appendNearRoutes(int family, const Uplink& uplink, std::vector<Route>& wanted,
                          const std::vector<Route>& main);
    void appendOtherNetworks(const Uplink& uplink, bool isTowardsTunnel, std::vector<Route>& wanted,
                             const std::vector<Route>& main, const NetworkState& network,
                             std::set<int>& interfaces);
    std::vector<Route> routesByTunnels(int family, const NetworkState& network,
                                       const std::vector<Route>& main);
    void appendRoutesTowards(const std::vector<Route>& towards, int family, const Uplink& uplink,
                             std::vector<Route>& wanted);
    void appendDefault(int family, const Uplink& uplink, std::uint32_t table,
                       std::vector<Route>& wanted);
    Result<> putRoutes(int family, const std::set<std::uint32_t>& tables,
                       const std::vector<Route>& wanted);
    Result<> putRules(const std::vector<Rule>& wanted, const std::vector<Rule>& present);
    Result<std::vector<Rule>> rules(int family);
    Result<> change(unsigned type, unsigned flags, const Route& route);
    Result<> change(unsigned type, unsigned flags, const Rule& rule);
    Lead findLead(const Uplink& uplink, int family, const std::array<std::uint8_t, 16>& destination)
        REQUIRES(questionsLock);

    const SteeringMarks marks;
    netlink::Socket socket;
    netlink::Socket events;
    bool hasRoom = true;
    bool isTakenAway = false;
    Mutex questionsLock;
    netlink::Socket questions GUARDED_BY(questionsLock);
    // By the uplink's number and the family: what is reached.
    using KnownWay = std::tuple<unsigned, int, std::array<std::uint8_t, 16>>;
    std::map<KnownWay, Lead> knownLeads GUARDED_BY(questionsLock);
    bool isSettled GUARDED_BY(questionsLock) = false;
    std::set<int> otherNetworks GUARDED_BY(questionsLock);  // by interface
};

}  // namespace platform::steering
