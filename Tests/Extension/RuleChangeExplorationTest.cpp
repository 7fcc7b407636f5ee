// Flows and changes of the rules that overlap step by step: wherever a flow is being decided, and wherever
// a change has got to, the other may go on. No flow may outlive a change that is over by more than its turn
// to end, or its next byte.

#include <array>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "Tests/Extension/TransparentProxyProvider/ProxyProbe.h"
#include "Tests/Extension/TransparentProxyProvider/ProxyTest.h"

namespace vantry {
namespace {

// The stories reset the coordinator at their end and teach it no child.
constexpr std::uint64_t seedsPerProcess = 100;

constexpr const char* app = "com.example.A";

// What may become of a flow of the application once these rules are in force and it has sent a byte. It may
// always have been ended.
enum class Fate { direct, watched, passing, ended };

struct Rules {
    std::string_view name;
    Fate fate;
    std::string_view keys;
};
constexpr std::array<Rules, 7> allRules{{
    {"direct", Fate::direct, R"("rules":{"com.example.A":"direct"},"vpnConnected":true)"},
    {"vpn", Fate::watched, R"("rules":{"com.example.A":"vpn"},"vpnConnected":true)"},
    {"vpn, down, blocked", Fate::ended,
     R"("rules":{"com.example.A":"vpn"},"vpnConnected":false,"vpnFallback":"block")"},
    {"vpn, down, allowed", Fate::watched,
     R"("rules":{"com.example.A":"vpn"},"vpnConnected":false)"},
    {"blocked", Fate::ended,
     R"("rules":{"com.example.A":"direct"},"vpnConnected":true,"blockedApps":["com.example.A"])"},
    {"vpn, others direct", Fate::watched,
     R"("rules":{"com.example.A":"vpn"},"vpnConnected":true,"defaultAction":"direct")"},
    {"vpn by default", Fate::passing, R"("rules":{},"vpnConnected":true)"},
}};

// Every key has a value: what comes twice counts as it came last.
std::string document(const Rules& rules) {
    return R"({"defaultAction":"vpn","vpnFallback":"allow","directFallback":"block","blockedApps":[],)" +
           std::string(rules.keys) + "}";
}

bool isAllowed(const Flow& flow, Fate fate) {
    if (flow.isEnded() || flow.isClosed()) return true;
    switch (fate) {
        case Fate::direct:
            return flow.isClaimed();
        case Fate::watched:
            return !flow.isClaimed() && flow.lastOffer().watched();
        case Fate::passing:
            return !flow.isClaimed();
        case Fate::ended:
            break;
    }
    return false;
}

std::string_view stateOf(const Flow& flow) {
    if (flow.isClaimed()) return "relayed";
    return flow.lastOffer().watched() ? "watched" : "passing";
}

void flowsAndChanges(World& world) {
    const auto process = world.application("A", app);
    world.peer("h", 1).echoes();
    world.setPath({{"en0", NWInterface::InterfaceType::wifi}});
    std::vector<const Rules*> story{&allRules[world.draw(7)]};
    if (world.draw(2) == 0) story.push_back(&allRules[world.draw(7)]);
    story.push_back(&allRules[world.draw(7)]);
    world.files.put(rulesFile, document(*story.front()));
    ASSERT_TRUE(world.start());
    std::vector<Flow> flows;
    for (auto count = 2 + world.draw(3); count > 0; --count) {
        flows.push_back(world.tcpFlow(process, "h", "1"));
        world.later([&world, flow = flows.back()] { world.offer(flow); });
    }
    const auto change = [&world](const Rules* next) {
        world.files.put(rulesFile, document(*next));
        world.post(rulesChanged);
    };
    // The changes come one after the other, each anywhere among the flows.
    world.later([&world, &change, &story] {
        change(story[1]);
        if (story.size() > 2) world.later([&change, &story] { change(story[2]); });
    });
    world.runUntilIdle();
    world.advance(1);
    for (const auto& flow : flows) world.outbound(flow, "x");
    world.runUntilIdle();
    world.advance(1);
    std::string names;
    for (const auto* rules : story) names += "[" + std::string(rules->name) + "]";
    for (const auto& flow : flows)
        EXPECT_TRUE(isAllowed(flow, story.back()->fate)) << stateOf(flow) << " after " << names;
    world.stopProxy();
}

TEST(RuleChangeExploration, NoFlowOutlivesAChange) {
    EXPECT_TRUE(holdsForSeeds(1000, flowsAndChanges, {.order = Order::byTurns}, seedsPerProcess));
}

// A helper's flow, under whose names' rules change: "A" goes direct, while the helper's nearest name leaves for
// the VPN. A flow that is named by the old rules and decided by the new ones would go direct, and no change
// would ever end it.
void helpersFlowsAndAChange(World& world) {
    world.setPath({{"en0", NWInterface::InterfaceType::wifi}});
    world.files.put(rulesFile, R"({"rules":{"com.example.A":"vpn"}})");
    ASSERT_TRUE(world.start());
    std::vector<Flow> flows;
    for (auto count = 2 + world.draw(3); count > 0; --count) {
        flows.push_back(
            world.flow({.remoteEndpoint = NWHostEndpoint::endpointWithHostname("h", "1"),
                        .signingIdentifier = "com.example.A.tools.helper"}));
        world.later([&world, flow = flows.back()] { world.offer(flow); });
    }
    world.later([&world] {
        world.files.put(rulesFile,
                        R"({"rules":{"com.example.A":"direct","com.example.A.tools":"vpn"}})");
        world.post(rulesChanged);
    });
    world.runUntilIdle();
    for (const auto& flow : flows) EXPECT_FALSE(flow.isClaimed());
    world.stopProxy();
}

TEST(RuleChangeExploration, AFlowIsNamedAndDecidedByTheSameRules) {
    EXPECT_TRUE(
        holdsForSeeds(1000, helpersFlowsAndAChange, {.order = Order::byTurns}, seedsPerProcess));
}

// Loads from all sources at once: the coordinator is left with what was loaded last, and the line of a
// message names what that message has set.
void loadsAtOnce(World& world) {
    world.preferences.setProviderConfiguration(
        R"({"rules":{"w":"vpn","x":"vpn"},"vpnConnected":false,"vpnFallback":"block"})");
    world.files.put(rulesFile,
                    R"({"rules":{"a":"vpn"},"vpnConnected":true,"vpnFallback":"allow"})");
    ASSERT_TRUE(world.start());
    world.takeLog();
    world.later([&world] { world.post(rulesChanged); });
    world.later([&world, starts = world.draw(2)] {
        starts == 0 ? world.wake() : static_cast<void>(world.startProxy());
    });
    world.later([&world] {
        world.message(
            R"({"type":"reload","rules":{"p":"vpn","q":"vpn","r":"direct"},"defaultAction":"odd"})");
    });
    world.runUntilIdle();
    const auto rules = ProxyProbe(*world.proxy()).rules();
    const auto shared = ProxyProbe::shared();
    EXPECT_EQ(shared.isVpnConnected, rules->isVpnConnected);
    EXPECT_EQ(shared.vpnFallback, rules->vpnFallback);
    // Only what the file says is ever pushed.
    EXPECT_EQ(shared.watched, std::set<std::string>{"a"});
    for (const auto& line : world.log(proxyCategory)) {
        if (!line.format.starts_with("Reloaded rules")) continue;
        EXPECT_EQ(line.arguments[1], "3");
        EXPECT_EQ(line.arguments[2], "odd");
    }
    world.stopProxy();
}

TEST(RuleChangeExploration, LoadsComeInOneOrder) {
    EXPECT_TRUE(holdsForSeeds(1000, loadsAtOnce, {.order = Order::byTurns}, seedsPerProcess));
}

}  // namespace
}  // namespace vantry
