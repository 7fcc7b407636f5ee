// What becomes of a new flow, where the stories do not show it.

#include "Tests/Extension/StoryTest.h"

namespace vantry {
namespace {

using platform::NWHostEndpoint;
using platform::NWOtherEndpoint;

class FlowIntakeTest : public StoryTest {
protected:
    bool offerToProxy(platform::RemoteEndpoint endpoint, Kind kind = Kind::tcp,
                      const char* signingIdentifier = "acme.mail") {
        return world
            .offerToProxy(world.flow({.kind = kind,
                                      .remoteEndpoint = std::move(endpoint),
                                      .signingIdentifier = signingIdentifier}))
            .claimed;
    }
};

TEST_F(FlowIntakeTest, AFlowWithoutAUsableEndpointIsRoutedByItsApplicationAlone) {
    EXPECT_TRUE(begin({.word = "direct", .isVpnUp = false, .vpnFallback = "block"}));
    // The line comes before the record here, whose write fails.
    world.files.fail(platform::simulated::FileOperation::writeAtomically);
    EXPECT_FALSE(offerToProxy(NWOtherEndpoint{}));
    EXPECT_FALSE(offerToProxy(NWHostEndpoint{"h", "70000"}));
    EXPECT_TRUE(offerToProxy(NWHostEndpoint{"h", "443"}));  // the VPN's fallback plays no part
    world.runUntilIdle();
    EXPECT_TRUE(happened(firstFlow() + R"(
        proxy  info  TCP flow: acme.mail, decision: direct
        proxy  debug   -> unknown:0
        proxy  error Cannot proxy flow: invalid endpoint, falling back to OS
        proxy  debug DIRECT path: bundleId=acme.mail dest=unknown:0 handled=false interface=en0
        proxy  error Failed to write activity log file: <any>
        proxy  info  TCP flow: acme.mail, decision: direct
        proxy  debug   -> h:70000
        proxy  debug Binding to interface: en0
        proxy  debug Direct proxy binding to en0 for acme.mail -> h:70000
        proxy  debug remoteEndpoint: h type=hostname interface=en0
        proxy  error Invalid port: 70000, falling back to OS
        proxy  debug DIRECT path: bundleId=acme.mail dest=h:70000 handled=false interface=en0
        )" + relayed(1, 1)));
    world.setPath({});
    changeRules(Rules{.word = "odd", .isVpnUp = false}.document());
    EXPECT_FALSE(offerToProxy(std::monostate{}));
    EXPECT_EQ(recorded(),
              (std::vector<std::string>{"acme.mail direct vpn 10.8.0.2 unknown:0 tcp no vpn",
                                        "acme.mail direct vpn 10.8.0.2 h:0 tcp no vpn",
                                        "acme.mail direct direct 10.0.0.2 h:443 tcp no vpn",
                                        "acme.mail odd direct - unknown:0 tcp no vpn"}));
}

TEST_F(FlowIntakeTest, DatagramsAndOtherFlowsLeaveNoTraceBeyondTheirMapping) {
    EXPECT_TRUE(begin({.word = "direct", .isBlocked = true}));
    offerToProxy(NWHostEndpoint{"h", "1"});  // the first flow
    world.takeLog();
    for (const auto kind : {Kind::udp, Kind::other})
        EXPECT_FALSE(offerToProxy(NWHostEndpoint{"h", "1"}, kind));
    EXPECT_TRUE(happened(""));
    EXPECT_EQ(recorded(), std::vector<std::string>());
    // A TCP flow is resolved twice, a datagram once.
    for (const auto kind : {Kind::tcp, Kind::udp}) {
        offerToProxy(NWHostEndpoint{"h", "1"}, kind, "acme.mail.helper");
        const std::string once =
            "proxy debug Resolved acme.mail.helper -> acme.mail via prefix stripping\n";
        EXPECT_TRUE(happened(kind == Kind::udp ? once : once + once + R"(
            proxy  info  BLOCK (filter-enforced): acme.mail TCP -> h:1
            )"));
    }
}

TEST_F(FlowIntakeTest, TheFirstFlowOfAStartIsLoggedBeforeEveryTest) {
    ASSERT_TRUE(world.start());
    world.clock.set(platform::Date::since1970(1'700'000'000.25));
    for (int start = 0; start < 2; ++start) {
        world.takeLog();
        offerToProxy({}, Kind::udp, "");  // a system process
        offerToProxy({}, Kind::tcp, "com.wireguard.macos");
        EXPECT_TRUE(happened(R"(
            proxy  debug First flow handled at 1700000000.250 app=
            proxy  debug Protected VPN client, passing through: com.wireguard.macos
        )"));
        world.startProxy();
    }
}

}  // namespace
}  // namespace vantry
