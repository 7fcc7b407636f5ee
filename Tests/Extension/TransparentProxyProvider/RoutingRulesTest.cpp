// The decision by itself. A flow's identifier has mostly been resolved to one with a rule of its own
// by the time that its decision is asked for, so the later steps are asked for directly.

#include "Tests/Extension/TransparentProxyProvider/ProxyProbe.h"
#include "Tests/Extension/TransparentProxyProvider/ProxyTest.h"

namespace vantry {
namespace {

using RoutingRulesTest = ProxyTest;

TEST_F(RoutingRulesTest, AnswersInTheOrderOfItsSteps) {
    ASSERT_TRUE(world.start());
    using Decisions = std::map<std::string, std::string>;
    const std::pair<std::string, Decisions> cases[] = {
        {R"({"rules":{},"defaultAction":"direct","blockedApps":["x.y"]})",
         {{"a", "direct"}, {"a.b.c", "direct"}, {"x.y", "block"}}},
        // Blocked outright goes before a rule; blocking a parent prefix does not reach the child.
        {R"({"rules":{"a.b":"direct"},"blockedApps":["a.b","p.q"]})",
         {{"a.b", "block"}, {"p.q.r", "vpn"}}},
        // One level of parent only, and never from two components.
        {R"({"rules":{"org.acme.mail":"direct","org":"direct"}})",
         {{"org.acme.mail", "direct"},
          {"org.acme.mail.agent", "direct"},
          {"org.acme.mail.agent.xpc", "vpn"},
          {"org.acme", "vpn"},
          {"org", "direct"}}},
        // Empty components are dropped before the parent is joined.
        {R"({"rules":{"org.acme":"direct","org..acme":"block"}})",
         {{"org..acme.mail", "direct"}, {"org..acme", "block"}, {".org.acme.", "vpn"}}},
        // One identifier skips the parent step, and nothing else.
        {R"({"rules":{"com.apple.WebKit":"direct"}})",
         {{"com.apple.WebKit.Networking", "vpn"}, {"com.apple.WebKit.GPU", "direct"}}},
        {R"({"rules":{"com.apple.WebKit.Networking":"direct"},"blockedApps":["b"]})",
         {{"com.apple.WebKit.Networking", "direct"}, {"b", "block"}}},
        // Words are handed on as they are.
        {R"({"rules":{"a":"block","b":"Direct","c":""},"defaultAction":"odd"})",
         {{"a", "block"}, {"b", "Direct"}, {"c", ""}, {"d", "odd"}}},
    };
    for (const auto& [rules, decisions] : cases) {
        changeRules(R"({"rules":{},"defaultAction":"vpn","blockedApps":[]})");
        changeRules(rules);
        for (const auto& [bundleId, decision] : decisions)
            EXPECT_EQ(ProxyProbe(*world.proxy()).getRoutingDecision(bundleId), decision)
                << bundleId << " under " << rules;
    }
}

}  // namespace
}  // namespace vantry
