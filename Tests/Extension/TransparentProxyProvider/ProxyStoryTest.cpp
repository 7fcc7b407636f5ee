// Whole stories of both providers: an application that is moved between the routes while its flows are
// open, a VPN that falls and rises, and random mixtures of everything with invariants in place of exact
// sequences.

#include <algorithm>
#include <array>
#include <set>

#include "Extension/ipc/ActivityLogResponseIPC.h"
#include "Tests/Extension/TransparentProxyProvider/ProxyProbe.h"
#include "Tests/Extension/TransparentProxyProvider/ProxyTest.h"

namespace vantry {

namespace {

using platform::NSError;
using platform::NWHostEndpoint;
using platform::NWInterface;
using platform::simulated::Flow;
using platform::simulated::FlowDescription;
using platform::simulated::holdsForSeeds;
using platform::simulated::Options;
using platform::simulated::Order;
using platform::simulated::Process;
using platform::simulated::World;

const NSError reset{platform::NEAppProxyErrorDomain, platform::NEAppProxyFlowErrorPeerReset,
                    "The application's peer reset the flow"};
const NSError refused{"test", 1, "no"};

class ProxyStory : public ProxyTest {
protected:
    void SetUp() override {
        world.setPath({{"en0", NWInterface::InterfaceType::wifi}});
        putRules(R"({"rules":{},"blockedApps":[]})");
        ASSERT_TRUE(world.start());
    }
    Flow open(const char* port = "443", FlowDescription::Kind kind = FlowDescription::Kind::tcp) {
        auto flow = world.flow({.kind = kind,
                                .remoteEndpoint = NWHostEndpoint{"h", port},
                                .signingIdentifier = app.signingIdentifier,
                                .auditToken = app.auditToken()});
        world.offer(flow);
        world.runUntilIdle();
        return flow;
    }
    bool survivesItsNextByte(Flow& flow) {
        world.outbound(flow, "x");
        world.runUntilIdle();
        return !flow.isEnded();
    }

    const Process app = world.application("App", "com.example.App");
};

TEST_F(ProxyStory, AnApplicationIsMovedFromRouteToRouteWithItsFlowsOpen) {
    const auto rule = [](const char* word, const char* blocked) {
        return std::string(R"({"rules":{"com.example.App":")") + word + R"("},"blockedApps":[)" +
               blocked + "]}";
    };
    changeRules(rule("direct", ""));
    auto direct = open();
    EXPECT_TRUE(direct.isClaimed());
    EXPECT_TRUE(direct.lastOffer().allowed());

    changeRules(rule("vpn", ""));
    world.advance(1);
    EXPECT_TRUE(direct.isClosedOnceWith(reset));
    auto watched = open();
    EXPECT_FALSE(watched.isClaimed());
    EXPECT_TRUE(watched.lastOffer().watched());
    EXPECT_TRUE(survivesItsNextByte(watched));

    changeRules(rule("direct", ""));
    EXPECT_FALSE(survivesItsNextByte(watched));
    auto directAgain = open();
    EXPECT_TRUE(directAgain.isClaimed());

    changeRules(rule("direct", R"("com.example.App")"));
    world.advance(1);
    EXPECT_TRUE(directAgain.isClosedOnceWith(reset));
    EXPECT_TRUE(open().lastOffer().dropped());
    EXPECT_TRUE(open("53", FlowDescription::Kind::udp).lastOffer().allowed());

    changeRules(rule("direct", ""));
    EXPECT_TRUE(open().isClaimed());
}

TEST_F(ProxyStory, TheVpnFallsAndRisesUnderEachFallback) {
    const auto vpn = [](bool isUp, const char* fallback) {
        return std::string(R"({"rules":{"com.example.App":"vpn"},"vpnConnected":)") +
               (isUp ? "true" : "false") + R"(,"vpnFallback":")" + fallback + "\"}";
    };
    changeRules(vpn(true, "allow"));
    auto stream = open();
    auto quic = open("443", FlowDescription::Kind::udp);
    EXPECT_TRUE(stream.lastOffer().watched() && quic.lastOffer().watched());
    changeRules(vpn(false, "allow"));
    EXPECT_TRUE(survivesItsNextByte(stream));
    EXPECT_TRUE(open().lastOffer().watched());
    changeRules(vpn(false, "block"));
    EXPECT_FALSE(survivesItsNextByte(stream));
    EXPECT_FALSE(survivesItsNextByte(quic));
    EXPECT_TRUE(open().lastOffer().dropped());
    EXPECT_TRUE(open("53", FlowDescription::Kind::udp).lastOffer().allowed());
    EXPECT_TRUE(open("443", FlowDescription::Kind::udp).lastOffer().dropped());
    changeRules(vpn(true, "block"));
    EXPECT_TRUE(open().lastOffer().watched());
}

TEST_F(ProxyStory, AStopWithKillsPendingAndThenANewStart) {
    changeRules(R"({"rules":{"com.example.App":"direct"}})");
    std::vector<Flow> old{open(), open(), open()};
    changeRules(R"({"rules":{"com.example.App":"vpn"}})");
    changeRules(R"({"rules":{"com.example.App":"direct"}})");
    auto kept = open();
    world.stopProxy();
    ASSERT_TRUE(world.start());
    auto fresh = open();
    world.runToEnd();
    for (const auto& flow : old) EXPECT_TRUE(flow.isClosedOnceWith(reset));
    EXPECT_TRUE(kept.isClosedOnceCleanly());
    EXPECT_FALSE(fresh.isClosed());
    EXPECT_EQ(ProxyProbe(*world.proxy()).sessions(), 1u);
}

TEST_F(ProxyStory, TheInterfaceIsLostAndFound) {
    changeRules(R"({"rules":{"com.example.App":"direct"},"directFallback":"block"})");
    auto before = open();
    world.setPath({{"utun0", NWInterface::InterfaceType::other}});
    world.runUntilIdle();
    auto without = open();
    EXPECT_TRUE(without.isClaimed());
    EXPECT_TRUE(without.isClosedOnceCleanly());
    changeRules(R"({"rules":{"com.example.App":"direct"},"directFallback":"vpn"})");
    EXPECT_FALSE(open().isClaimed());
    EXPECT_FALSE(before.isClosed());
    world.setPath({{"en1", NWInterface::InterfaceType::wiredEthernet}});
    world.runUntilIdle();
    open();
    EXPECT_EQ(world.network.connections().back()->requiredInterface()->name(), "en1");
}

TEST_F(ProxyStory, AFlushShowsADeclinedFlowOnceMore) {
    auto flow = open();
    EXPECT_TRUE(flow.lastOffer().allowed());
    EXPECT_EQ(flow.offers().size(), 1u);
    changeRules(R"({"rules":{},"blockedApps":["com.example.App"]})");
    EXPECT_FALSE(survivesItsNextByte(flow));
    EXPECT_EQ(flow.offers().size(), 2u);
    EXPECT_TRUE(flow.lastOffer().dropped());
}

TEST_F(ProxyStory, AfterAStopNewFlowsPassAndWatchedOnesDieAtTheirNextByte) {
    changeRules(R"({"rules":{"com.example.App":"vpn"},"blockedApps":["com.example.Bad"]})");
    auto watched = open();
    world.stopProxy();
    EXPECT_FALSE(survivesItsNextByte(watched));
    EXPECT_TRUE(world.offerToFilter(open()).allowed());
    ASSERT_TRUE(world.start());
    EXPECT_TRUE(open().lastOffer().watched());
}

// A mixture of everything that can happen, drawn from the seed.
class Mixture {
public:
    explicit Mixture(World& simulated) : world(simulated) {
        for (const auto* name : {"A", "B", "C"})
            apps.push_back(world.application(name, std::string("com.example.") + name));
        apps.push_back(world.process(
            {.path = "/bin/tool", .parent = apps[0].pid, .signingIdentifier = "tool"}));
        apps.push_back(world.process(
            {.path = "/sbin/daemon", .effectiveUserId = 0, .signingIdentifier = "daemon"}));
        for (int port = 1; port <= 4; ++port) {
            auto peer = world.peer("h", static_cast<std::uint16_t>(port));
            if (port == 1) peer.echoes();
            if (port == 2) peer.isUnreachable();
            if (port == 3) peer.waits(2);
        }
    }

    void prepare() {
        world.files.put(rulesFile, anyFile());
        world.preferences.setProviderConfiguration(anyRules());
        world.setPath({{"en0", NWInterface::InterfaceType::wifi}});
        world.startFilter();
        world.startProxy();
        isRunning = true;
    }
    void step() {
        switch (world.draw(16)) {
            case 0:
                return changeRules();
            case 1:
                return changeRulesAndCheckTheSets();
            case 2:
                return world.setPath(anyPath());
            case 3:
                world.message(std::array{R"({"type":"getStatus"})", R"({"type":"getActiveApps"})",
                                         R"({"type":"clearActivityLog"})",
                                         R"({"type":"reload","rules":{"com.example.A":"direct"}})",
                                         "nonsense"}[world.draw(5)]);
                return;
            case 4:
                world.providers.proxySettings.script({refused});
                return;
            case 5:
                world.sleep();
                world.wake();
                return;
            case 6:
                if (world.draw(4) != 0) return;
                world.stopProxy();
                isRunning = world.draw(4) != 0;
                if (isRunning) world.startProxy();
                return;
            case 7:
            case 8:
                return useAFlow();
            default:
                return openAFlow();
        }
    }
    void finish() {
        world.stopProxy();
        world.runToEnd();
    }

    // What holds at the end, when nothing is under way any more and the proxy has stopped.
    void checkEnd() {
        const ProxyProbe proxy(*world.proxy());
        EXPECT_EQ(proxy.sessions(), 0u);
        EXPECT_FALSE(proxy.isFlushing());
        EXPECT_LE(proxy.logLength(), 500u);
        for (const auto& flow : flows) {
            const auto record = flow.record();
            EXPECT_LE(record.opens, 1);
            if (!flow.isClaimed()) continue;
            EXPECT_TRUE(flow.isClosedOnceCleanly() || flow.isClosedOnceWith(reset));
        }
        const auto after = world.flow({.remoteEndpoint = NWHostEndpoint{"h", "1"},
                                       .signingIdentifier = apps[0].signingIdentifier,
                                       .auditToken = apps[0].auditToken()});
        EXPECT_TRUE(world.offerToFilter(after).allowed());
        if (const auto log = world.files.contents(activityLogFile)) {
            EXPECT_TRUE(std::holds_alternative<ActivityLogResponseIPC>(
                ActivityLogResponseIPC::decode(*log)));
        }
    }
    // What holds between any two events.
    void checkNow() {
        const ProxyProbe proxy(*world.proxy());
        EXPECT_LE(proxy.logLength(), 500u);
        std::size_t open = 0;
        for (const auto& flow : flows)
            if (flow.isClaimed() && !flow.isClosed()) ++open;
        EXPECT_LE(proxy.sessions(), open);
    }

    // Once every kill's slot and every wait has passed, the table holds exactly the sessions that live.
    void checkTable() {
        world.advance(90);
        const auto live = std::ranges::count_if(
            flows, [](const Flow& flow) { return flow.isClaimed() && !flow.isClosed(); });
        const ProxyProbe proxy(*world.proxy());
        EXPECT_EQ(proxy.sessions(), static_cast<std::size_t>(live));
    }

private:
    std::string anyFile() { return world.draw(10) == 0 ? "not json" : anyRules(); }
    std::string anyRules() {
        static constexpr std::array words{"direct", "vpn", "block", "odd"};
        const auto anyWord = [&] { return std::string(words[world.draw(words.size())]); };
        const auto flag = [&](const char* name, std::string value) {
            return world.draw(2) ? std::string(",\"") + name + "\":" + value : std::string();
        };
        std::string rules, blocked;
        for (const auto* name : {"A", "B", "C"}) {
            if (world.draw(3) != 0)
                rules += std::string(rules.empty() ? "" : ",") + "\"com.example." + name + "\":\"" +
                         anyWord() + "\"";
            if (world.draw(5) == 0)
                blocked += std::string(blocked.empty() ? "" : ",") + "\"com.example." + name + "\"";
        }
        return "{\"rules\":{" + rules + "}" + flag("defaultAction", "\"" + anyWord() + "\"") +
               flag("vpnConnected", world.draw(2) ? "true" : "false") +
               flag("vpnFallback", world.draw(2) ? "\"block\"" : "\"allow\"") +
               flag("directFallback", world.draw(2) ? "\"block\"" : "\"vpn\"") +
               ",\"blockedApps\":[" + blocked + "]}";
    }
    std::vector<NWInterface> anyPath() {
        if (world.draw(3) == 0) return {{"utun0", NWInterface::InterfaceType::other}};
        return {{world.draw(2) ? "en0" : "en1", NWInterface::InterfaceType::wifi}};
    }
    void changeRules() {
        world.files.put(rulesFile, anyFile());
        world.post(rulesChanged);
    }
    // The coordinator's sets are what the provider's fields say after a delivery, whatever the load did.
    void changeRulesAndCheckTheSets() {
        world.runUntilIdle();
        changeRules();
        world.runUntilIdle();
        if (!isRunning) return;
        const ProxyProbe proxy(*world.proxy());
        const auto rules = proxy.rules();
        const auto blocked = proxy.blocked();
        const auto& coordinator = FlowKillCoordinator::shared();
        for (const auto* name : {"com.example.A", "com.example.B", "com.example.C"}) {
            const auto rule = rules->find(name);
            const bool isRouted = rule != rules->end() && rule->second != "direct";
            EXPECT_EQ(coordinator.shouldBlockFlow(name), blocked->contains(name)) << name;
            EXPECT_EQ(coordinator.shouldMonitorFlow(name), isRouted && !blocked->contains(name))
                << name;
        }
    }
    void openAFlow() {
        const auto& app = apps[world.draw(apps.size())];
        auto flow = world.flow(
            {.kind = world.draw(4) ? FlowDescription::Kind::tcp : FlowDescription::Kind::udp,
             .remoteEndpoint = NWHostEndpoint{"h", std::to_string(1 + world.draw(4))},
             .signingIdentifier = app.signingIdentifier,
             .auditToken = app.auditToken()});
        if (world.draw(10) == 0) flow.failsOpening(refused);
        if (world.draw(10) == 0) flow.opensAfter(static_cast<double>(world.draw(20)));
        world.offer(flow);
        flows.push_back(flow);
    }
    void useAFlow() {
        if (flows.empty()) return;
        auto flow = flows[world.draw(flows.size())];
        switch (world.draw(4)) {
            case 0:
                return flow.endsSending();
            case 1:
                return flow.fails(refused);
            default:
                return flow.sends(std::string(world.draw(5000) + 1, 'x'));
        }
    }

    World& world;
    std::vector<Process> apps;
    std::vector<Flow> flows;
    bool isRunning = false;
};

TEST(ProxyExploration, RandomStoriesKeepTheirInvariants) {
    EXPECT_TRUE(holdsForSeeds(1000, [](World& world) {
        Mixture mixture(world);
        world.files.failAtRandom(20);
        world.scheduler.setLatency(0.3);
        mixture.prepare();
        for (int step = 0; step < 80; ++step) {
            mixture.step();
            if (world.draw(2) == 0) world.runUntilIdle();
            if (world.draw(4) == 0) world.advance(static_cast<double>(world.draw(40)) / 10);
            mixture.checkNow();
        }
        mixture.checkTable();
        mixture.finish();
        mixture.checkEnd();
    }));
}

// Flows, messages, notifications, path updates and timers that really overlap; for the thread sanitizer
// above all.
TEST(ProxyExploration, EverythingAtOnceOnThreads) {
    EXPECT_TRUE(holdsForSeeds(
        20,
        [](World& world) {
            std::vector<Process> apps;
            for (const auto* name : {"A", "B", "C"})
                apps.push_back(world.application(name, std::string("com.example.") + name));
            world.peer("h", 1).echoes();
            world.setPath({{"en0", NWInterface::InterfaceType::wifi}});
            world.files.put(rulesFile, R"({"rules":{"com.example.A":"direct"}})");
            ASSERT_TRUE(world.start());
            std::vector<Flow> flows;
            for (int n = 0; n < 300; ++n) {
                const auto& app = apps[world.draw(apps.size())];
                flows.push_back(world.flow({.remoteEndpoint = NWHostEndpoint{"h", "1"},
                                            .signingIdentifier = app.signingIdentifier,
                                            .auditToken = app.auditToken()}));
                world.later(
                    [&world, flow = flows.back()]() mutable {
                        world.offer(flow);
                        flow.sends("hello");
                    },
                    n / 50.0);
            }
            for (int n = 0; n < 60; ++n)
                world.later(
                    [&world, n] {
                        const std::string word = n % 3 == 0 ? "direct" : "vpn";
                        const std::string blocked = n % 4 == 0 ? "\"com.example.B\"" : "";
                        world.files.put(rulesFile, R"({"rules":{"com.example.A":")" + word +
                                                       R"("},"blockedApps":[)" + blocked + "]}");
                        world.post(rulesChanged);
                        world.message(R"({"type":"getActiveApps"})");
                        if (n % 7 == 0) world.message(R"({"type":"clearActivityLog"})");
                        if (n % 9 == 0) world.wake();
                        if (n % 5 == 0) world.setPath({});
                        if (n % 5 == 1) world.setPath({{"en0", NWInterface::InterfaceType::wifi}});
                    },
                    n / 10.0);
            world.runUntilIdle();
            world.stopProxy();
            world.runToEnd();
            const ProxyProbe proxy(*world.proxy());
            EXPECT_EQ(proxy.sessions(), 0u);
            for (const auto& flow : flows) {
                if (!flow.isClaimed()) continue;
                EXPECT_TRUE(flow.isClosedOnceCleanly() || flow.isClosedOnceWith(reset));
            }
        },
        {.order = Order::threads}));
}

}  // namespace
}  // namespace vantry
