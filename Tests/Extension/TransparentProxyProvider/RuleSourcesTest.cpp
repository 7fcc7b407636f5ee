#include "Tests/Extension/TransparentProxyProvider/ProxyProbe.h"
#include "Tests/Extension/TransparentProxyProvider/ProxyTest.h"

namespace vantry {
namespace {

class RuleSourcesTest : public ProxyTest {
protected:
    std::vector<LogLine> linesOfLoad(std::string_view document) {
        putRules(document);
        world.takeLog();
        ProxyProbe(*world.proxy()).loadRulesFromSharedFile();
        return world.takeLog();
    }
};

const std::string reading = std::string("Reading rules from: ") + rulesFile;

TEST_F(RuleSourcesTest, AFileAppliesKeyByKeyAndIsTakenOnlyWithItsRules) {
    ASSERT_TRUE(world.start());
    const std::string kept = "vpn=block, direct=allow, vpnConnected=false";
    struct Case {
        std::string document, loaded, fallbacks;
    };
    const std::vector<Case> cases{
        {R"({"rules":{"a":"direct"},"defaultAction":"x","vpnFallback":"block",
             "directFallback":"allow","vpnConnected":false,"blockedApps":["b","c","b"]})",
         "0 -> 1, default: x, blocked: 2", kept},
        {R"({"rules":{}})", "1 -> 0, default: x, blocked: 2", kept},
        // A key of another type is left alone; a number is no boolean.
        {R"({"rules":{"A":"vpn"},"defaultAction":1,"vpnFallback":null,"directFallback":[],
             "vpnConnected":1,"blockedApps":["d",1],"unknown":{}})",
         "0 -> 1, default: x, blocked: 2", kept},
        {R"({"rules":{"a":"vpn","b":"vpn"},"vpnConnected":true,"blockedApps":[]})",
         "1 -> 2, default: x, blocked: 0", "vpn=block, direct=allow, vpnConnected=true"},
        // Of what comes twice the last counts, also where the rules in force come twice.
        {R"({"rules":{"a":"vpn","a":"vpn"}})", "2 -> 1, default: x, blocked: 0",
         "vpn=block, direct=allow, vpnConnected=true"},
        {R"({"rules":{"c":"vpn"},"rules":{"a":1,"d":"x","a":"direct"}})",
         "1 -> 2, default: x, blocked: 0", "vpn=block, direct=allow, vpnConnected=true"},
    };
    for (const auto& test : cases) {
        world.takeLog();
        changeRules(test.document);
        EXPECT_TRUE(
            logHolds(world, {debug(reading), debug("Loaded rules from shared file: " + test.loaded),
                             debug("Fallback settings: " + test.fallbacks)}));
    }
    for (const auto* document :
         {R"({"rules":{"a":1},"defaultAction":"never"})",
          R"({"rules":["a"],"vpnFallback":"never"})", R"({"defaultAction":"never"})", "{}", "[]",
          R"({"rules":{"a":"vpn","a":{}}})", R"({"rules":{},"rules":"a"})", R"([{"rules":{}}])",
          "7", R"({"rules":{}} x)", "", "{\"rules\":{\"\xff\":\"vpn\"}}"})
        EXPECT_TRUE(linesAre(linesOfLoad(document),
                             {debug(reading), debug("Raw file contents (<any>"),
                              debug("Failed to parse rules file (invalid JSON format)")}));
    EXPECT_EQ(decisionOf("a"), "direct");
    EXPECT_EQ(decisionOf("b"), "x");
}

TEST_F(RuleSourcesTest, CutsThePreviewAtBytesAndLoadsTheWholeFile) {
    ASSERT_TRUE(world.start());
    // 500 bytes end inside the last character of the preview.
    const auto document = R"({"rules":{"a":"direct"},")" + std::string(474, 'p') + "\xc3\xa9\":1}";
    ASSERT_EQ(document.find('\xc3'), 499u);
    EXPECT_EQ(linesOfLoad(document).at(1).text, "Raw file contents (505 bytes): <non-utf8>");
    EXPECT_EQ(decisionOf("a"), "direct");
    const auto ascii = R"({"rules":{},")" + std::string(600, 'p') + "\":1}";
    EXPECT_EQ(linesOfLoad(ascii).at(1).text,
              "Raw file contents (617 bytes): " + ascii.substr(0, 500));
}

}  // namespace
}  // namespace vantry
