#include "Extension/FlowKillCoordinator.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Platform/Simulated/Expectations.h"

namespace vantry {
namespace {

using platform::simulated::debug;
using platform::simulated::info;
using platform::simulated::logIs;
using platform::simulated::World;

constexpr const char* category = "FlowKillCoordinator";

TEST(FlowKillCoordinator, FailsOpenBeforeAnyStateAndAfterAReset) {
    World world;
    auto& coordinator = FlowKillCoordinator::shared();
    const auto expectOpen = [&] {
        EXPECT_FALSE(coordinator.hasReceivedState());
        EXPECT_FALSE(coordinator.shouldMonitorFlow("a.b"));
        EXPECT_FALSE(coordinator.shouldBlockFlow("a.b"));
        EXPECT_FALSE(coordinator.shouldBlockForVpnFallback("a.b"));
        EXPECT_TRUE(coordinator.drainQuicBlocks().empty());
    };
    expectOpen();
    coordinator.updateMonitoredApps({"a.b"});
    coordinator.updateBlockedApps({"a.b", "c"});
    coordinator.updateVpnState(false, "block");
    coordinator.recordQuicBlock({});
    EXPECT_TRUE(coordinator.hasReceivedState());
    EXPECT_TRUE(coordinator.shouldMonitorFlow("a.b"));
    EXPECT_TRUE(coordinator.shouldBlockFlow("a.b"));
    EXPECT_TRUE(coordinator.shouldBlockForVpnFallback("a.b"));
    coordinator.resetState();
    expectOpen();
    coordinator.updateVpnState(true, "allow");
    EXPECT_TRUE(logIs(world, {
                                 info("Monitoring updated: +1 -0 total=1", category),
                                 info("Blocked apps updated: +2 -0 total=2", category),
                                 info("VPN state updated: connected=false fallback=block "
                                      "firstInit=true",
                                      category),
                                 info("Coordinator state reset (proxy stopped)", category),
                                 info("VPN state updated: connected=true fallback=allow "
                                      "firstInit=true",
                                      category),
                             }));
}

TEST(FlowKillCoordinator, MatchesMembersAndWhatLiesBelowThem) {
    World world;
    struct Case {
        BundleIdSet members;
        std::string bundleId;
        bool matches;
    };
    const std::vector<Case> cases{
        {{"a.b"}, "a.b", true},     {{"a.b"}, "a.b.c", true},   {{"a.b"}, "a.b.c.d", true},
        {{"a.b"}, "a.bc", false},   {{"a.b"}, "a", false},      {{"a.b"}, "A.b", false},
        {{"a."}, "a..b", true},     {{"a."}, "a.b", false},     {{"a."}, "a.", true},
        {{""}, "", true},           {{""}, ".a", true},         {{""}, "a", false},
        {{"a"}, "a.", true},        {{"x", "y"}, "z.y", false}, {{}, "a", false},
        {{"a..b"}, "a..b.c", true}, {{"a..b"}, "a.b", false},
    };
    auto& coordinator = FlowKillCoordinator::shared();
    coordinator.updateVpnState(false, "block");
    for (const auto& test : cases) {
        coordinator.updateMonitoredApps(test.members);
        coordinator.updateBlockedApps(test.members);
        EXPECT_EQ(coordinator.shouldMonitorFlow(test.bundleId), test.matches) << test.bundleId;
        EXPECT_EQ(coordinator.shouldBlockFlow(test.bundleId), test.matches) << test.bundleId;
        EXPECT_EQ(coordinator.shouldBlockForVpnFallback(test.bundleId), test.matches)
            << test.bundleId;
    }
}

TEST(FlowKillCoordinator, AsksOnlyForTheMappedName) {
    World world;
    auto& coordinator = FlowKillCoordinator::shared();
    coordinator.updateMonitoredApps({"com.apple.Safari"});
    for (const auto* child : {"com.apple.WebKit.Networking", "com.apple.WebKit.WebContent",
                              "com.apple.WebKit.GPU", "com.apple.Safari.SearchHelper"})
        EXPECT_TRUE(coordinator.shouldMonitorFlow(child)) << child;
    world.takeLog();

    coordinator.registerChildProcess("child", "parent");
    coordinator.registerChildProcess("parent", "grandparent");
    coordinator.updateBlockedApps({"child", "grandparent"});
    EXPECT_FALSE(coordinator.shouldBlockFlow("child"));  // its parent is asked for, one step only
    EXPECT_TRUE(coordinator.shouldBlockFlow("parent"));
    coordinator.registerChildProcess("child", "grandparent");
    EXPECT_TRUE(coordinator.shouldBlockFlow("child"));
    coordinator.registerChildProcess("com.apple.WebKit.GPU", "grandparent.of.many");
    EXPECT_TRUE(coordinator.shouldBlockFlow("com.apple.WebKit.GPU"));
    EXPECT_TRUE(logIs(world, {
                                 debug("Registered child mapping: child -> parent", category),
                                 debug("Registered child mapping: parent -> grandparent", category),
                                 info("Blocked apps updated: +2 -0 total=2", category),
                             }));
    coordinator.resetState();
    coordinator.updateBlockedApps({"grandparent"});
    EXPECT_TRUE(coordinator.shouldBlockFlow("child"));
}

TEST(FlowKillCoordinator, TheFallbackTouchesWatchedAppsWhileTheVpnIsDownWithBlock) {
    World world;
    auto& coordinator = FlowKillCoordinator::shared();
    coordinator.updateMonitoredApps({"watched"});
    coordinator.updateBlockedApps({"blocked"});
    for (const auto* fallback : {"block", "allow", "", "Block"}) {
        for (const bool isConnected : {true, false}) {
            coordinator.updateVpnState(isConnected, fallback);
            const bool applies = !isConnected && std::string_view(fallback) == "block";
            EXPECT_EQ(coordinator.shouldBlockForVpnFallback("watched"), applies) << fallback;
            EXPECT_FALSE(coordinator.shouldBlockForVpnFallback("blocked")) << fallback;
        }
    }
}

TEST(FlowKillCoordinator, LogsWhatChangedInASetAndNothingForAnEqualOne) {
    World world;
    auto& coordinator = FlowKillCoordinator::shared();
    coordinator.updateMonitoredApps({"a", "b", "c"});
    coordinator.updateMonitoredApps({"c", "b", "a"});
    coordinator.updateMonitoredApps({"b", "d"});
    coordinator.updateBlockedApps({});
    coordinator.updateVpnState(true, "allow");
    coordinator.updateVpnState(true, "allow");
    EXPECT_TRUE(logIs(world, {
                                 info("Monitoring updated: +3 -0 total=3"),
                                 info("Monitoring updated: +1 -2 total=2"),
                                 info("VPN state updated: connected=true fallback=allow "
                                      "firstInit=true"),
                                 info("VPN state updated: connected=true fallback=allow "
                                      "firstInit=false"),
                             }));
}

TEST(FlowKillCoordinator, HandsOutRecordsOnceInTheOrderOfRecording) {
    World world;
    auto& coordinator = FlowKillCoordinator::shared();
    for (const auto* name : {"first", "second"}) {
        ActivityLogEntryIPC entry;
        entry.bundleId = name;
        coordinator.recordQuicBlock(entry);
    }
    const auto drained = coordinator.drainQuicBlocks();
    ASSERT_EQ(drained.size(), 2u);
    EXPECT_EQ(drained[0].bundleId, "first");
    EXPECT_EQ(drained[1].bundleId, "second");
    EXPECT_TRUE(coordinator.drainQuicBlocks().empty());
}

}  // namespace
}  // namespace vantry
