// Whole sequences: what a start, a stop, a sleep and a wake log and do, line by line.

#include "Tests/Extension/TransparentProxyProvider/ProxyTest.h"

namespace vantry {
namespace {

using platform::NSError;
using platform::NWHostEndpoint;
using platform::NWInterface;
using platform::simulated::debug;
using platform::simulated::error;
using platform::simulated::info;

class LifecycleTest : public ProxyTest {};

const std::string readingRules = std::string("Reading rules from: ") + rulesFile;
const std::string noRules = std::string("No rules file found at ") + rulesFile;

TEST_F(LifecycleTest, AFirstStartWithoutAnySource) {
    const auto started = world.startProxy();
    EXPECT_FALSE(started.hasCome());
    world.runUntilIdle();
    EXPECT_TRUE(started.succeeded());
    EXPECT_TRUE(logIs(
        world,
        {info("startProxy() called (invocation #1)"), info("Starting transparent proxy..."),
         error("No providerConfiguration available"), debug(readingRules), debug(noRules),
         debug("Initial rules after startProxy load (0 rules):"),
         info("Registered for Darwin rules-changed notification"),
         error("No physical interface found"), info("Transparent proxy started with 0 rules")}));
    EXPECT_FALSE(coordinator.hasReceivedState());
    world.startProxy();
    world.runUntilIdle();
    EXPECT_TRUE(logHolds(world, {info("startProxy() called (invocation #2)")}));
}

TEST_F(LifecycleTest, AStartWhereFileAndConfigurationDisagree) {
    world.preferences.setProviderConfiguration(
        R"({"rules":{"a":"direct"},"vpnFallback":"block","blockedApps":["x"]})");
    const std::string document = R"({"rules":{"b":"vpn"},"vpnConnected":false})";
    putRules(document);
    world.setPath({{"en0", NWInterface::InterfaceType::wifi}});
    world.preferences.setTunnelProviders({"com.vpn.app.tunnel"});
    world.startProxy();
    world.runUntilIdle();
    auto lines = world.takeLog();
    // The answers of the discovery, the path and the settings come in any order.
    ASSERT_GE(lines.size(), 3u);
    std::sort(lines.end() - 3, lines.end(),
              [](const auto& left, const auto& right) { return left.text < right.text; });
    EXPECT_TRUE(platform::simulated::linesAre(
        lines,
        {info("startProxy() called (invocation #1)"), info("Starting transparent proxy..."),
         info("VPN state updated: connected=true fallback=block firstInit=true"),
         info("Loaded 1 routing rules from config, default: vpn, blocked: 1"),
         info("Fallback settings from config: vpn=block, direct=block"), debug(readingRules),
         debug("Raw file contents (" + std::to_string(document.size()) + " bytes): " + document),
         info("VPN state updated: connected=false fallback=block firstInit=false"),
         info("Blocked apps updated: +1 -0 total=1"),
         debug("Loaded rules from shared file: 1 -> 1, default: vpn, blocked: 1"),
         debug("Fallback settings: vpn=block, direct=block, vpnConnected=false"),
         debug("Rule: b -> vpn"), debug("Initial rules after startProxy load (1 rules):"),
         debug("Startup rule: b -> vpn"), info("Registered for Darwin rules-changed notification"),
         info("Monitoring updated: +1 -0 total=1"), info("Discovered VPN client: com.vpn.app"),
         info("Physical interface detected: en0 (wifi)"),
         info("Transparent proxy started with 1 rules")}));
}

TEST_F(LifecycleTest, AStartWhoseSettingsFailUndoesNothing) {
    const NSError refused{"test", 5, "not allowed"};
    world.providers.proxySettings.script({refused, refused});
    putRules(R"({"rules":{"a":"vpn"}})");
    const auto failed = world.startProxy();
    world.runUntilIdle();
    EXPECT_EQ(failed.error(), refused);
    EXPECT_TRUE(logHolds(world, {error("Failed to set proxy settings: not allowed")}));
    EXPECT_TRUE(coordinator.shouldMonitorFlow("a"));
    changeRules(R"({"rules":{"b":"vpn"}})");
    EXPECT_TRUE(coordinator.shouldMonitorFlow("b"));
    EXPECT_EQ(world.network.monitorsAtWork(), 1u);
    // The platform gets its answer also when the provider has gone meanwhile.
    const auto orphaned = world.startProxy();
    world.providers.letGoOfProxy();
    world.takeLog();
    world.runUntilIdle();
    EXPECT_EQ(orphaned.error(), refused);
    EXPECT_TRUE(world.takeLog(proxyCategory).empty());
}

TEST_F(LifecycleTest, AStopTakesEverythingDownInOrderAndKeepsTheRules) {
    putRules(R"({"rules":{"a":"direct","b":"vpn"},"blockedApps":["c"]})");
    world.setPath({{"en0", NWInterface::InterfaceType::wifi}});
    ASSERT_TRUE(world.start());
    auto flow = world.flow({.remoteEndpoint = NWHostEndpoint{"h", "1"}, .signingIdentifier = "a"});
    world.offerToProxy(flow);
    world.runUntilIdle();
    world.takeLog();
    const auto stopped = world.stopProxy(platform::NEProviderStopReason::userInitiated);
    EXPECT_TRUE(stopped.hasCome());
    auto lines = world.takeLog();
    std::erase_if(lines, [](const auto& line) { return line.text.starts_with("Session ended"); });
    EXPECT_TRUE(platform::simulated::linesAre(
        lines,
        {info("[STOP] stopProxy() entered, reason: 1"), info("[STOP] Darwin observer removed"),
         info("[STOP] Collected 1 sessions to cancel"), info("[STOP] All sessions cancelled"),
         info("Coordinator state reset (proxy stopped)", "FlowKillCoordinator"),
         info("[STOP] Coordinator state reset — filter now fail-open"),
         info("[STOP] stopProxy() completionHandler called — shutdown complete")}));
    EXPECT_TRUE(flow.isClosedOnceCleanly());
    EXPECT_FALSE(coordinator.shouldBlockFlow("c"));
    EXPECT_EQ(world.network.monitorsAtWork(), 0u);
    EXPECT_EQ(decisionOf("c"), "block");
    world.takeLog();
    world.stopProxy();
    EXPECT_TRUE(logHolds(world, {info("[STOP] Collected 0 sessions to cancel"),
                                 info("[STOP] All sessions cancelled")}));
}

TEST_F(LifecycleTest, SleepOnlySaysSoAndWakeTakesTheConfigurationAgain) {
    world.preferences.setProviderConfiguration(R"({"rules":{"a":"direct"},"vpnConnected":true})");
    putRules(R"({"rules":{"b":"vpn"},"vpnConnected":false,"vpnFallback":"block"})");
    world.setPath({{"en0", NWInterface::InterfaceType::wifi}});
    ASSERT_TRUE(world.start());
    world.takeLog();
    EXPECT_TRUE(world.sleep().hasCome());
    EXPECT_TRUE(logIs(world, {info("System sleeping...")}));
    // Rules changed while the machine slept are in the file only.
    putRules(R"({"rules":{"c":"vpn"}})");
    world.wake();
    world.runUntilIdle();
    EXPECT_TRUE(
        logIs(world, {info("System waking..."),
                      info("VPN state updated: connected=true fallback=block firstInit=false"),
                      info("Loaded 1 routing rules from config, default: vpn, blocked: 0"),
                      info("Fallback settings from config: vpn=block, direct=block"),
                      info("Physical interface detected: en0 (wifi)")}));
    EXPECT_EQ(decisionOf("a"), "direct");
    EXPECT_TRUE(coordinator.shouldMonitorFlow("b"));  // the sets still follow the old file
    EXPECT_EQ(world.providers.proxySettings.calls().size(), 1u);
    world.post(rulesChanged);
    world.runUntilIdle();
    EXPECT_FALSE(coordinator.shouldMonitorFlow("b"));
    EXPECT_TRUE(coordinator.shouldMonitorFlow("c"));

    world.preferences.setProtocolConfiguration(nullptr);
    world.takeLog();
    world.wake();
    world.runUntilIdle();
    EXPECT_TRUE(logIs(world, {info("System waking..."), error("No providerConfiguration available"),
                              info("Physical interface detected: en0 (wifi)")}));
}

}  // namespace
}  // namespace vantry
