// What a change of rules sets off: sessions that end, sets that are replaced, flows that are flushed.

#include <gmock/gmock.h>

#include "Tests/Extension/TransparentProxyProvider/ProxyTest.h"

namespace vantry {
namespace {

using platform::NSError;
using platform::NWHostEndpoint;
using platform::NWInterface;
using platform::simulated::debug;
using platform::simulated::error;
using platform::simulated::info;

const NSError reset{platform::NEAppProxyErrorDomain, platform::NEAppProxyFlowErrorPeerReset,
                    "The application's peer reset the flow"};
const NSError refused{"test", 1, "no"};

class RuleChangesTest : public ProxyTest {
protected:
    // Starts with these rules and an interface.
    void startWith(std::string_view rules) {
        putRules(rules);
        world.setPath({{"en0", NWInterface::InterfaceType::wifi}});
        ASSERT_TRUE(world.start());
        world.takeLog();
    }
    Flow relayed(const std::string& bundleId) {
        auto flow = world.flow(
            {.remoteEndpoint = NWHostEndpoint{"h", "443"}, .signingIdentifier = bundleId});
        EXPECT_TRUE(world.offerToProxy(flow).claimed) << bundleId;
        world.runUntilIdle();
        return flow;
    }
    std::size_t settingsCalls() const { return world.providers.proxySettings.calls().size(); }
    // The proxy's lines that begin with one of these texts.
    std::vector<std::string> linesThatBegin(const std::vector<std::string_view>& starts) {
        std::vector<std::string> lines;
        for (const auto& line : world.takeLog(proxyCategory))
            for (const auto start : starts)
                if (line.text.starts_with(start)) lines.push_back(line.text);
        return lines;
    }
};

TEST_F(RuleChangesTest, ADeliveryWithoutAnyFileStillPushesTheSets) {
    world.preferences.setProviderConfiguration(
        R"({"rules":{"a":"vpn","b":"vpn","c":"direct"},"blockedApps":["b"]})");
    ASSERT_TRUE(world.start());
    EXPECT_TRUE(coordinator.shouldMonitorFlow("b"));  // at the start blocked ones are watched too
    EXPECT_FALSE(coordinator.shouldBlockFlow("b"));
    world.takeLog();
    world.post(rulesChanged);
    world.runUntilIdle();
    auto lines = world.takeLog();
    std::erase_if(lines, [](const auto& line) {
        return line.text.starts_with("Old rule: ") || line.text.starts_with("Comparing ");
    });
    EXPECT_TRUE(platform::simulated::linesAre(
        lines,
        {debug("Received rules-changed Darwin notification"),
         debug("Current routingRules.count BEFORE reload: 3"),
         debug(std::string("Reading rules from: ") + rulesFile),
         debug(std::string("No rules file found at ") + rulesFile),
         debug("Rules identical after reload: true"), debug("routingRules.count AFTER reload: 3"),
         debug("Active proxy sessions at notification time: 0"),
         debug("killSessionsForChangedRules: oldRules=3 newRules=3"),
         debug("changedBundleIds count (direct->vpn): 0"),
         debug("No direct->vpn rule changes detected, skipping session kill"),
         info("Monitoring updated: +0 -1 total=1"), info("Blocked apps updated: +1 -0 total=1")}));
    EXPECT_EQ(settingsCalls(), 1u);
}

// What counts as a change between an old and a new file, and what follows from it.
TEST_F(RuleChangesTest, ChangesAreFoundByEachSidesTableAndTheNewDefault) {
    struct Case {
        std::string before, after;
        std::vector<std::string> found;
        bool ends;  // a session of "a.x"
        bool flushes;
    };
    const std::string direct = R"({"rules":{"a.x":"direct"}})", vpn = R"({"rules":{"a.x":"vpn"}})";
    const std::string none = R"({"rules":{}})";
    const auto defaulting = [](const std::string& rules, const char* word) {
        return rules.substr(0, rules.size() - 1) + R"(,"defaultAction":")" + word + "\"}";
    };
    const std::vector<Case> cases{
        {direct, vpn, {"CHANGE direct->vpn: a.x"}, true, false},
        {direct, R"({"rules":{"a.x":"block"}})", {"CHANGE direct->vpn: a.x"}, true, false},
        {vpn, direct, {"CHANGE vpn->direct: a.x"}, false, true},
        {direct, direct, {}, false, false},
        {direct, none, {"CHANGE direct->vpn: a.x", "REMOVED rule: a.x was direct"}, true, false},
        {direct, defaulting(none, "direct"), {"REMOVED rule: a.x was direct"}, false, false},
        {none,
         direct,
         {"CHANGE vpn->direct: a.x", "NEW rule appeared: a.x -> direct"},
         false,
         true},
        {defaulting(none, "direct"), vpn, {"NEW rule appeared: a.x -> vpn"}, false, false},
        {defaulting(vpn, "direct"), none, {"REMOVED rule: a.x was vpn"}, false, false},
        {defaulting(none, "direct"), defaulting(none, "vpn"), {}, false, false},
        {direct,
         R"({"rules":{"a.x":"vpn","b":"direct"}})",
         {"CHANGE direct->vpn: a.x", "CHANGE vpn->direct: b", "NEW rule appeared: b -> direct"},
         true,
         true},
    };
    startWith(direct);
    for (std::size_t n = 0; n < cases.size(); ++n) {
        const auto& test = cases[n];
        changeRules(defaulting(direct, "vpn"));
        auto flow = relayed("a.x");
        auto helper = relayed("a.x.helper");
        // The old table comes by message, which ends no session.
        auto reload = test.before;
        reload.insert(1, R"("type":"reload",)");
        world.message(reload);
        const auto callsBefore = settingsCalls();
        world.takeLog();
        changeRules(test.after.find("defaultAction") == std::string::npos &&
                            test.before.find("defaultAction") == std::string::npos
                        ? defaulting(test.after, "vpn")
                        : test.after);
        EXPECT_EQ(linesThatBegin({"CHANGE ", "NEW rule", "REMOVED rule"}), test.found)
            << "row " << n;
        EXPECT_EQ(settingsCalls() - callsBefore, test.flushes ? 2u : 0u) << "row " << n;
        world.advance(1);
        EXPECT_EQ(flow.isClosedOnceWith(reset), test.ends) << "row " << n;
        EXPECT_EQ(helper.isClosedOnceWith(reset), test.ends) << "row " << n;
        flow.endsSending();
        helper.endsSending();
        world.runUntilIdle();
    }
}

TEST_F(RuleChangesTest, SelectedSessionsLeaveTheTableAtOnceAndEndFiftyMillisecondsApart) {
    startWith(R"({"rules":{"com.example.App":"direct","com.example.AppOther":"direct"}})");
    std::vector<Flow> selected{relayed("com.example.App"), relayed("com.example.App.Helper"),
                               relayed("com.example.App")};
    auto other = relayed("com.example.AppOther");
    // A session of a shorter name than the one that changes stays.
    world.takeLog();
    putRules(R"({"rules":{"com.example.AppOther":"direct"}})");
    world.post(rulesChanged);
    world.runUntilIdle();
    const auto lines = linesThatBegin(
        {"activeSessions.count", "Scheduling", "Gracefully", "Killed", "Active proxy"});
    ASSERT_EQ(lines.size(), 6u);
    EXPECT_EQ(lines[0], "Active proxy sessions at notification time: 4");
    EXPECT_EQ(lines[1], "activeSessions.count: 4");
    for (int n = 0; n < 3; ++n)
        EXPECT_TRUE(lines[2 + static_cast<std::size_t>(n)].ends_with(
            "delay=" + std::to_string(50 * n) + "ms"));
    EXPECT_EQ(lines[5], "Gracefully killed 3 proxy sessions for 1 changed rules");
    const auto ended = [&] { return std::ranges::count_if(selected, &Flow::isClosed); };
    EXPECT_LE(ended(), 1);  // the first one's slot is now, through the queue
    world.advance(0.02);
    EXPECT_EQ(ended(), 1);
    world.advance(0.05);
    EXPECT_EQ(ended(), 2);
    // A stop does not see those that wait for their slot; they end all the same.
    world.takeLog();
    world.stopProxy();
    EXPECT_TRUE(logHolds(world, {info("[STOP] Collected 1 sessions to cancel")}));
    world.runToEnd();
    for (const auto& flow : selected) EXPECT_TRUE(flow.isClosedOnceWith(reset));
    EXPECT_TRUE(other.isClosedOnceCleanly());
}

TEST_F(RuleChangesTest, BlockingEndsSessionsAndFlushesInBothDirections) {
    startWith(R"({"rules":{"x.a":"direct","x.b":"vpn"},"blockedApps":[]})");
    auto flow = relayed("x.a.helper");
    world.takeLog();
    changeRules(R"({"rules":{"x.a":"direct","x.b":"vpn"},"blockedApps":["x.a","x.b"]})");
    const auto lines = linesThatBegin({"Scheduling", "Killed", "Block state", "Evaluating"});
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_TRUE(lines[0].starts_with("Scheduling block kill: sid=1 bundleId=x.a delay=0ms"));
    EXPECT_EQ(lines[1], "Killed 1 proxy sessions for 2 newly-blocked apps");
    EXPECT_EQ(lines[2], "Block state changed: +2 blocked, -0 unblocked");
    EXPECT_EQ(settingsCalls(), 3u);
    world.advance(1);
    EXPECT_TRUE(flow.isClosedOnceWith(reset));
    EXPECT_FALSE(coordinator.shouldMonitorFlow("x.b"));  // blocked ones are not watched
    EXPECT_TRUE(coordinator.shouldBlockFlow("x.b"));

    world.takeLog();
    changeRules(R"({"rules":{"x.a":"direct","x.b":"vpn"},"blockedApps":["c"]})");
    EXPECT_EQ(linesThatBegin({"Scheduling", "Killed", "Block state"}),
              std::vector<std::string>{"Block state changed: +1 blocked, -2 unblocked"});
    EXPECT_EQ(settingsCalls(), 5u);
    EXPECT_TRUE(coordinator.shouldMonitorFlow("x.b"));
}

TEST_F(RuleChangesTest, ARequestDuringAFlushIsDropped) {
    startWith(R"({"rules":{"a":"vpn"},"blockedApps":[]})");
    changeRules(R"({"rules":{"a":"direct"},"blockedApps":["c"]})");
    EXPECT_EQ(linesThatBegin({"Flush", "Sentinel", "Clean settings"}),
              (std::vector<std::string>{"Flushing declined flows: adding sentinel rule",
                                        "Flush already in progress, skipping",
                                        "Sentinel applied, removing to restore clean settings...",
                                        "Clean settings restored, NECP policy active"}));
    const auto calls = world.providers.proxySettings.calls();
    ASSERT_EQ(calls.size(), 3u);
    const auto clean = calls[0].settings.includedNetworkRules();
    const auto sentinel = calls[1].settings.includedNetworkRules();
    ASSERT_EQ(clean.size(), 2u);
    ASSERT_EQ(sentinel.size(), 3u);
    EXPECT_EQ(calls[0].settings.tunnelRemoteAddress(), "127.0.0.1");
    EXPECT_EQ(clean[0].protocol, platform::NENetworkRule::Protocol::TCP);
    EXPECT_EQ(clean[1].protocol, platform::NENetworkRule::Protocol::UDP);
    for (const auto& rule : clean) {
        EXPECT_EQ(rule.direction, platform::NENetworkRule::TrafficDirection::outbound);
        EXPECT_FALSE(rule.remoteNetwork || rule.localNetwork);
        EXPECT_EQ(rule.remotePrefix + rule.localPrefix, 0u);
    }
    EXPECT_EQ(sentinel[0], clean[0]);
    EXPECT_EQ(sentinel[1], clean[1]);
    EXPECT_EQ(sentinel[2].remoteNetwork, (NWHostEndpoint{"127.255.255.254", "0"}));
    EXPECT_EQ(sentinel[2].remotePrefix, 32u);
    EXPECT_EQ(sentinel[2].protocol, platform::NENetworkRule::Protocol::TCP);
    EXPECT_EQ(calls[2].settings, calls[0].settings);
}

TEST_F(RuleChangesTest, AFlushMakesThreeCallsAtMostAndIsThenOver) {
    startWith(R"({"rules":{"a":"vpn"},"blockedApps":[]})");
    struct Case {
        std::vector<std::optional<NSError>> outcomes;
        std::size_t calls;
        std::vector<ExpectedLine> lines;
    };
    const auto begun = debug("Flushing declined flows: adding sentinel rule");
    const auto applied = debug("Sentinel applied, removing to restore clean settings...");
    const auto retrying = error("Failed to restore clean settings: no, retrying...");
    const std::vector<Case> cases{
        {{refused}, 1, {begun, error("Failed to apply sentinel settings: no")}},
        {{std::nullopt, refused, std::nullopt},
         3,
         {begun, applied, retrying, debug("Clean settings restored on retry")}},
        {{std::nullopt, refused, refused},
         3,
         {begun, applied, retrying, error("Retry also failed: no")}},
        {{}, 2, {begun, applied, debug("Clean settings restored, NECP policy active")}},
    };
    for (const auto& test : cases) {
        world.providers.proxySettings.script(test.outcomes);
        const auto before = settingsCalls();
        world.takeLog();
        changeRules(R"({"rules":{"a":"direct"}})");
        auto lines = world.takeLog(proxyCategory);
        const auto first =
            std::ranges::find(lines, begun.text, &platform::simulated::LogLine::text);
        lines.erase(lines.begin(), first);
        std::erase_if(lines, [](const auto& line) { return line.text.starts_with("Block state"); });
        EXPECT_TRUE(platform::simulated::linesAre(lines, test.lines));
        EXPECT_EQ(settingsCalls() - before, test.calls);
        changeRules(R"({"rules":{"a":"vpn"}})");
    }
}

TEST_F(RuleChangesTest, AFlushUnderWayOutlivesAStopAndEndsWithItsProvider) {
    startWith(R"({"rules":{"a":"vpn"}})");
    world.providers.proxySettings.hold();
    changeRules(R"({"rules":{"a":"direct"}})");
    world.stopProxy();
    world.providers.proxySettings.release();
    world.runUntilIdle();
    EXPECT_EQ(settingsCalls(), 3u);

    ASSERT_TRUE(world.start());
    changeRules(R"({"rules":{"a":"vpn"}})");
    world.providers.proxySettings.hold();
    changeRules(R"({"rules":{"a":"direct"}})");
    const auto pending = settingsCalls();
    world.providers.letGoOfProxy();
    world.takeLog();
    world.providers.proxySettings.release();
    world.runUntilIdle();
    EXPECT_EQ(settingsCalls(), pending);  // nothing follows the sentinel
    EXPECT_TRUE(world.takeLog(proxyCategory).empty());
}

TEST_F(RuleChangesTest, AStoppedProxyHearsNothing) {
    startWith(R"({"rules":{"a":"vpn"}})");
    world.stopProxy();
    world.takeLog();
    changeRules(R"({"rules":{}})");
    EXPECT_TRUE(world.takeLog().empty());
}

}  // namespace
}  // namespace vantry
