#include <gmock/gmock.h>

#include "Extension/ipc/ActiveAppsResponse.h"
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
        world.takeLog();
    }
    std::vector<std::string> activeApps() {
        const auto reply = world.message(R"({"type":"getActiveApps"})").text().value_or("");
        return std::get<ActiveAppsResponse>(ActiveAppsResponse::decode(reply)).bundleIds;
    }
};

TEST_F(AppMessagesTest, ActiveAppsAreThoseOfTheLastHundredEntries) {
    EXPECT_EQ(world.message(R"({"type":"getActiveApps"})").text(), R"({"bundleIds":[]})");
    changeRules(R"({"rules":{},"defaultAction":"vpn"})");
    const auto record = [&](const std::string& bundleId) {
        world.offerToProxy(world.flow({.signingIdentifier = bundleId}));
    };
    record("old");
    for (int n = 0; n < 99; ++n) record(n % 2 ? "odd" : "even");
    EXPECT_THAT(activeApps(), testing::UnorderedElementsAre("old", "odd", "even"));
    record("odd");
    EXPECT_THAT(activeApps(), testing::UnorderedElementsAre("odd", "even"));
}

TEST_F(AppMessagesTest, AMessageThatDoesNotDecodeIsAnsweredWithItsFailure) {
    struct Case {
        std::string message;
        std::optional<std::string> prefix;
    };
    const std::string cut = std::string(199, ' ') + "\xc3\xa9 and more";
    const std::vector<Case> cases{
        {"", ""},
        {"{}", "{}"},
        {R"({"type":"getStatus","rules":{"a":1}})", R"({"type":"getStatus","rules":{"a":1}})"},
        {std::string(250, 'x'), std::string(200, 'x')},
        {cut, std::nullopt},
        {"\xff", std::nullopt},
    };
    for (const auto& test : cases) {
        world.takeLog();
        const auto reply = world.message(test.message).text().value_or("");
        const auto lines = world.takeLog(proxyCategory);
        ASSERT_GE(lines.size(), 2u) << test.message;
        EXPECT_EQ(lines[0].text,
                  "Received app message: " + std::to_string(test.message.size()) + " bytes");
        EXPECT_EQ(lines[1].format, "Failed to decode IPC message: %{public}s");
        EXPECT_EQ(ExtensionResponse::error(lines[1].arguments[0]).encode(), reply);
        ASSERT_EQ(lines.size(), test.prefix ? 3u : 2u) << test.message;
        if (test.prefix) {
            EXPECT_EQ(lines[2].text, "Raw message prefix: " + *test.prefix);
        }
    }
    EXPECT_EQ(decisionOf("a"), "direct");
}

TEST_F(AppMessagesTest, WithoutACallbackRequestsHaveTheirEffects) {
    world.files.put(activityLogFile, "old");
    world.messageWithoutReply(R"({"type":"getStatus"})");
    world.messageWithoutReply("nonsense");
    world.messageWithoutReply(R"({"type":"getActiveApps"})");
    world.messageWithoutReply(R"({"type":"reload","rules":{}})");
    world.messageWithoutReply(R"({"type":"clearActivityLog"})");
    EXPECT_EQ(decisionOf("a"), "vpn");
    EXPECT_EQ(decisionOf("x"), "block");  // a reload leaves the blocked ones alone
    world.stopProxy();
    EXPECT_EQ(world.message(R"({"type":"getStatus"})").text(),
              R"({"isActive":true,"ruleCount":0})");
}

TEST_F(AppMessagesTest, ARemovalThatFailsIsSilent) {
    world.files.put(activityLogFile, "old");
    world.files.fail(FileOperation::remove, activityLogFile);
    EXPECT_EQ(world.message(R"({"type":"clearActivityLog"})").text(), R"({"success":{}})");
    EXPECT_TRUE(proxyLogIs(
        {info("Received app message: 27 bytes"), info("Decoded message type: clearActivityLog")}));
    EXPECT_TRUE(world.files.exists(activityLogFile));
}

}  // namespace
}  // namespace vantry
