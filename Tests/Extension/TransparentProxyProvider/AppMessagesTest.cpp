#include "Extension/ipc/ExtensionResponse.h"
#include "Tests/Extension/TransparentProxyProvider/ProxyTest.h"

namespace vantry {
namespace {

class AppMessagesTest : public ProxyTest {
protected:
    void SetUp() override {
        putRules(R"({"rules":{"a":"direct","b":"vpn"},"defaultAction":"direct",
                     "blockedApps":["x"]})");
        ASSERT_TRUE(world.start());
    }
};

TEST_F(AppMessagesTest, ActiveAppsAreThoseOfTheLastHundredEntries) {
    const auto activeApps = [&] { return world.message(R"({"type":"getActiveApps"})").text(); };
    EXPECT_EQ(activeApps(), R"({"bundleIds":[]})");
    changeRules(R"({"rules":{},"defaultAction":"vpn"})");
    offer("old");
    for (int n = 0; n < 99; ++n) offer("new");
    EXPECT_THAT(activeApps(), testing::Optional(testing::AnyOf(R"({"bundleIds":["old","new"]})",
                                                               R"({"bundleIds":["new","old"]})")));
    offer("new");
    EXPECT_EQ(activeApps(), R"({"bundleIds":["new"]})");
}

TEST_F(AppMessagesTest, AMessageThatDoesNotDecodeIsAnsweredWithItsFailure) {
    const std::pair<std::string, std::optional<std::string>> cases[] = {
        {"", ""},
        {R"({"type":"getStatus","rules":{"a":1}})", R"({"type":"getStatus","rules":{"a":1}})"},
        {std::string(250, 'x'), std::string(200, 'x')},
        {std::string(199, ' ') + "\xc3\xa9 and more", std::nullopt},
        {"\xff", std::nullopt},
    };
    for (const auto& [message, prefix] : cases) {
        world.takeLog();
        const auto reply = world.message(message).text();
        const auto lines = world.takeLog(proxyCategory);
        ASSERT_GE(lines.size(), 2u) << message;
        const auto failure = lines[1].arguments.at(0);
        std::vector<ExpectedLine> expected{
            info("Received app message: " + std::to_string(message.size()) + " bytes"),
            error("Failed to decode IPC message: " + failure)};
        if (prefix) expected.push_back(error("Raw message prefix: " + *prefix));
        EXPECT_TRUE(linesAre(lines, expected));
        EXPECT_EQ(reply, ExtensionResponse::error(failure).encode());
    }
    EXPECT_EQ(decisionOf("a"), "direct");
}

TEST_F(AppMessagesTest, WithoutACallbackRequestsHaveTheirEffects) {
    for (const auto* message :
         {R"({"type":"getStatus"})", "nonsense", R"({"type":"getActiveApps"})",
          R"({"type":"reload","rules":{}})", R"({"type":"clearActivityLog"})"})
        world.messageWithoutReply(message);
    EXPECT_EQ(decisionOf("a"), "vpn");
    EXPECT_EQ(decisionOf("x"), "block");  // a reload leaves the blocked ones alone
    world.stopProxy();
    EXPECT_EQ(world.message(R"({"type":"getStatus"})").text(),
              R"({"isActive":true,"ruleCount":0})");
}

}  // namespace
}  // namespace vantry
