// When the log file is written, and what it then holds.

#include <future>

#include "Tests/Extension/TransparentProxyProvider/ProxyTest.h"

namespace vantry {
namespace {

class ActivityLogTest : public ProxyTest {
protected:
    void SetUp() override { ASSERT_TRUE(world.start()); }

    void leaveBlockRecord(const std::string& bundleId) {
        ActivityLogEntryIPC entry;
        entry.bundleId = bundleId;
        coordinator.recordQuicBlock(entry);
    }
    std::string clear() {
        return world.message(R"({"type":"clearActivityLog"})").text().value_or("");
    }
    // The applications in the file, each after a space.
    std::string inFile() const {
        std::string names;
        for (const auto& entry : logFileEntries()) names += " " + entry.bundleId;
        return names;
    }
    std::size_t writes() const {
        return world.files.count(FileOperation::writeAtomically, activityLogFile);
    }
};

TEST_F(ActivityLogTest, AnEntryIsWrittenAtOnceOrWithOthersASecondAfterTheLastWrite) {
    // What comes after so many seconds, and the number of writes then.
    struct Step {
        double seconds;
        const char* recorded;
        std::size_t writes;
        double clockJumps = 0;
    };
    const Step steps[] = {
        {0, "a", 1},      {0.2, "b", 1},       {0.2, "c", 1}, {0.59, "", 1},
        {0.02, "", 2},    {1.1, "d", 3},       {0.5, "e", 3},  // is due in half a second
        {0, "f", 4, 5.0},               // is due by the clock, which leaves the other write alone
        {0.6, "", 5},     {10, "", 5},  // no timer runs without an entry
        {0, "g", 6},      {0, "h", 6, -100.0},  // a clock set back lengthens the delay
        {0, "i", 6},      {100.5, "", 6},      {1, "", 7},
    };
    for (const auto& step : steps) {
        world.advance(step.seconds);
        world.clock.jump(step.clockJumps);
        if (*step.recorded) offer(step.recorded);
        EXPECT_EQ(writes(), step.writes) << step.recorded << " after " << step.seconds;
    }
    EXPECT_EQ(inFile(), " a b c d e f g h i");
    leaveBlockRecord("late");
    world.advance(60);
    EXPECT_EQ(writes(), 7u);
    offer("j");
    EXPECT_EQ(inFile(), " a b c d e f g h i j late");
}

TEST_F(ActivityLogTest, ADiskThatHangsHoldsUpNoFlowButTheOneWhoseWriteItIs) {
    world.files.stall(FileOperation::writeAtomically, activityLogFile);
    auto writer = std::async(std::launch::async, [&] { offer("a"); });
    world.files.waitUntilStalled();
    std::vector<std::future<void>> others;
    for (const auto* application : {"b", "c", "d"}) {
        world.clock.jump(2);
        others.push_back(std::async(std::launch::async, [=, this] { offer(application); }));
        EXPECT_EQ(others.back().wait_for(std::chrono::seconds(5)), std::future_status::ready);
    }
    world.files.goOn();
    writer.wait();
    world.runUntilIdle();
    world.advance(0);
    EXPECT_EQ(inFile(), " a b c d");
    EXPECT_EQ(writes(), 2u);
}

TEST_F(ActivityLogTest, ClearingEmptiesTheListAndAScheduledWriteMakesTheFileAgain) {
    offer("a");
    offer("b");
    leaveBlockRecord("block");
    EXPECT_EQ(clear(), R"({"success":{}})");
    EXPECT_FALSE(world.files.exists(activityLogFile));
    world.advance(1);
    EXPECT_EQ(inFile(), " block");
    clear();
    EXPECT_EQ(clear(), R"({"success":{}})");
    offer("c");
    clear();
    world.advance(2);
    EXPECT_EQ(world.files.contents(activityLogFile), R"({"entries":[]})");
    // A removal that fails is silent.
    world.files.fail(FileOperation::remove, activityLogFile);
    world.takeLog();
    EXPECT_EQ(clear(), R"({"success":{}})");
    EXPECT_EQ(world.takeLog().size(), 2u);
    EXPECT_TRUE(world.files.exists(activityLogFile));
    // A deferred write does not keep the provider.
    offer("d");
    offer("e");
    const auto before = writes();
    world.providers.letGoOfProxy();
    world.advance(5);
    EXPECT_EQ(writes(), before);
}

}  // namespace
}  // namespace vantry
