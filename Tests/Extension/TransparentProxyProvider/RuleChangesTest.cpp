// What counts as a change of rules, and the flush with all its outcomes. What a change sets off, line by
// line, is in the stories.

#include "Tests/Extension/TransparentProxyProvider/ProxyTest.h"

namespace vantry {
namespace {

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
        const auto flow = newFlow(bundleId);
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

// What counts as a change from one table to another under the default that is then in force, and what
// follows for the sessions of an application, of one below it and of one with a longer name.
TEST_F(RuleChangesTest, ChangesAreFoundByEachSidesTableAndTheNewDefault) {
    struct Case {
        std::string before, after, defaultWord;
        std::vector<std::string> found;
        bool ends, flushes;
    };
    const std::string direct = R"("a":"direct")", vpn = R"("a":"vpn")";
    const std::string became = "CHANGE direct->vpn: a", left = "CHANGE vpn->direct: a";
    const std::vector<Case> cases{
        {direct, vpn, "vpn", {became}, true, false},
        {direct, R"("a":"block")", "vpn", {became}, true, false},
        {vpn, direct, "vpn", {left}, false, true},
        {vpn, R"("a":"block")", "vpn", {}, false, false},
        {direct, direct, "vpn", {}, false, false},
        {direct, "", "vpn", {became, "REMOVED rule: a was direct"}, true, false},
        {direct, "", "direct", {"REMOVED rule: a was direct"}, false, false},
        {"", direct, "vpn", {left, "NEW rule appeared: a -> direct"}, false, true},
        {"", direct, "direct", {"NEW rule appeared: a -> direct"}, false, false},
        {"", vpn, "direct", {"NEW rule appeared: a -> vpn"}, false, false},
        {vpn, "", "direct", {"REMOVED rule: a was vpn"}, false, false},
        {"", "", "vpn", {}, false, false},
        // Sessions are scheduled first, then the flush starts, which waits for no slot.
        {direct,
         vpn + R"(,"b":"direct")",
         "vpn",
         {became, "CHANGE vpn->direct: b", "NEW rule appeared: b -> direct",
          "Gracefully killed 2 proxy sessions for 1 changed rules",
          "Flushing declined flows: adding sentinel rule"},
         true,
         true},
    };
    const auto document = [](const std::string& head, const std::string& rules,
                             const std::string& word) {
        return "{" + head + R"("rules":{)" + rules + R"(},"defaultAction":")" + word + "\"}";
    };
    startWith(document("", direct, "direct"));
    for (const auto& test : cases) {
        const auto where = test.before + " to " + test.after + ", default " + test.defaultWord;
        changeRules(document("", direct, "direct"));
        auto flow = relayed("a"), below = relayed("a.x"), other = relayed("ax");
        // The old table comes by message, which ends no session.
        world.message(document(R"("type":"reload",)", test.before, "direct"));
        const auto callsBefore = settingsCalls();
        world.takeLog();
        changeRules(document("", test.after, test.defaultWord));
        std::vector<std::string_view> starts{"CHANGE ", "NEW rule", "REMOVED rule"};
        if (test.found.size() > 3) starts.insert(starts.end(), {"Gracefully", "Flushing"});
        EXPECT_EQ(linesThatBegin(starts), test.found) << where;
        EXPECT_EQ(settingsCalls() - callsBefore, test.flushes ? 2u : 0u) << where;
        world.advance(1);
        EXPECT_EQ(flow.isClosedOnceWith(peerReset()), test.ends) << where;
        EXPECT_EQ(below.isClosedOnceWith(peerReset()), test.ends) << where;
        EXPECT_FALSE(other.isClosed()) << where;
        for (auto* open : {&flow, &below, &other}) open->endsSending();
        world.runUntilIdle();
    }
}

TEST_F(RuleChangesTest, BlockingEndsSessionsAndFlushesInBothDirections) {
    const auto blocking = [](const char* list) {
        return R"({"rules":{"b":"vpn"},"defaultAction":"direct","blockedApps":[)" +
               std::string(list) + "]}";
    };
    startWith(blocking(""));
    auto below = relayed("x.a"), other = relayed("xa");
    changeRules(blocking(R"("x","b")"));
    EXPECT_EQ(linesThatBegin({"Killed", "Block state"}),
              (std::vector<std::string>{"Killed 1 proxy sessions for 2 newly-blocked apps",
                                        "Block state changed: +2 blocked, -0 unblocked"}));
    EXPECT_TRUE(below.isClosedOnceWith(peerReset()));
    EXPECT_FALSE(other.isClosed());
    changeRules(blocking(R"("c")"));
    EXPECT_EQ(linesThatBegin({"Killed", "Block state"}),
              std::vector<std::string>{"Block state changed: +1 blocked, -2 unblocked"});
    EXPECT_EQ(settingsCalls(), 5u);
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
    using Rule = NENetworkRule;
    constexpr auto outbound = Rule::TrafficDirection::outbound;
    std::vector<Rule> rules{{{}, 0, {}, 0, Rule::Protocol::TCP, outbound},
                            {{}, 0, {}, 0, Rule::Protocol::UDP, outbound}};
    EXPECT_EQ(calls[0].settings.tunnelRemoteAddress(), "127.0.0.1");
    EXPECT_EQ(calls[0].settings.includedNetworkRules(), rules);
    EXPECT_EQ(calls[2].settings, calls[0].settings);
    rules.push_back(
        {NWHostEndpoint{"127.255.255.254", "0"}, 32, {}, 0, Rule::Protocol::TCP, outbound});
    EXPECT_EQ(calls[1].settings.includedNetworkRules(), rules);
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
        lines.erase(lines.begin(), std::ranges::find(lines, begun.text, &LogLine::text));
        EXPECT_TRUE(linesAre(lines, test.lines));
        EXPECT_EQ(settingsCalls() - before, test.calls);
        changeRules(R"({"rules":{"a":"vpn"}})");
    }
}

}  // namespace
}  // namespace vantry
