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
    // Whether a flow that finds no interface leads to a notice.
    bool givesNotice(const std::string& bundleId) {
        world.takeLog();
        offer(bundleId);
        return logHolds(world, {error("Direct connection failed for " + bundleId + " -> h")});
    }
    std::string file() const { return world.files.contents(failureFile).value_or(""); }
    std::ptrdiff_t objects() const { return std::ranges::count(file(), '{'); }
};

TEST_F(FailureNoticesTest, OneNoticePerApplicationInThirtySeconds) {
    const auto start = Date::now().secondsSince1970();
    struct Step {
        double seconds;
        const char* bundleId;
        bool givesNotice;
    };
    const Step steps[] = {
        {0, "a", true},     {0, "b", true},      {20, "a", false},
        {29.9, "a", false}, {30.0, "a", true},    // exactly the cooldown passes
        {31, "b", true},    {-1000, "a", false},  // a clock set back has to catch up
        {59.9, "a", false}, {60, "a", true}};
    for (const auto& step : steps) {
        world.clock.set(Date::since1970(start + step.seconds));
        EXPECT_EQ(givesNotice(step.bundleId), step.givesNotice) << step.seconds;
    }
    EXPECT_EQ(objects(), 5);
}

TEST_F(FailureNoticesTest, KeepsTheNewestFiftyAndWhatOthersPutIntoThem) {
    for (const int before : {49, 50, 80}) {
        world.advance(31);
        std::string notices;
        for (int n = 0; n < before; ++n)
            notices +=
                (n ? ",{" : "[{") + std::string(R"("extra":"old)") + std::to_string(n) + "\"}";
        world.files.put(failureFile, notices + "]");
        offer("new");
        const auto kept = notices.substr(notices.find("old" + std::to_string(before - 49) + "\""));
        EXPECT_TRUE(file().starts_with("[{\"extra\":\"" + kept + ",{\"bundleId\":\"new\""))
            << file();
        EXPECT_EQ(objects(), 50);
    }
}

TEST_F(FailureNoticesTest, AFileThatIsNoArrayOfTextsIsReplaced) {
    for (const auto* content : {"{}", "not json", R"([{"a":"b","n":1}])", R"([{"a":"b"},["c"]])",
                                "", "[{\"a\":\"\xff\"}]"}) {
        world.advance(31);
        world.files.put(failureFile, content);
        offer("a");
        EXPECT_TRUE(file().starts_with(R"([{"bundleId":"a",)")) << content;
        EXPECT_EQ(objects(), 1) << content;
    }
}

TEST_F(FailureNoticesTest, AFailedWriteIsNotReportedAndItsCooldownRuns) {
    world.files.fail(FileOperation::write, failureFile, 1, 7);
    EXPECT_TRUE(givesNotice("a"));
    EXPECT_EQ(file().size(), 7u);
    EXPECT_FALSE(givesNotice("a"));
    offer("b");  // the damaged file counts as none
    EXPECT_EQ(objects(), 1);
}

TEST_F(FailureNoticesTest, AsksForTheContainerOnceAlsoWhenThereIsNone) {
    world.files.setContainer(std::nullopt);
    EXPECT_TRUE(givesNotice("a"));
    world.files.setContainer("/container");
    EXPECT_TRUE(givesNotice("b"));
    EXPECT_EQ(world.files.containerQuestions(),
              std::vector<std::string>{"group.org.quillmere.Vantry"});
    EXPECT_FALSE(world.files.exists(failureFile));
}

}  // namespace
}  // namespace vantry
