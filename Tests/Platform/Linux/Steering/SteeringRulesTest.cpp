// The routing and the packet rules of steered connections, in a network whose default route is a tunnel's.
// A connection's mark is set here the way a verdict does.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <string>

#include "Platform/Linux/Network/NetworkMonitor.h"
#include "Platform/Linux/Network/RouteMessages.h"
#include "Platform/Linux/Steering/SteeringRoutes.h"
#include "Platform/Linux/Steering/SteeringTable.h"
#include "Tests/Platform/Linux/Daemon/InterceptionLab.h"

namespace platform::steering {

namespace {

using interception::ClientSocket;
using interception::InterceptionLab;

using Lead = SteeringRoutes::Lead;

constexpr SteeringMarks marks{MarkPlace(24)};
constexpr std::uint16_t port = InterceptionLab::echoPort;

class SteeringRules : public testing::Test {
protected:
    void follow() {
        auto network = *readNetworkState();
        // The lab's tunnel is none that could be told by its kind.
        for (auto& interface : network.interfaces) interface.isTunnel |= interface.name == "vpn0";
        ASSERT_TRUE(uplinks.follow(network));
        const auto updated = routes->update(uplinks.all(), network);
        ASSERT_TRUE(updated) << updated.error().text();
        ASSERT_TRUE(table.install(uplinks.all())) << table.failure();
    }
    // Every new connection to the lab's port counts as claimed for the only uplink.
    void claimAll(unsigned number) {
        const auto mark = std::to_string(marks.ofConnection(FlowState::claimed, number));
        runCommand(
            "nft 'table inet verdicts { chain c { type filter hook output priority -150; "
            "tcp dport " +
            std::to_string(port) + " ct state new ct mark set " + mark + "; }; }'");
    }
    static std::array<std::uint8_t, 16> bytesOf(const char* address, int family) {
        std::array<std::uint8_t, 16> bytes{};
        inet_pton(family, address, bytes.data());
        return bytes;
    }
    const Uplink& eth0() const { return uplinks.all().at(0); }

    InterceptionLab lab;
    Uplinks uplinks;
    std::unique_ptr<SteeringRoutes> routes = *SteeringRoutes::open(marks);
    SteeringTable table{marks};
};

TEST_F(SteeringRules, ClaimedConnectionLeavesByItsInterfaceBesideWhatVpnsAndFirewallsDo) {
    runCommand(
        "ip rule add not fwmark 51820 table 51820; ip route add default dev vpn0 table 51820; "
        "ip -6 rule add not fwmark 51820 table 51820; "
        "ip -6 route add default dev vpn0 table 51820; "
        "sysctl -qw net.ipv4.conf.all.rp_filter=1 net.ipv4.conf.all.src_valid_mark=1");
    // A VPN's rule against its address from elsewhere, and a kill switch.
    runCommand(
        "nft 'table inet vpn { chain raw { type filter hook prerouting priority raw; "
        "iifname != vpn0 ip daddr 10.8.0.2 fib saddr type != local drop; }; "
        "chain out { type filter hook output priority 0; meta l4proto != icmpv6 oifname != { "
        "lo, vpn0 } reject; }; "
        "chain past { type filter hook postrouting priority 300; oifname vpn0 tcp dport 7007 drop; "
        "}; }'");
    follow();
    claimAll(eth0().number);
    for (const int family : {AF_INET, AF_INET6}) {
        const char* const server = InterceptionLab::serverAddress(family);
        EXPECT_EQ(routes->leadOf(eth0(), family, bytesOf(server, family)), Lead::out);
        ClientSocket client(family, SOCK_STREAM);
        ASSERT_EQ(client.connectTo(server, port), 0) << server;
        // As when it is established: firewalls see it leave by the tunnel still.
        const int mark = static_cast<int>(marks.ofSocket(eth0().number));
        ASSERT_EQ(setsockopt(client.descriptor(), SOL_SOCKET, SO_MARK, &mark, sizeof mark), 0);
        EXPECT_EQ(client.exchange(100'000), 0);
    }
    EXPECT_TRUE(table.isComplete());

    // Containers and virtual machines are reached where they are, also where the uplink has no such address.
    runCommand(
        "ip link add br0 type bridge; ip address add 172.17.0.1/16 dev br0; ip link set br0 up; "
        "nft 'table inet past { chain c { type filter hook postrouting priority 300; "
        "oifname br0 tcp dport 7007 counter; }; }'");
    follow();
    const auto number = eth0().number;
    for (const auto mark : {marks.ofPacket(number), marks.ofSocket(number)}) {
        const auto route = runCommand("ip route get 172.17.0.2 mark " + std::to_string(mark));
        EXPECT_NE(route.find("dev br0"), std::string::npos) << route;
    }
    runCommand("nft delete table inet vpn; ip -4 address flush dev eth0");
    follow();
    EXPECT_EQ(routes->leadOf(eth0(), AF_INET, bytesOf("172.17.0.2", AF_INET)),
              Lead::toOtherNetwork);
    runCommand("timeout 0.3 bash -c '</dev/tcp/172.17.0.2/7007' || true");
    const auto past = runCommand("nft list table inet past");
    EXPECT_EQ(past.find("packets 0"), std::string::npos) << past;
}

// A far address answers no address of the site.
TEST_F(SteeringRules, SourceIsTheAddressThatSuitsBest) {
    runCommand("ip -6 address add fd00:77::2/64 dev eth0 nodad");
    follow();
    EXPECT_NE(eth0().ipv6.source->bytes, bytesOf("fd00:77::2", AF_INET6));
}

TEST_F(SteeringRules, WhatIsTakenAwayOrComesBeforeIsPutRight) {
    follow();
    const auto before = runCommand("ip rule; ip -6 rule; ip route show table all proto kernel");
    runCommand(
        "ip route flush table 7681; ip rule del pref 20000; ip rule add fwmark 9 table 9 pref 77");
    follow();
    EXPECT_NE(runCommand("ip rule").find("76:"), std::string::npos);
    runCommand("ip rule del pref 77");
    follow();
    EXPECT_EQ(runCommand("ip rule; ip -6 rule; ip route show table all proto kernel"), before);
    EXPECT_TRUE(routes->hasRoomForRules());

    // A lost route leads nowhere, not into the tunnel.
    runCommand("ip link set eth0 down");
    EXPECT_EQ(routes->leadOf(eth0(), AF_INET, bytesOf(TestNetwork::serverIPv4, AF_INET)),
              Lead::nowhere);

    runCommand("nft flush ruleset");
    EXPECT_FALSE(table.isComplete());
    routes.reset();
    EXPECT_EQ(runCommand("ip rule | grep -c fwmark || true; ip route show table 7681"), "0\n");
}

TEST_F(SteeringRules, WhatIsHeldBackStallsAndWhatHasNoWayFailsAtOnce) {
    follow();
    claimAll(eth0().number);
    ClientSocket client(AF_INET, SOCK_STREAM);
    ASSERT_EQ(client.connectTo(TestNetwork::serverIPv4, port), 0);
    ASSERT_EQ(client.exchange(), 0);
    const auto held = std::to_string(marks.flag());
    runCommand("nft 'add rule inet verdicts c tcp dport " + std::to_string(port) +
               " ct mark set ct mark | " + held + "'");
    const auto bytesBefore = lab.bytesAtServer();
    ASSERT_EQ(client.send(10), 0);
    const timeval patience{0, 300'000};
    setsockopt(client.descriptor(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    EXPECT_EQ(client.receive(1), EAGAIN);
    EXPECT_EQ(lab.bytesAtServer(), bytesBefore);

    runCommand("nft delete table inet verdicts");
    claimAll(unreachableNumber);
    for (const int family : {AF_INET, AF_INET6})
        EXPECT_EQ(ClientSocket(family, SOCK_STREAM)
                      .connectTo(InterceptionLab::serverAddress(family), port),
                  EHOSTUNREACH);
}

}  // namespace

}  // namespace platform::steering
