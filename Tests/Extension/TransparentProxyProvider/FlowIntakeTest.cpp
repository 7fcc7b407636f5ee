// What becomes of a new flow, where the stories do not show it.

#include "Tests/Extension/StoryTest.h"

namespace vantry {
namespace {

class FlowIntakeTest : public StoryTest {
protected:
    bool offerToProxy(RemoteEndpoint to, Kind kind = Kind::tcp, const char* app = "acme.mail") {
        return offer(app, std::nullopt, std::move(to), kind);
    }
};

TEST_F(FlowIntakeTest, AFlowWithoutAUsableEndpointIsRoutedByItsApplicationAlone) {
    EXPECT_TRUE(begin({.word = "direct", .isVpnUp = false, .vpnFallback = "block"}));
    // The line comes before the record here, whose write fails.
    world.files.fail(FileOperation::writeAtomically);
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
    changeRules(Rules{.word = "odd", .isVpnUp = false, .vpnFallback = "Block"}.document());
    EXPECT_FALSE(offerToProxy(std::monostate{}));
    EXPECT_EQ(recorded(),
              (std::vector<std::string>{"acme.mail direct vpn 10.8.0.2 unknown:0 tcp no vpn",
                                        "acme.mail direct vpn 10.8.0.2 h:0 tcp no vpn",
                                        "acme.mail direct direct 10.0.0.2 h:443 tcp no vpn",
                                        "acme.mail odd direct - unknown:0 tcp no vpn"}));
}

TEST_F(FlowIntakeTest, HostsAreClassifiedForTheLogAlone) {
    EXPECT_TRUE(begin({.word = "direct"}));
    const std::vector<std::pair<std::string, std::string>> cases{
        {"1.2.3.4", "IPv4"},     {"999.1.2.3", "IPv4"},     {"1.2.3", "hostname"},
        {"1.2.3.x", "hostname"}, {".1..2.3.4.", "IPv4"},    {"-1.2.3.4", "hostname"},
        {"fe80::1", "IPv6"},     {"a.b.c.d:e", "IPv6"},     {"www.example.com", "hostname"},
        {"", "hostname"},        {"1.2.3.4.5", "hostname"},
    };
    for (const auto& [host, type] : cases) {
        world.takeLog();
        EXPECT_TRUE(offerToProxy(NWHostEndpoint{host, "1"}));
        EXPECT_TRUE(logHolds(
            world, {debug("remoteEndpoint: " + host + " type=" + type + " interface=en0")}));
    }
}

// Without an interface a flow that cannot be opened is closed at once all the same. "Block" is another
// word, and an endpoint of another kind is turned away before the fallback is looked at.
TEST_F(FlowIntakeTest, WithoutAnInterfaceTheFallbackDecides) {
    world.setPath({});
    putRules(Rules{.word = "direct"}.document());
    ASSERT_TRUE(world.start());
    auto failing = newFlow("acme.mail");
    failing.failsOpening({"test", 1, "gone"});
    world.offer(failing);
    world.runUntilIdle();
    EXPECT_EQ(fates({failing}), Lines{"claimed, closed"});
    EXPECT_TRUE(world.network.connections().empty());
    changeRules(Rules{.word = "direct", .directFallback = "Block"}.document());
    world.takeLog();
    EXPECT_FALSE(offerToProxy(NWOtherEndpoint{}));
    EXPECT_FALSE(offerToProxy(NWHostEndpoint{"h", "bad port"}));
    EXPECT_TRUE(happened(R"(
        proxy  info  TCP flow: acme.mail, decision: direct
        proxy  debug   -> unknown:0
        proxy  error Cannot proxy flow: invalid endpoint, falling back to OS
        proxy  debug DIRECT path: bundleId=acme.mail dest=unknown:0 handled=false interface=none
        )" + leftWithoutInterface("Block", "bad port", true)));
}

}  // namespace
}  // namespace vantry
