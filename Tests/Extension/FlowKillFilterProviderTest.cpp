// The filter's whole decision tables, driven as the platform drives it.

#include "Extension/FlowKillFilterProvider.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "Platform/Simulated/Expectations.h"

namespace vantry {
namespace {

using platform::Data;
using platform::NEFilterDataVerdict;
using platform::NEFilterNewFlowVerdict;
using platform::NWHostEndpoint;
using platform::NWOtherEndpoint;
using platform::RemoteEndpoint;
using platform::simulated::debug;
using platform::simulated::error;
using platform::simulated::ExpectedLine;
using platform::simulated::Flow;
using platform::simulated::FlowDescription;
using platform::simulated::info;
using platform::simulated::linesAre;
using platform::simulated::makeAuditToken;
using platform::simulated::Process;
using platform::simulated::World;

constexpr const char* category = "FlowKillFilter";
const auto allow = NEFilterNewFlowVerdict::allowVerdict();
const auto drop = NEFilterNewFlowVerdict::dropVerdict();
const auto watch = NEFilterNewFlowVerdict::filterDataVerdict(false, 0, true, 1);

FlowDescription::Kind kindOf(std::string_view protocol) {
    return protocol == "UDP" ? FlowDescription::Kind::udp : FlowDescription::Kind::tcp;
}

class FilterTest : public testing::Test {
protected:
    Flow flow(const Process& process, std::string_view protocol, RemoteEndpoint endpoint,
              bool isSocketFlow = true) {
        return Flow({.kind = kindOf(protocol),
                     .remoteEndpoint = std::move(endpoint),
                     .signingIdentifier = process.signingIdentifier,
                     .auditToken = process.auditToken(),
                     .isSocketFlow = isSocketFlow});
    }
    NEFilterNewFlowVerdict offer(const Flow& offered) {
        return world.filter()->handleNewFlow(offered.filterFlow());
    }
    NEFilterDataVerdict data(const Flow& shown, std::int64_t offset, std::size_t length) {
        return world.filter()->handleOutboundData(shown.filterFlow(), offset,
                                                  Data(std::string(length, 'x')));
    }
    testing::AssertionResult filterLogIs(const std::vector<ExpectedLine>& expected) {
        return linesAre(world.takeLog(category), expected);
    }

    World world;
    FlowKillCoordinator& coordinator = FlowKillCoordinator::shared();
    const Process app = world.application("App", "com.example.App");
    const NWHostEndpoint web{"203.0.113.9", "443"};
};

TEST_F(FilterTest, StartAsksForEveryFlowAndReportsTheOutcome) {
    const auto started = world.startFilter();
    EXPECT_FALSE(started.hasCome());
    world.runUntilIdle();
    EXPECT_TRUE(started.succeeded());
    const auto settings = world.providers.filterSettings.inForce();
    ASSERT_TRUE(settings);
    EXPECT_TRUE(settings->rules.empty());
    EXPECT_EQ(settings->defaultAction, platform::NEFilterAction::filterData);

    const platform::NSError refused{"test", 7, "not now"};
    world.providers.filterSettings.script({refused, refused});
    EXPECT_TRUE(filterLogIs(
        {info("Filter provider started"), info("Filter settings applied (default: filterData)")}));
    const auto failed = world.startFilter();
    world.runUntilIdle();
    EXPECT_EQ(failed.error(), refused);
    EXPECT_TRUE(filterLogIs(
        {info("Filter provider started"), error("Failed to apply filter settings: not now")}));

    // The platform gets its answer also when the provider has gone meanwhile.
    const auto orphaned = world.startFilter();
    world.providers.letGoOfFilter();
    world.runUntilIdle();
    EXPECT_EQ(orphaned.error(), refused);
    EXPECT_TRUE(filterLogIs({info("Filter provider started")}));
}

TEST_F(FilterTest, StopLogsTheReasonAndTouchesNothingShared) {
    coordinator.updateBlockedApps({"com.example.App"});
    const auto stopped = world.stopFilter(platform::NEProviderStopReason::superceded);
    EXPECT_TRUE(stopped.succeeded());
    EXPECT_TRUE(filterLogIs({info("Filter provider stopped, reason: 9")}));
    EXPECT_TRUE(coordinator.shouldBlockFlow("com.example.App"));
}

// The coordinator's state by the answers that the filter gets from it, and the verdict on a TCP flow.
TEST_F(FilterTest, NewFlowsByTheCoordinatorsState) {
    struct Case {
        bool hasState, isBlocked, isMonitored, isVpnDownWithBlock;
        NEFilterNewFlowVerdict verdict;
        std::vector<ExpectedLine> lines;
    };
    const auto uninitialized = info("DROP (uninitialized): com.example.App");
    const auto blocked = info("BLOCK: com.example.App TCP -> 203.0.113.9:443");
    const auto vpnBlocked = info("VPN BLOCK: com.example.App TCP -> 203.0.113.9:443");
    const auto monitoring = debug("MONITORING flow: com.example.App");
    const std::vector<Case> cases{
        {false, false, true, false, drop, {uninitialized}},
        {false, true, true, false, drop, {uninitialized}},
        {false, true, false, false, drop, {blocked}},
        {false, false, false, false, allow, {}},
        {true, true, false, false, drop, {blocked}},
        {true, true, true, false, drop, {blocked}},
        {true, true, true, true, drop, {blocked}},
        {true, false, true, true, drop, {vpnBlocked}},
        {true, false, true, false, watch, {monitoring}},
        {true, false, false, true, allow, {}},
        {true, false, false, false, allow, {}},
    };
    for (std::size_t n = 0; n < cases.size(); ++n) {
        const auto& test = cases[n];
        coordinator.resetState();
        if (test.hasState) coordinator.updateVpnState(!test.isVpnDownWithBlock, "block");
        if (test.isBlocked) coordinator.updateBlockedApps({"com.example.App"});
        if (test.isMonitored) coordinator.updateMonitoredApps({"com.example.App"});
        world.takeLog();
        EXPECT_EQ(offer(flow(app, "TCP", web)), test.verdict) << "row " << n;
        EXPECT_TRUE(filterLogIs(test.lines)) << "row " << n;
    }
}

// A flow of a blocked application, and of a watched one while the VPN is down with fallback "block".
TEST_F(FilterTest, DropsByKindOfFlow) {
    struct Branch {
        NEFilterNewFlowVerdict verdict;
        const char* line;  // null: silent
        std::optional<std::uint16_t> recordedPort;
    };
    struct Case {
        const char* protocol;
        bool isSocketFlow;
        RemoteEndpoint endpoint;
        Branch blocked, vpn;
    };
    const Branch silent{allow, nullptr, std::nullopt};
    const auto host = [](const char* port) { return NWHostEndpoint{"h.example", port}; };
    const std::vector<Case> cases{
        {"TCP",
         false,
         host("80"),
         {drop, "BLOCK: com.example.App (non-socket flow)", {}},
         {drop, "VPN BLOCK: com.example.App", {}}},
        {"UDP", true, host("53"), silent, silent},
        {"UDP",
         true,
         host("443"),
         {drop, "BLOCK: com.example.App UDP -> h.example:443", 443},
         {drop, "VPN BLOCK: com.example.App UDP -> h.example:443", 443}},
        {"UDP",
         true,
         host("5353"),
         {drop, "BLOCK: com.example.App UDP -> h.example:5353", 5353},
         silent},
        {"UDP",
         true,
         host("053"),
         {drop, "BLOCK: com.example.App UDP -> h.example:053", 53},
         silent},
        {"UDP", true, std::monostate{}, {drop, "BLOCK: com.example.App UDP -> ?:?", {}}, silent},
        {"UDP", true, NWOtherEndpoint{}, {drop, "BLOCK: com.example.App UDP -> ?:?", {}}, silent},
        {"TCP",
         true,
         host("53"),
         {drop, "BLOCK: com.example.App TCP -> h.example:53", 53},
         {drop, "VPN BLOCK: com.example.App TCP -> h.example:53", 53}},
        {"TCP",
         true,
         host("70000"),
         {drop, "BLOCK: com.example.App TCP -> h.example:70000", 0},
         {drop, "VPN BLOCK: com.example.App TCP -> h.example:70000", 0}},
        {"TCP",
         true,
         host(""),
         {drop, "BLOCK: com.example.App TCP -> h.example:", 0},
         {drop, "VPN BLOCK: com.example.App TCP -> h.example:", 0}},
        {"TCP",
         true,
         std::monostate{},
         {drop, "BLOCK: com.example.App TCP -> ?:?", {}},
         {drop, "VPN BLOCK: com.example.App TCP -> ?:?", {}}},
    };
    for (const bool isBlocked : {true, false}) {
        coordinator.updateMonitoredApps({"com.example.App"});
        coordinator.updateBlockedApps(isBlocked ? BundleIdSet{"com.example.App"} : BundleIdSet{});
        coordinator.updateVpnState(false, "block");
        for (std::size_t n = 0; n < cases.size(); ++n) {
            const auto& test = cases[n];
            const auto& expected = isBlocked ? test.blocked : test.vpn;
            const auto where = "row " + std::to_string(n) + (isBlocked ? " blocked" : " vpn");
            world.takeLog();
            EXPECT_EQ(offer(flow(app, test.protocol, test.endpoint, test.isSocketFlow)),
                      expected.verdict)
                << where;
            EXPECT_TRUE(filterLogIs(expected.line ? std::vector{info(expected.line)}
                                                  : std::vector<ExpectedLine>{}))
                << where;
            const auto records = coordinator.drainQuicBlocks();
            ASSERT_EQ(records.size(), expected.recordedPort ? 1u : 0u) << where;
            if (!expected.recordedPort) continue;
            const auto& record = records.front();
            EXPECT_EQ(record.bundleId, "com.example.App");
            EXPECT_EQ(record.appName, "App");
            EXPECT_EQ(record.routingDecision, isBlocked ? "block" : "vpn");
            EXPECT_EQ(record.actualRoute, "blocked");
            EXPECT_EQ(record.sourceIp, std::nullopt);
            EXPECT_EQ(record.destinationIp, "h.example");
            EXPECT_EQ(record.destinationPort, expected.recordedPort) << where;
            EXPECT_EQ(record.protocolType,
                      std::string_view(test.protocol) == "UDP" ? "udp" : "tcp");
            EXPECT_FALSE(record.isVpnConnected);
            EXPECT_EQ(record.timestamp, platform::Date::now());
        }
    }
}

TEST_F(FilterTest, AWatchedAppLosesItsDnsWhileThereIsNoState) {
    coordinator.updateMonitoredApps({"com.example.App"});
    EXPECT_EQ(offer(flow(app, "UDP", NWHostEndpoint{"h", "53"})), drop);
    coordinator.updateVpnState(true, "block");
    EXPECT_EQ(offer(flow(app, "UDP", NWHostEndpoint{"h", "53"})), watch);
}

TEST_F(FilterTest, OutboundBytesByTheCoordinatorsState) {
    const auto tcp = flow(app, "TCP", web);
    const auto quic = flow(app, "UDP", web);
    const auto dns = flow(app, "UDP", NWHostEndpoint{"h", "53"});
    const auto nonSocket = flow(app, "UDP", web, false);
    const auto pass = [](std::size_t bytes) { return NEFilterDataVerdict::dataVerdict(bytes, 1); };
    const auto dropData = NEFilterDataVerdict::dropVerdict();

    coordinator.updateMonitoredApps({"com.example.App"});
    coordinator.updateVpnState(true, "block");
    world.takeLog();
    EXPECT_EQ(data(tcp, 0, 1), pass(1));
    EXPECT_EQ(data(tcp, 5000, 1400), pass(1400));
    EXPECT_EQ(data(quic, 7, 0), pass(0));
    coordinator.updateVpnState(false, "allow");
    EXPECT_EQ(data(tcp, 1, 2), pass(2));
    EXPECT_TRUE(filterLogIs({}));

    coordinator.updateVpnState(false, "block");
    EXPECT_EQ(data(tcp, 10, 5), dropData);
    EXPECT_EQ(data(dns, 11, 5), dropData);  // also what a new flow would have kept
    EXPECT_EQ(data(nonSocket, 12, 5), dropData);
    EXPECT_TRUE(coordinator.drainQuicBlocks().empty());
    EXPECT_EQ(data(quic, 13, 5), dropData);
    EXPECT_TRUE(filterLogIs({info("VPN FALLBACK DROP: com.example.App offset=10"),
                             info("VPN FALLBACK DROP: com.example.App offset=11"),
                             info("VPN FALLBACK DROP: com.example.App offset=12"),
                             info("QUIC BLOCK (deferred): com.example.App -> 203.0.113.9:443")}));
    const auto records = coordinator.drainQuicBlocks();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].routingDecision, "vpn");
    EXPECT_EQ(records[0].destinationPort, 443);
    EXPECT_EQ(records[0].protocolType, "udp");
    EXPECT_EQ(records[0].destinationIp, "203.0.113.9");

    coordinator.updateBlockedApps({"com.example.App"});
    world.takeLog();
    EXPECT_EQ(data(quic, 20, 1), dropData);
    coordinator.updateBlockedApps({});
    coordinator.updateMonitoredApps({});
    EXPECT_EQ(data(tcp, 21, 1), dropData);
    coordinator.resetState();
    EXPECT_EQ(data(quic, 22, 1), dropData);
    EXPECT_TRUE(filterLogIs({info("BLOCK DROP (existing flow): com.example.App offset=20"),
                             info("DROP stale VPN flow: com.example.App offset=21"),
                             info("DROP stale VPN flow: com.example.App offset=22")}));
    EXPECT_TRUE(coordinator.drainQuicBlocks().empty());
}

TEST_F(FilterTest, WhatItCannotAttributePasses) {
    coordinator.updateVpnState(true, "allow");
    const auto tool = world.process({.path = "/usr/bin/tool"});
    const auto describe = [&](std::optional<Data> token) {
        return Flow({.kind = FlowDescription::Kind::tcp,
                     .remoteEndpoint = web,
                     .signingIdentifier = {},
                     .auditToken = std::move(token),
                     .isSocketFlow = true});
    };
    const auto noToken = describe(std::nullopt);
    const auto shortToken = describe(Data(std::string(31, 'x')));
    const auto bare = describe(tool.auditToken());
    const auto gone = describe(makeAuditToken(501, 999'999));
    world.takeLog();
    for (const auto& unknown : {noToken, shortToken, bare, gone}) {
        EXPECT_EQ(offer(unknown), allow);
        EXPECT_EQ(data(unknown, 0, 1), NEFilterDataVerdict::allowVerdict());
    }
    const auto allowing = debug("handleNewFlow: no bundleId resolved, allowing");
    const auto toolLine =
        debug("pid=" + std::to_string(tool.pid) + " path=/usr/bin/tool bundleId=nil");
    const auto goneLine = debug("pid=999999 path=<no path> bundleId=nil");
    EXPECT_TRUE(
        filterLogIs({debug("No auditToken on flow"), allowing, debug("No auditToken on flow"),
                     debug("auditToken parse failed, size=31"), allowing,
                     debug("auditToken parse failed, size=31"), toolLine, allowing, toolLine,
                     goneLine, allowing, goneLine}));
}

class FilterIdentityTest : public FilterTest {
protected:
    // The application that the filter takes a process for, read off the line of a blocked flow.
    std::string resolved(const Process& process) {
        world.takeLog();
        offer(flow(process, "TCP", web));
        for (const auto& line : world.takeLog(category))
            if (line.format == "BLOCK: %{public}s %s -> %{public}s:%s") return line.arguments[0];
        return "";
    }
};

TEST_F(FilterIdentityTest, PrefersTheOwnBundleThenTheNearestKnownAncestorThenTheOwnBundle) {
    const auto grandparent = world.application("Grand", "com.example.Grand");
    const auto parent = world.process({.path = "/bin/sh", .parent = grandparent.pid});
    world.bundle("/Applications/Child.app", "com.example.Child");
    const auto child = [&](int version) {
        return world.process({.path = "/Applications/Child.app/c",
                              .parent = parent.pid,
                              .version = static_cast<std::uint32_t>(version)});
    };
    const auto bare = world.process({.path = "/bin/tool", .parent = parent.pid});

    // Below a member, through a mapping, or as a member: the candidate itself is the answer.
    coordinator.updateBlockedApps({"com.example"});
    EXPECT_EQ(resolved(child(1)), "com.example.Child");
    coordinator.updateBlockedApps({"com.example.Grand"});
    const auto viaTree = child(2);
    world.takeLog();
    EXPECT_EQ(offer(flow(viaTree, "TCP", web)), drop);
    EXPECT_TRUE(
        filterLogIs({debug("Resolved com.example.Child -> com.example.Grand via process tree"),
                     info("BLOCK: com.example.Grand TCP -> 203.0.113.9:443")}));
    EXPECT_EQ(offer(flow(bare, "TCP", web)), drop);
    EXPECT_TRUE(filterLogIs({debug("Resolved pid:" + std::to_string(bare.pid) +
                                   " -> com.example.Grand via process tree"),
                             info("BLOCK: com.example.Grand TCP -> 203.0.113.9:443")}));
    coordinator.registerChildProcess("com.example.Grand", "mapped");
    coordinator.updateBlockedApps({"mapped"});
    EXPECT_EQ(resolved(child(3)), "com.example.Grand");
}

TEST_F(FilterIdentityTest, ACachedAnswerStandsWhateverTheSetsSayLater) {
    const auto parent = world.application("Parent", "com.example.Parent");
    world.bundle("/Applications/Child.app", "com.example.Child");
    const auto child = world.process({.path = "/Applications/Child.app/c", .parent = parent.pid});
    const auto unknown = flow(child, "TCP", web);
    EXPECT_EQ(offer(unknown), allow);  // its own bundle, unknown to the rules, is cached too
    world.processes.forgetQuestions();
    coordinator.updateBlockedApps({"com.example.Parent"});
    EXPECT_EQ(offer(unknown), allow);
    EXPECT_EQ(world.processes.questions(), 0u);
    coordinator.updateBlockedApps({"com.example.Child"});
    EXPECT_EQ(offer(unknown), drop);

    // What found nothing is looked up again.
    const auto tool = world.process({.path = "/bin/tool"});
    EXPECT_EQ(offer(flow(tool, "TCP", web)), allow);
    world.processes.setParent(tool.pid, child.pid);
    EXPECT_EQ(offer(flow(tool, "TCP", web)), drop);
}

TEST_F(FilterIdentityTest, AFullCacheGoesAtOnceBeforeTheNextStore) {
    const auto ask = [&](std::uint32_t version) {
        auto process = app;
        process.version = version;
        world.processes.forgetQuestions();
        offer(flow(process, "TCP", web));
        return world.processes.questions() > 0;  // it was not in the cache
    };
    for (std::uint32_t version = 1; version <= 1000; ++version) ASSERT_TRUE(ask(version));
    EXPECT_FALSE(ask(1));
    EXPECT_FALSE(ask(1000));
    EXPECT_TRUE(ask(1001));
    EXPECT_FALSE(ask(1001));
    EXPECT_TRUE(ask(1000));
}

}  // namespace
}  // namespace vantry
