// When the log file is written, and what it then holds.

#include "Tests/Extension/TransparentProxyProvider/ProxyTest.h"

namespace vantry {
namespace {

class ActivityLogTest : public ProxyTest {
protected:
    void SetUp() override { ASSERT_TRUE(world.start()); }

    void record(const std::string& bundleId) {
        world.offerToProxy(world.flow(
            {.remoteEndpoint = NWHostEndpoint{"h", "1"}, .signingIdentifier = bundleId}));
    }
    void leaveBlockRecord(const std::string& bundleId) {
        ActivityLogEntryIPC entry;
        entry.bundleId = bundleId;
        coordinator.recordQuicBlock(entry);
    }
    std::vector<std::string> fileEntries() const {
        std::vector<std::string> names;
        for (const auto& entry : logFileEntries()) names.push_back(entry.bundleId);
        return names;
    }
    std::size_t writes() const {
        return world.files.count(FileOperation::writeAtomically, activityLogFile);
    }
};

TEST_F(ActivityLogTest, TheFirstEntryIsOnDiskAtOnceAndABurstIsWrittenOnceMore) {
    record("first");
    EXPECT_EQ(fileEntries(), std::vector<std::string>{"first"});
    world.advance(0.2);
    record("second");
    world.advance(0.2);
    record("third");
    EXPECT_EQ(writes(), 1u);
    world.advance(0.59);
    EXPECT_EQ(writes(), 1u);
    world.advance(0.02);
    EXPECT_EQ(writes(), 2u);
    EXPECT_EQ(fileEntries(), (std::vector<std::string>{"first", "second", "third"}));
    world.advance(10);
    EXPECT_EQ(writes(), 2u);  // no timer runs without an entry
}

TEST_F(ActivityLogTest, AnImmediateWriteLeavesAPendingOneAlone) {
    record("a");
    world.advance(0.5);
    record("b");  // schedules a write in half a second
    world.clock.jump(5);
    record("c");  // the clock says that a write is due
    EXPECT_EQ(writes(), 2u);
    world.advance(0.6);
    EXPECT_EQ(writes(), 3u);
    EXPECT_EQ(fileEntries().size(), 3u);
}

TEST_F(ActivityLogTest, AClockSetBackLengthensTheDelay) {
    record("a");
    world.clock.jump(-100);
    record("b");
    record("c");
    world.advance(100.5);
    EXPECT_EQ(writes(), 1u);
    world.advance(1);
    EXPECT_EQ(writes(), 2u);
    EXPECT_EQ(fileEntries().size(), 3u);
}

TEST_F(ActivityLogTest, TheFiltersRecordsSetNoWriteGoingAndAreDroppedByAStop) {
    record("a");
    leaveBlockRecord("late");
    world.advance(60);
    EXPECT_EQ(fileEntries(), std::vector<std::string>{"a"});
    record("b");
    EXPECT_EQ(fileEntries(), (std::vector<std::string>{"a", "b", "late"}));
    leaveBlockRecord("dropped");
    world.stopProxy();
    world.advance(2);
    record("c");
    EXPECT_EQ(fileEntries().back(), "c");
}

TEST_F(ActivityLogTest, AFailedWriteCountsForTheThrottleAndAModeThatCannotBeSetIsSilent) {
    world.files.fail(FileOperation::writeAtomically, activityLogFile);
    leaveBlockRecord("block");
    record("a");
    world.advance(0.5);
    record("b");
    EXPECT_EQ(writes(), 1u);
    EXPECT_FALSE(world.files.exists(activityLogFile));
    world.advance(1);
    EXPECT_EQ(fileEntries(), (std::vector<std::string>{"a", "block", "b"}));

    world.files.fail(FileOperation::setPermissions, activityLogFile);
    world.advance(2);
    world.takeLog();
    record("c");
    EXPECT_EQ(fileEntries().size(), 4u);
    for (const auto& line : world.takeLog())
        EXPECT_NE(line.level, platform::LogLevel::error) << line;

    // A name that is no UTF-8 cannot be written, and keeps the file from being.
    world.advance(2);
    record("\xff");
    EXPECT_EQ(fileEntries().size(), 4u);
    EXPECT_TRUE(logHolds(world, {error("Failed to write activity log file: The activity log cannot "
                                       "be expressed as JSON")}));
}

TEST_F(ActivityLogTest, ClearingEmptiesTheListAndAScheduledWriteMakesTheFileAgain) {
    record("a");
    record("b");
    leaveBlockRecord("block");
    const auto reply = world.message(R"({"type":"clearActivityLog"})");
    EXPECT_EQ(reply.text(), R"({"success":{}})");
    EXPECT_FALSE(world.files.exists(activityLogFile));
    world.advance(1);
    EXPECT_EQ(fileEntries(), std::vector<std::string>{"block"});
    world.message(R"({"type":"clearActivityLog"})");
    EXPECT_EQ(world.message(R"({"type":"clearActivityLog"})").text(), R"({"success":{}})");
    record("c");
    world.message(R"({"type":"clearActivityLog"})");
    world.advance(2);
    EXPECT_EQ(world.files.contents(activityLogFile), R"({"entries":[]})");
}

TEST_F(ActivityLogTest, ADeferredWriteDoesNotKeepTheProvider) {
    record("a");
    record("b");
    world.providers.letGoOfProxy();
    world.advance(5);
    EXPECT_EQ(writes(), 1u);
}

}  // namespace
}  // namespace vantry
