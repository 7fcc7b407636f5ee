#include "Tests/Extension/TransparentProxyProvider/ProxyTest.h"

namespace vantry {
namespace {

class IdentityTest : public ProxyTest {
protected:
    void SetUp() override { ASSERT_TRUE(world.start()); }

    // The identifier that a TCP flow is routed by; empty if the flow is left alone before that.
    std::string routedBy(const std::string& signingIdentifier,
                         std::optional<Data> auditToken = {}) {
        return routed(signingIdentifier, std::move(auditToken)).bundleId;
    }
};

TEST_F(IdentityTest, SystemProcessesAreLeftAloneByAccountOrWithoutATokenByName) {
    const Data malformed(std::string(31, 'x'));
    struct Case {
        const char* signingIdentifier;
        std::optional<Data> auditToken;
        bool isSystem;
    };
    const std::vector<Case> cases{
        {"", std::nullopt, true},
        {"", makeAuditToken(501, 7), true},
        {"com.acme", makeAuditToken(0, 7), true},
        {"com.acme", makeAuditToken(499, 7), true},
        {"com.acme", makeAuditToken(500, 7), false},
        {"com.apple.trustd", makeAuditToken(501, 7), false},  // the account alone decides
        {"com.apple.trustd", std::nullopt, true},
        {"com.apple.trustd.agent", malformed, true},
        {"com.apple.trustdaemon", malformed, true},
        {"com.apple.apsd", std::nullopt, true},
        {"com.apple.Safari", std::nullopt, false},
        {"xcom.apple.trustd", std::nullopt, false},
    };
    for (const auto& test : cases)
        EXPECT_EQ(routed(test.signingIdentifier, test.auditToken).decision,
                  test.isSystem ? "" : "vpn")
            << test.signingIdentifier;
}

TEST_F(IdentityTest, VpnClientsPassEvenWhenBlocked) {
    changeRules(R"({"rules":{"com.wireguard.macos":"direct"},"blockedApps":["a.b.c"]})");
    EXPECT_EQ(routedBy("com.wireguard.macosx"), "com.wireguard.macosx");
    EXPECT_EQ(routedBy("a.b.c"), "a.b.c");
    for (const auto* name : {"com.wireguard.macos", "com.wireguard.macos.network-extension"})
        EXPECT_EQ(routedBy(name, makeAuditToken(501, 7)), "") << name;

    // What the machine's own VPN configurations name is protected too, from the next discovery on.
    world.preferences.setTunnelProviders({"a.b.c.tunnel", "single", "x.y", "..p..q.."});
    world.wake();
    world.runUntilIdle();
    for (const auto* name : {"a.b.c", "a.b.c.helper", "x", "x.z", "p"})
        EXPECT_EQ(routedBy(name), "") << name;
    EXPECT_EQ(routedBy("a.b"), "a.b");

    // A failed load, and one without those configurations, take nothing back.
    world.preferences.failTunnelManagers({"test", 1, "no list"});
    world.wake();
    world.runUntilIdle();
    world.preferences.setTunnelProviders({});
    world.wake();
    world.runUntilIdle();
    EXPECT_EQ(routedBy("a.b.c"), "");
    // Nor does an answer that finds the provider gone do anything.
    world.preferences.setTunnelProviders({"p.q.r"});
    world.wake();
    world.takeLog();
    world.providers.letGoOfProxy();
    world.runToEnd();
    EXPECT_TRUE(proxyLogIs({}));
}

TEST_F(IdentityTest, ANameIsFoundByStrippingTrailingComponents) {
    struct Case {
        std::string rules, signingIdentifier, resolved;
    };
    const std::vector<Case> cases{
        {R"({"rules":{"a.b.c":"vpn"}})", "a.b.c.d.e", "a.b.c"},
        {R"({"rules":{"a.b":"vpn"}})", "a.b.c.d.e", "a.b"},
        {R"({"rules":{"a":"vpn"}})", "a.b.c", "a.b.c"},
        {R"({"rules":{"a.b":"vpn","a.b.c":"vpn"}})", "a.b.c.d", "a.b.c"},
        {R"({"rules":{"a.b.c":"vpn"},"blockedApps":["a.b.c.d"]})", "a.b.c.d.e", "a.b.c.d"},
        {R"({"rules":{"a.b":"vpn"}})", "a..b.c.", "a.b"},
        {R"({"rules":{"com.apple.WebKit":"vpn"}})", "com.apple.WebKit.Networking",
         "com.apple.WebKit"},
        {R"({"rules":{}})", "a.b.c.d", "a.b.c.d"},
    };
    for (const auto& test : cases) {
        changeRules(R"({"rules":{},"blockedApps":[]})");
        changeRules(test.rules);
        EXPECT_EQ(routedBy(test.signingIdentifier), test.resolved)
            << test.signingIdentifier << " under " << test.rules;
    }
}

TEST_F(IdentityTest, ANameIsFoundAmongTheAncestorsAndRemembered) {
    changeRules(R"({"rules":{"com.example.Host":"vpn"}})");
    const auto host = world.application("Host", "com.example.Host");
    const auto shell = world.process({.path = "/bin/sh", .parent = host.pid});
    const auto tool = world.process({.path = "/bin/tool", .parent = shell.pid});
    world.takeLog();
    offer("tool", tool.auditToken());
    EXPECT_TRUE(logHolds(
        world, {debug("Resolved tool -> com.example.Host via process tree", proxyCategory)}));

    // The answer is cached per token, only if it came from a walk, and outlives the rule.
    world.processes.forgetQuestions();
    EXPECT_EQ(routedBy("tool", tool.auditToken()), "com.example.Host");
    EXPECT_EQ(world.processes.questions(), 1u);  // the child mapping's own look-up
    changeRules(R"({"rules":{}})");
    EXPECT_EQ(routedBy("tool", tool.auditToken()), "com.example.Host");
    world.wake();
    EXPECT_EQ(routedBy("tool", tool.auditToken()), "tool");
    // A rule under the identifier itself goes before what the cache holds.
    changeRules(R"({"rules":{"com.example.Host":"vpn"}})");
    EXPECT_EQ(routedBy("tool", tool.auditToken()), "com.example.Host");
    changeRules(R"({"rules":{"com.example.Host":"vpn","tool":"direct"}})");
    EXPECT_EQ(routedBy("tool", tool.auditToken()), "tool");
}

TEST_F(IdentityTest, TheCoordinatorLearnsUnderWhichNameABundleIsKnown) {
    changeRules(R"({"rules":{"com.example.Host":"vpn"},"blockedApps":["com.blocked"]})");
    const auto host = world.application("Host", "com.example.Host");
    world.bundle("/Applications/Host.app/Contents/XPCServices/S.xpc", "com.example.other");
    const auto service = world.process({.path = "/opt/S.xpc/S", .parent = host.pid});
    world.bundle("/opt/S.xpc", "net.service");
    EXPECT_FALSE(coordinator.shouldMonitorFlow("net.service"));
    // Datagram flows teach it too.
    offer("net.service", service.auditToken(), NWOtherEndpoint{}, FlowDescription::Kind::udp);
    EXPECT_TRUE(coordinator.shouldMonitorFlow("net.service"));

    // The resolver found nothing: the mapping is to the signing identifier itself.
    const auto loose = world.process({.path = "/opt/S.xpc/S"});
    offer("com.blocked", loose.auditToken());
    EXPECT_TRUE(coordinator.shouldBlockFlow("net.service"));

    // No mapping without a token, without a bundle, or where both names agree.
    world.takeLog();
    offer("x.y");
    offer("x.y", world.process({.path = "/bin/x"}).auditToken());
    offer("com.example.Host", host.auditToken());
    EXPECT_TRUE(world.log("FlowKillCoordinator").empty());
}

}  // namespace
}  // namespace vantry
