// The filter's start and stop, and under which name it knows the owner of a flow. Its verdicts are in
// the random stories.

#include "Tests/Extension/TransparentProxyProvider/ProxyTest.h"

namespace vantry {
namespace {

const auto allow = NEFilterNewFlowVerdict::allowVerdict();
const auto drop = NEFilterNewFlowVerdict::dropVerdict();

class FilterTest : public ProxyTest {
protected:
    // A TCP flow of the process that has this token.
    static Flow flow(std::optional<Data> auditToken) {
        return Flow({.remoteEndpoint = NWHostEndpoint{"203.0.113.9", "443"},
                     .auditToken = std::move(auditToken)});
    }
    NEFilterNewFlowVerdict offer(const Process& process) {
        return world.filter()->handleNewFlow(flow(process.auditToken()).filterFlow());
    }
    testing::AssertionResult filterLogIs(const std::vector<ExpectedLine>& expected) {
        return linesAre(world.takeLog("FlowKillFilter"), expected);
    }

    const Process app = world.application("App", "com.example.App");
};

TEST_F(FilterTest, StartAsksForEveryFlowAndReportsTheOutcomeAndStopTouchesNothingShared) {
    coordinator.updateBlockedApps(share({"com.example.App"}));
    const auto started = world.startFilter();
    EXPECT_FALSE(started.hasCome());
    world.runUntilIdle();
    EXPECT_TRUE(started.succeeded());
    const auto settings = world.providers.filterSettings.inForce();
    ASSERT_TRUE(settings);
    EXPECT_TRUE(settings->rules.empty());
    EXPECT_EQ(settings->defaultAction, NEFilterAction::filterData);
    EXPECT_TRUE(world.stopFilter(NEProviderStopReason::superceded).succeeded());
    EXPECT_TRUE(coordinator.shouldBlockFlow("com.example.App"));

    const NSError refused{"test", 7, "not now"};
    world.providers.filterSettings.script({refused, refused});
    const auto failed = world.startFilter();
    world.runUntilIdle();
    EXPECT_EQ(failed.error(), refused);
    // The platform gets its answer also when the provider has gone meanwhile.
    const auto orphaned = world.startFilter();
    world.providers.letGoOfFilter();
    world.runUntilIdle();
    EXPECT_EQ(orphaned.error(), refused);
    EXPECT_TRUE(filterLogIs(
        {info("Filter provider started"), info("Filter settings applied (default: filterData)"),
         info("Filter provider stopped, reason: 9"), info("Filter provider started"),
         error("Failed to apply filter settings: not now (test 7)"),
         info("Filter provider started")}));
}

TEST_F(FilterTest, WatchedFlowsAreKeptInTheTunnelWhereTheFallbackBlocks) {
    for (const bool isConnected : {true, false}) {
        coordinator.updateVpnState(isConnected, "block");
        EXPECT_TRUE(world.network.keepsWatchedFlowsInTunnel());
        coordinator.updateVpnState(isConnected, "allow");
        EXPECT_FALSE(world.network.keepsWatchedFlowsInTunnel());
    }
    coordinator.updateVpnState(true, "block");
    coordinator.resetState();
    EXPECT_FALSE(world.network.keepsWatchedFlowsInTunnel());
}

TEST_F(FilterTest, WhatItCannotAttributePasses) {
    coordinator.updateVpnState(true, "allow");
    const auto tool = world.process({.path = "/usr/bin/tool"});
    const std::vector<std::pair<std::optional<Data>, std::string>> cases{
        {std::nullopt, "No auditToken on flow"},
        {Data(std::string(31, 'x')), "auditToken parse failed, size=31"},
        {tool.auditToken(), "pid=" + std::to_string(tool.pid) + " path=/usr/bin/tool bundleId=nil"},
        {makeAuditToken(501, 999'999), "pid=999999 path=<no path> bundleId=nil"}};
    for (const auto& [token, line] : cases) {
        world.takeLog();
        const auto unknown = flow(token);
        EXPECT_EQ(world.filter()->handleNewFlow(unknown.filterFlow()), allow);
        EXPECT_EQ(world.filter()->handleOutboundData(unknown.filterFlow(), 0, Data("x")),
                  NEFilterDataVerdict::allowVerdict());
        EXPECT_TRUE(filterLogIs(
            {debug(line), debug("handleNewFlow: no bundleId resolved, allowing"), debug(line)}));
    }
}

TEST_F(FilterTest, ACachedAnswerStandsWhateverTheSetsSayLater) {
    const auto parent = world.application("Parent", "com.example.Parent");
    world.bundle("/Applications/Child.app", "com.example.Child");
    const auto child = world.process({.path = "/Applications/Child.app/c", .parent = parent.pid});
    EXPECT_EQ(offer(child), allow);  // its own bundle, unknown to the rules, is cached too
    world.processes.forgetQuestions();
    coordinator.updateBlockedApps(share({"com.example.Parent"}));
    EXPECT_EQ(offer(child), allow);
    EXPECT_EQ(world.processes.questions(), 0u);
    coordinator.updateBlockedApps(share({"com.example.Child"}));
    EXPECT_EQ(offer(child), drop);

    // What found nothing is looked up again.
    const auto tool = world.process({.path = "/bin/tool"});
    EXPECT_EQ(offer(tool), allow);
    world.processes.setParent(tool.pid, child.pid);
    EXPECT_EQ(offer(tool), drop);
}

// The proxy's cache is of the same kind.
TEST_F(FilterTest, AFullCacheGoesAtOnceBeforeTheNextStore) {
    coordinator.updateBlockedApps(share({"com.example.App"}));
    auto isAskedFor = [&, process = app](std::uint32_t version) mutable {
        process.version = version;
        world.processes.forgetQuestions();
        offer(process);
        return world.processes.questions() > 0;
    };
    for (std::uint32_t version = 1; version <= 1000; ++version) ASSERT_TRUE(isAskedFor(version));
    EXPECT_FALSE(isAskedFor(1) || isAskedFor(1000));
    EXPECT_TRUE(isAskedFor(1001));
    EXPECT_FALSE(isAskedFor(1001));
    EXPECT_TRUE(isAskedFor(1000) && isAskedFor(1));
}

}  // namespace
}  // namespace vantry
