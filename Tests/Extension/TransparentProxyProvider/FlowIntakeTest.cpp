#include <gmock/gmock.h>

#include "Extension/ipc/ActivityLogResponseIPC.h"
#include "Tests/Extension/TransparentProxyProvider/ProxyTest.h"

namespace vantry {
namespace {

using platform::NWHostEndpoint;
using platform::NWInterface;
using platform::NWOtherEndpoint;
using platform::RemoteEndpoint;
using platform::simulated::debug;
using platform::simulated::error;
using platform::simulated::FlowDescription;
using platform::simulated::info;

class FlowIntakeTest : public ProxyTest {
protected:
    Flow flow(RemoteEndpoint endpoint, FlowDescription::Kind kind = FlowDescription::Kind::tcp) {
        return world.flow({.kind = kind,
                           .remoteEndpoint = std::move(endpoint),
                           .signingIdentifier = "com.example.App"});
    }
    // The newest record of the log file, which is written at once after a quiet second.
    std::optional<ActivityLogEntryIPC> newestRecord() const {
        const auto file = world.files.contents(activityLogFile);
        if (!file) return std::nullopt;
        const auto log = std::get<ActivityLogResponseIPC>(ActivityLogResponseIPC::decode(*file));
        if (log.entries.empty()) return std::nullopt;
        return log.entries.back();
    }
};

// Every outcome of a TCP flow, with all its lines but those of the direct path, and its record.
TEST_F(FlowIntakeTest, EveryOutcomeOfATcpFlow) {
    struct Case {
        std::string rules;
        bool hasInterface;
        RemoteEndpoint endpoint;
        bool claimed;
        std::vector<ExpectedLine> lines;
        std::string route;  // empty: no record
        std::optional<std::string> source;
        int port;
    };
    const RemoteEndpoint host = NWHostEndpoint{"h.example", "443"};
    const auto decided = [](const char* word) {
        return info(std::string("TCP flow: com.example.App, decision: ") + word);
    };
    const auto to = [](const char* where) { return debug(std::string("  -> ") + where); };
    const auto direct = [](const char* where, const char* rest) {
        return debug(std::string("DIRECT path: bundleId=com.example.App dest=") + where + " " +
                     rest);
    };
    const std::string rule = R"({"rules":{"com.example.App":")";
    const std::vector<Case> cases{
        {rule + R"(block"}})",
         true,
         host,
         false,
         {info("BLOCK (filter-enforced): com.example.App TCP -> h.example:443")},
         "",
         {},
         0},
        {rule + R"(direct"}})",
         true,
         host,
         true,
         {decided("direct"), to("h.example:443"),
          direct("h.example:443", "handled=true interface=en0")},
         "direct",
         "10.0.0.2",
         443},
        {rule + R"(direct"},"vpnConnected":false,"vpnFallback":"block"})",
         true,
         host,
         true,
         {decided("direct"), to("h.example:443"),
          direct("h.example:443", "handled=true interface=en0")},
         "direct",
         "10.0.0.2",
         443},
        {rule + R"(direct"}})",
         false,
         host,
         true,
         {decided("direct"), to("h.example:443"),
          direct("h.example:443", "handled=true interface=none")},
         "direct",
         std::nullopt,
         443},
        {rule + R"(direct"},"directFallback":"vpn","vpnConnected":false})",
         false,
         host,
         false,
         {decided("direct"), to("h.example:443"),
          direct("h.example:443", "handled=false interface=none")},
         "vpn",
         "10.8.0.2",
         443},
        {rule + R"(direct"}})",
         true,
         NWOtherEndpoint{},
         false,
         {decided("direct"), to("unknown:0"), direct("unknown:0", "handled=false interface=en0")},
         "vpn",
         "10.8.0.2",
         0},
        {rule + R"(direct"}})",
         true,
         NWHostEndpoint{"h", "70000"},
         false,
         {decided("direct"), to("h:70000"), direct("h:70000", "handled=false interface=en0")},
         "vpn",
         "10.8.0.2",
         0},
        {rule + R"(vpn"}})",
         true,
         host,
         false,
         {decided("vpn"), to("h.example:443"),
          debug("VPN path: bundleId=com.example.App dest=h.example:443 vpnConnected=true "
                "(OS handles)")},
         "vpn",
         "10.8.0.2",
         443},
        {rule + R"(odd"},"vpnConnected":false})",
         true,
         host,
         false,
         {decided("odd"), to("h.example:443"),
          debug("VPN path: bundleId=com.example.App dest=h.example:443 vpnConnected=false "
                "(OS handles)")},
         "direct",
         "10.0.0.2",
         443},
        {rule + R"(vpn"},"vpnConnected":false})",
         false,
         std::monostate{},
         false,
         {decided("vpn"), to("unknown:0"),
          debug("VPN path: bundleId=com.example.App dest=unknown:0 vpnConnected=false "
                "(OS handles)")},
         "direct",
         std::nullopt,
         0},
        {rule + R"(vpn"},"vpnConnected":false,"vpnFallback":"block"})",
         true,
         host,
         false,
         {decided("vpn"), to("h.example:443"),
          error("VPN fallback BLOCK (filter-enforced): com.example.App -> h.example:443")},
         "",
         {},
         0},
    };
    ASSERT_TRUE(world.start());
    world.offerToProxy(flow(host));  // takes the first flow's line
    world.setInterfaceAddresses({{"en0", "10.0.0.2"}, {"utun0", "10.8.0.2"}});
    for (std::size_t n = 0; n < cases.size(); ++n) {
        const auto& test = cases[n];
        changeRules(R"({"rules":{},"vpnConnected":true,"vpnFallback":"allow",
                        "directFallback":"block"})");
        changeRules(test.rules);
        if (test.hasInterface)
            world.setPath({{"en0", NWInterface::InterfaceType::wifi}});
        else
            world.setPath({});
        world.advance(2);
        world.message(R"({"type":"clearActivityLog"})");
        world.takeLog();
        EXPECT_EQ(world.offerToProxy(flow(test.endpoint)).claimed, test.claimed) << "row " << n;
        auto lines = world.takeLog(proxyCategory);
        std::erase_if(lines, [](const auto& line) {
            return !line.text.starts_with("TCP flow:") && !line.text.starts_with("  -> ") &&
                   !line.text.starts_with("DIRECT path:") && !line.text.starts_with("VPN ") &&
                   !line.text.starts_with("BLOCK ");
        });
        EXPECT_TRUE(platform::simulated::linesAre(lines, test.lines)) << "row " << n;
        const auto record = newestRecord();
        ASSERT_EQ(record.has_value(), !test.route.empty()) << "row " << n;
        if (!record) continue;
        EXPECT_EQ(record->actualRoute, test.route) << "row " << n;
        EXPECT_EQ(record->sourceIp, test.source) << "row " << n;
        EXPECT_EQ(record->destinationPort, test.port) << "row " << n;
        EXPECT_EQ(record->protocolType, "tcp");
        EXPECT_EQ(record->bundleId, "com.example.App");
        EXPECT_EQ(record->appName, "App");
        const auto* endpoint = platform::hostEndpoint(test.endpoint);
        EXPECT_EQ(record->destinationIp, endpoint ? endpoint->hostname : "unknown");
        EXPECT_EQ(record->isVpnConnected,
                  test.rules.find("vpnConnected\":false") == std::string::npos);
        EXPECT_NE(test.rules.find("\"" + record->routingDecision + "\"}"), std::string::npos);
    }
}

TEST_F(FlowIntakeTest, DatagramsAndOtherFlowsLeaveNoTrace) {
    putRules(R"({"rules":{"com.example.App":"direct"},"blockedApps":["com.example.App"]})");
    ASSERT_TRUE(world.start());
    world.offerToProxy(flow(NWHostEndpoint{"h", "1"}));
    world.takeLog();
    for (const auto kind : {FlowDescription::Kind::udp, FlowDescription::Kind::other})
        EXPECT_FALSE(world.offerToProxy(flow(NWHostEndpoint{"h", "1"}, kind)).claimed);
    EXPECT_TRUE(world.takeLog().empty());
    EXPECT_FALSE(world.files.exists(activityLogFile));
}

TEST_F(FlowIntakeTest, TheFirstFlowOfAStartIsLoggedBeforeEveryTest) {
    ASSERT_TRUE(world.start());
    world.clock.set(platform::Date::since1970(1'700'000'000.25));
    for (int start = 0; start < 2; ++start) {
        world.takeLog();
        world.offerToProxy(world.flow({.kind = FlowDescription::Kind::udp}));  // a system process
        world.offerToProxy(world.flow({.signingIdentifier = "com.wireguard.macos"}));
        EXPECT_TRUE(
            proxyLogIs({debug("First flow handled at 1700000000.250 app="),
                        debug("Protected VPN client, passing through: com.wireguard.macos")}));
        world.startProxy();
        world.clock.set(platform::Date::since1970(1'700'000'000.25));
    }
}

TEST_F(FlowIntakeTest, ATcpFlowIsResolvedTwiceAndADatagramOnce) {
    putRules(R"({"rules":{"a.b":"vpn"}})");
    ASSERT_TRUE(world.start());
    const auto resolutions = [&](FlowDescription::Kind kind) {
        world.takeLog();
        world.offerToProxy(world.flow({.kind = kind, .signingIdentifier = "a.b.c"}));
        std::size_t count = 0;
        for (const auto& line : world.takeLog(proxyCategory))
            if (line.text == "Resolved a.b.c -> a.b via prefix stripping") ++count;
        return count;
    };
    EXPECT_EQ(resolutions(FlowDescription::Kind::tcp), 2u);
    EXPECT_EQ(resolutions(FlowDescription::Kind::udp), 1u);
}

TEST(FlowIntakeStory, OverlappingFlowsLogOneFirstFlow) {
    using namespace platform::simulated;
    World world({.order = Order::threads});
    ASSERT_TRUE(world.start());
    for (int n = 0; n < 100; ++n)
        world.later([&world] { world.offerToProxy(world.flow({.signingIdentifier = "a.b"})); });
    world.runUntilIdle();
    std::size_t first = 0;
    for (const auto& line : world.takeLog())
        if (line.text.starts_with("First flow handled")) ++first;
    EXPECT_EQ(first, 1u);
}

}  // namespace
}  // namespace vantry
