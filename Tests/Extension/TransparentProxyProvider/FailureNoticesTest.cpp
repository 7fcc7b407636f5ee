#include "Tests/Extension/TransparentProxyProvider/ProxyTest.h"

namespace vantry {
namespace {

constexpr const char* failureFile = "/container/connection_failures.json";

class FailureNoticesTest : public ProxyTest {
protected:
    void SetUp() override {
        putRules(R"({"rules":{},"defaultAction":"direct","directFallback":"vpn"})");
        ASSERT_TRUE(world.start());
    }
    void fail(const std::string& bundleId, const std::string& host = "h.example") {
        world.offerToProxy(world.flow(
            {.remoteEndpoint = NWHostEndpoint{host, "443"}, .signingIdentifier = bundleId}));
    }
    std::size_t noticesLogged() {
        std::size_t count = 0;
        for (const auto& line : world.takeLog(proxyCategory))
            if (line.format == "Direct connection failed for %s -> %s") ++count;
        return count;
    }
    std::string file() const { return world.files.contents(failureFile).value_or(""); }
    std::size_t objects() const {
        const auto text = file();
        return static_cast<std::size_t>(std::ranges::count(text, '{'));
    }
    static std::string arrayOf(int count) {
        std::string text = "[";
        for (int n = 0; n < count; ++n)
            text += std::string(n ? "," : "") + R"({"bundleId":"old)" + std::to_string(n) +
                    R"(","host":"h","timestamp":"t"})";
        return text + "]";
    }
};

TEST_F(FailureNoticesTest, OneNoticePerApplicationInThirtySeconds) {
    const auto start = Date::now().secondsSince1970();
    const auto failAt = [&](double seconds, const char* bundleId, const char* host) {
        world.clock.set(Date::since1970(start + seconds));
        fail(bundleId, host);
        return noticesLogged();
    };
    EXPECT_EQ(failAt(0, "a", "one"), 1u);
    EXPECT_EQ(failAt(0, "b", "one"), 1u);
    EXPECT_EQ(failAt(20, "a", "two"), 0u);
    EXPECT_EQ(failAt(29.9, "a", "two"), 0u);
    EXPECT_EQ(failAt(30.0, "a", "two"), 1u);  // exactly the cooldown passes
    EXPECT_EQ(failAt(31, "b", "two"), 1u);
    EXPECT_EQ(objects(), 4u);
    // A clock that was set back suppresses until it has caught up.
    EXPECT_EQ(failAt(-1000, "a", "x"), 0u);
    EXPECT_EQ(failAt(59.9, "a", "x"), 0u);
    EXPECT_EQ(failAt(60, "a", "x"), 1u);
}

TEST_F(FailureNoticesTest, KeepsTheNewestFiftyAndWhatOthersPutIntoThem) {
    for (const auto& [before, after] : {std::pair{49, 50u}, {50, 50u}, {80, 50u}}) {
        world.advance(31);
        world.files.put(failureFile, arrayOf(before));
        fail("new");
        EXPECT_EQ(objects(), after) << before;
        EXPECT_EQ(file().find("\"old" + std::to_string(before - 50) + "\""), std::string::npos);
        EXPECT_NE(file().find("\"old" + std::to_string(before - 49) + "\""), std::string::npos);
        EXPECT_GT(file().find("\"new\""), file().rfind("\"old"));
    }
    world.files.put(failureFile, R"([{"extra":"kept","bundleId":"x"}])");
    fail("other");
    EXPECT_NE(file().find(R"("extra":"kept")"), std::string::npos);
    EXPECT_EQ(objects(), 2u);
}

TEST_F(FailureNoticesTest, AFileThatIsNoArrayOfTextsIsReplaced) {
    for (const auto* content :
         {"{}", "not json", R"([{"a":"b","n":1}])", R"([["a"]])", "", "[{\"a\":\"\xff\"}]"}) {
        world.advance(31);
        world.files.put(failureFile, content);
        fail("a");
        EXPECT_EQ(objects(), 1u) << content;
        EXPECT_NE(file().find(R"("bundleId":"a")"), std::string::npos) << content;
    }
}

TEST_F(FailureNoticesTest, AFailedWriteIsNotReportedAndItsCooldownRuns) {
    world.files.fail(FileOperation::write, failureFile, 1, 7);
    fail("a");
    EXPECT_EQ(file().size(), 7u);
    EXPECT_EQ(noticesLogged(), 1u);
    fail("a");
    EXPECT_EQ(noticesLogged(), 0u);
    fail("b");  // the damaged file counts as none
    EXPECT_EQ(objects(), 1u);
}

TEST_F(FailureNoticesTest, AsksForTheContainerOnceAlsoWhenThereIsNone) {
    world.files.setContainer(std::nullopt);
    fail("a");
    world.files.setContainer("/container");
    fail("b");
    EXPECT_EQ(noticesLogged(), 2u);
    EXPECT_EQ(world.files.containerQuestions(),
              std::vector<std::string>{"group.org.quillmere.Vantry"});
    EXPECT_FALSE(world.files.exists(failureFile));
}

}  // namespace
}  // namespace vantry
