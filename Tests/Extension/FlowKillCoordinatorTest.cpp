// What the coordinator says and knows by itself. Its answers are in the random stories of the filter.

#include "Extension/FlowKillCoordinator.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Tests/Extension/TransparentProxyProvider/ProxyTest.h"

namespace vantry {
namespace {

constexpr const char* category = "FlowKillCoordinator";

TEST(FlowKillCoordinator, KnowsWhoseServicesAreSafarisAndLearnsEachMappingWithOneLine) {
    World world;
    auto& coordinator = FlowKillCoordinator::shared();
    coordinator.updateMonitoredApps({"com.apple.Safari"});
    for (const auto* child : {"com.apple.WebKit.Networking", "com.apple.WebKit.WebContent",
                              "com.apple.WebKit.GPU", "com.apple.Safari.SearchHelper"})
        EXPECT_TRUE(coordinator.shouldMonitorFlow(child)) << child;
    world.takeLog();
    coordinator.registerChildProcess("child", "parent");
    coordinator.registerChildProcess("child", "grandparent");
    coordinator.registerChildProcess("com.apple.WebKit.GPU", "grandparent.of.many");
    EXPECT_TRUE(logIs(world, {debug("Registered child mapping: child -> parent", category)}));
    coordinator.resetState();
    coordinator.updateBlockedApps({"grandparent"});
    EXPECT_TRUE(coordinator.shouldBlockFlow("child"));
    EXPECT_TRUE(coordinator.shouldBlockFlow("com.apple.WebKit.GPU"));
}

TEST(FlowKillCoordinator, LogsWhatChangedInASetAndNothingForAnEqualOne) {
    World world;
    auto& coordinator = FlowKillCoordinator::shared();
    coordinator.updateMonitoredApps({"a", "b", "c"});
    coordinator.updateMonitoredApps({"c", "b", "a"});
    coordinator.updateMonitoredApps({"b", "d"});
    coordinator.updateBlockedApps({});
    coordinator.updateBlockedApps({"a", "b"});
    coordinator.updateBlockedApps({"c"});
    EXPECT_TRUE(logIs(world, {info("Monitoring updated: +3 -0 total=3", category),
                              info("Monitoring updated: +1 -2 total=2", category),
                              info("Blocked apps updated: +2 -0 total=2", category),
                              info("Blocked apps updated: +1 -2 total=1", category)}));
}

}  // namespace
}  // namespace vantry
