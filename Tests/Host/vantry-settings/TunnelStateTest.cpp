#include "Host/vantry-settings/TunnelState.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <set>

namespace vantrysettings {
namespace {

using platform::NetworkInterface;
using platform::NetworkState;
using Names = std::vector<std::string>;
using namespace std::chrono_literals;

NetworkInterface interfaceNamed(const char* name, bool isTunnel = true) {
    NetworkInterface made;
    made.name = made.shownName = name;
    made.isTunnel = isTunnel;
    made.isUp = true;
    made.addresses.push_back({AF_INET, {10, 0, 0, 1}, 24, false});
    return made;
}

class TunnelStateTest : public ::testing::Test {
protected:
    Names carrying(const Names& names = {}) { return state.look(network, names, now).carrying; }

    std::set<std::string> leading;
    TunnelState state{
        [this](const NetworkInterface& interface) { return leading.contains(interface.name); }};
    NetworkState network;
    TunnelState::Clock::time_point now;
};

TEST_F(TunnelStateTest, OnlyATunnelInUseIsTheVPN) {
    network = {{interfaceNamed("eth0", false), interfaceNamed("tun0"), interfaceNamed("down"),
                interfaceNamed("bare"), interfaceNamed("local"), interfaceNamed("wg0")}};
    network.interfaces[2].isUp = false;
    network.interfaces[3].addresses.clear();
    network.interfaces[4].addresses = {{AF_INET6, {0xfe, 0x80}, 64, true}};
    for (const auto& interface : network.interfaces) leading.insert(interface.name);
    EXPECT_EQ(carrying(), (Names{"tun0", "wg0"}));
    EXPECT_EQ(carrying({"wg0", "down"}), (Names{"wg0"}));
    EXPECT_EQ(carrying({"eth0"}), (Names{"eth0"}));
    EXPECT_EQ(state.look(network, {"wg0", "wgg"}, now).absent, (Names{"wgg"}));
}

TEST_F(TunnelStateTest, ItIsUpWhenItsRoutesAreThere) {
    network = {{interfaceNamed("wg0")}};
    EXPECT_EQ(carrying(), Names{}) << "its routes may be on their way";
    EXPECT_EQ(state.looksAgainAt(), now + 5s);
    leading = {"wg0"};
    EXPECT_EQ(carrying(), (Names{"wg0"}));
    // Its routes go first, then it; it comes back in steps.
    leading.clear();
    EXPECT_EQ(carrying(), Names{});
    now += 10s;
    EXPECT_EQ(carrying(), Names{}) << "once it has led the routes, an address alone is not enough";
    EXPECT_EQ(state.looksAgainAt(), std::nullopt);
    TunnelState ofNextStart([](const auto&) { return false; }, {state.kinds(), {}});
    ofNextStart.look(network, {}, now);
    EXPECT_FALSE(ofNextStart.look(network, {}, now + 10s).isUp()) << "nor after a restart";
    // Another VPN's, perhaps, once it was away for long. It led the routes the last time.
    for (const auto& [absence, afterwards] : {std::pair(59s, Names{}), {60s, Names{"wg0"}}}) {
        network = {};
        EXPECT_EQ(carrying(), Names{});
        now += absence;
        network = {{interfaceNamed("wg0")}};
        EXPECT_EQ(carrying(), Names{});
        now += 9s;
        EXPECT_EQ(carrying(), Names{});
        now += 1s;
        EXPECT_EQ(carrying(), afterwards) << absence.count();
    }
    // One for some networks only never leads them, and is known for that the next time, also after a boot.
    for (const auto time : {5s, 1s}) {
        network = {{interfaceNamed("split")}};
        EXPECT_EQ(carrying(), Names{});
        now += time - 1ms;
        EXPECT_EQ(carrying(), Names{});
        now += 1ms;
        EXPECT_EQ(carrying(), (Names{"split"}));
        EXPECT_TRUE(TunnelState([](const auto&) { return false; }, {state.kinds(), {}})
                        .look(network, {}, now)
                        .isUp())
            << "at once after a restart";
        network = {};
        EXPECT_EQ(carrying(), Names{});
    }
    // Beside one that is known to carry all it is not the VPN, unless it is named.
    TunnelState besideFull([](const auto&) { return false; },
                           {{}, {{"split", TunnelKind::split}, {"full", TunnelKind::full}}});
    network = {{interfaceNamed("split")}};
    besideFull.look(network, {}, now);
    const auto view = besideFull.look(network, {}, now + 1s);
    EXPECT_FALSE(view.isUp());
    EXPECT_EQ(view.split, (Names{"split"}));
    EXPECT_TRUE(besideFull.look(network, {"split"}, now + 1s).isUp());
    EXPECT_EQ(state.kinds(),
              (TunnelKinds{{"split", TunnelKind::split}, {"wg0", TunnelKind::split}}));
}

}  // namespace
}  // namespace vantrysettings
