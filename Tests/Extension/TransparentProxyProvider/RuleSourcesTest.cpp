#include <gmock/gmock.h>

#include "Tests/Extension/TransparentProxyProvider/ProxyTest.h"

namespace vantry {
namespace {

using platform::simulated::debug;
using platform::simulated::error;
using platform::simulated::info;

class RuleSourcesTest : public ProxyTest {
protected:
    // The lines of the file's load alone, out of a whole notification.
    std::vector<platform::simulated::LogLine> linesOfLoad(std::string_view document) {
        world.takeLog();
        changeRules(document);
        std::vector<platform::simulated::LogLine> lines;
        bool isInside = false;
        for (auto& line : world.takeLog()) {
            if (line.text.starts_with("Reading rules from: ")) isInside = true;
            if (line.text.starts_with("Rules identical")) isInside = false;
            if (isInside) lines.push_back(std::move(line));
        }
        return lines;
    }
    void configure(std::string_view json) { world.preferences.setProviderConfiguration(json); }
};

const std::string reading = std::string("Reading rules from: ") + rulesFile;

TEST_F(RuleSourcesTest, AFileAppliesKeyByKeyAndIsTakenOnlyWithItsRules) {
    ASSERT_TRUE(world.start());
    struct Case {
        std::string document;
        std::string loaded;  // of the load lines; empty: rejected
        std::string fallbacks;
    };
    const std::vector<Case> cases{
        {R"({"rules":{"a":"direct"},"defaultAction":"x","vpnFallback":"block",
             "directFallback":"allow","vpnConnected":false,"blockedApps":["b","c","b"]})",
         "0 -> 1, default: x, blocked: 2", "vpn=block, direct=allow, vpnConnected=false"},
        {R"({"rules":{}})", "1 -> 0, default: x, blocked: 2",
         "vpn=block, direct=allow, vpnConnected=false"},
        // A key of another type is left alone; a number is no boolean.
        {R"({"rules":{"A":"vpn"},"defaultAction":1,"vpnFallback":null,"directFallback":[],
             "vpnConnected":1,"blockedApps":["d",1],"unknown":{}})",
         "0 -> 1, default: x, blocked: 2", "vpn=block, direct=allow, vpnConnected=false"},
        {R"({"rules":{"a":"vpn","b":"vpn"},"vpnConnected":true,"blockedApps":[]})",
         "1 -> 2, default: x, blocked: 0", "vpn=block, direct=allow, vpnConnected=true"},
        {R"({"rules":{"a":1},"defaultAction":"never"})", "", ""},
        {R"({"rules":["a"],"defaultAction":"never"})", "", ""},
        {R"({"defaultAction":"never"})", "", ""},
        {R"({})", "", ""},
        {R"([])", "", ""},
        {R"(7)", "", ""},
        {R"({"rules":{}} x)", "", ""},
        {"", "", ""},
        {"{\"rules\":{\"\xff\":\"vpn\"}}", "", ""},
        {R"({"rules":{"a":"vpn","a":"direct"}})", "2 -> 1, default: x, blocked: 0",
         "vpn=block, direct=allow, vpnConnected=true"},
    };
    for (const auto& test : cases) {
        const auto lines = linesOfLoad(test.document);
        ASSERT_GE(lines.size(), 3u) << test.document;
        EXPECT_EQ(lines[0].text, reading);
        const auto rejected =
            debug("Failed to parse rules file (invalid JSON format)", proxyCategory);
        if (test.loaded.empty()) {
            EXPECT_EQ(lines.size(), 3u) << test.document;
            EXPECT_TRUE(rejected.matches(lines[2])) << test.document;
            continue;
        }
        std::vector<std::string> texts;
        for (const auto& line : lines) texts.push_back(line.text);
        EXPECT_THAT(texts, testing::Contains("Loaded rules from shared file: " + test.loaded));
        EXPECT_THAT(texts, testing::Contains("Fallback settings: " + test.fallbacks));
    }
    EXPECT_EQ(decisionOf("a"), "direct");
    EXPECT_EQ(decisionOf("b"), "x");
}

TEST_F(RuleSourcesTest, LogsTheWholeLoadWithAPreviewCutAtBytes) {
    ASSERT_TRUE(world.start());
    // 500 bytes end inside the last character of the preview.
    std::string padding(476, 'p');
    const auto document = R"({"rules":{"a":"direct"},")" + padding.substr(2) + "\xc3\xa9\":1}";
    ASSERT_EQ(document.find('\xc3'), 499u);
    const auto lines = linesOfLoad(document);
    const auto size = std::to_string(document.size());
    EXPECT_TRUE(platform::simulated::linesAre(
        lines, {debug(reading), debug("Raw file contents (" + size + " bytes): <non-utf8>"),
                info("VPN state updated: connected=true fallback=allow firstInit=true"),
                debug("Loaded rules from shared file: 0 -> 1, default: vpn, blocked: 0"),
                debug("Fallback settings: vpn=allow, direct=block, vpnConnected=true"),
                debug("Rule: a -> direct")}));
    const auto shorter = linesOfLoad(R"({"rules":{}})");
    EXPECT_EQ(shorter[1].text, R"(Raw file contents (12 bytes): {"rules":{}})");
}

TEST_F(RuleSourcesTest, AFileThatCannotBeReadChangesNothing) {
    putRules(R"({"rules":{"a":"direct"},"blockedApps":["b"]})");
    ASSERT_TRUE(world.start());
    world.files.fail(platform::simulated::FileOperation::read, rulesFile);
    EXPECT_TRUE(platform::simulated::linesAre(
        linesOfLoad("{}"),
        {debug(reading), debug(std::string("No rules file found at ") + rulesFile)}));
    EXPECT_EQ(decisionOf("a"), "direct");
    EXPECT_TRUE(coordinator.shouldBlockFlow("b"));
}

TEST_F(RuleSourcesTest, TheConfigurationGivesEachKeyByItself) {
    configure(R"({"rules":{"a":"direct","b":"vpn"},"vpnFallback":"block","vpnConnected":false,
                  "blockedApps":["c"]})");
    ASSERT_TRUE(world.start());
    EXPECT_TRUE(logHolds(
        world, {info("VPN state updated: connected=false fallback=block firstInit=true",
                     "FlowKillCoordinator"),
                info("Loaded 2 routing rules from config, default: vpn, blocked: 1", proxyCategory),
                info("Fallback settings from config: vpn=block, direct=block", proxyCategory),
                debug("Reading rules from: " + std::string(rulesFile)),
                info("Monitoring updated: +1 -0 total=1", "FlowKillCoordinator")}));
    // The configuration's blocked list answers here and does not reach the coordinator yet.
    EXPECT_EQ(decisionOf("c"), "block");
    EXPECT_FALSE(coordinator.shouldBlockFlow("c"));
    EXPECT_TRUE(coordinator.shouldMonitorFlow("b"));
    world.post(rulesChanged);
    world.runUntilIdle();
    EXPECT_TRUE(coordinator.shouldBlockFlow("c"));

    // Without rules, or with rules of the wrong type, the other keys still apply.
    configure(R"({"rules":{"z":1},"defaultAction":"direct"})");
    world.takeLog();
    world.wake();
    EXPECT_TRUE(
        logHolds(world, {info("Loaded 2 routing rules from config, default: direct, blocked: 1")}));
    configure("{}");
    world.takeLog();
    world.wake();
    EXPECT_TRUE(
        logHolds(world, {info("VPN state updated: connected=false fallback=block firstInit=false"),
                         info("Loaded 2 routing rules from config, default: direct, blocked: 1"),
                         info("Fallback settings from config: vpn=block, direct=block")}));
}

TEST_F(RuleSourcesTest, WithoutAConfigurationNothingReachesTheCoordinator) {
    const auto expectUntouched = [&] {
        world.takeLog();
        ASSERT_TRUE(world.start());
        EXPECT_TRUE(logHolds(world, {error("No providerConfiguration available", proxyCategory)}));
        EXPECT_TRUE(world.log("FlowKillCoordinator").empty());
        EXPECT_FALSE(coordinator.hasReceivedState());
    };
    expectUntouched();
    world.preferences.setProtocolConfiguration(std::make_shared<platform::NEVPNProtocol>());
    expectUntouched();
    world.preferences.setProtocolConfiguration(
        std::make_shared<platform::NETunnelProviderProtocol>(std::nullopt, std::nullopt));
    expectUntouched();
}

TEST_F(RuleSourcesTest, TheFileWinsOverTheConfigurationForEachKeyThatItCarries) {
    configure(R"({"rules":{"a":"direct"},"defaultAction":"direct","directFallback":"allow",
                  "blockedApps":["c"]})");
    putRules(R"({"rules":{"a":"vpn"},"directFallback":"block"})");
    ASSERT_TRUE(world.start());
    EXPECT_EQ(decisionOf("a"), "vpn");
    EXPECT_EQ(decisionOf("z"), "direct");
    EXPECT_TRUE(coordinator.shouldBlockFlow("c"));
    EXPECT_EQ(world.files.count(platform::simulated::FileOperation::read, rulesFile), 1u);
}

}  // namespace
}  // namespace vantry
