#include "Extension/ipc/ActivityLogResponseIPC.h"
#include "Tests/Extension/TransparentProxyProvider/ProxyTest.h"

namespace vantry {
namespace {

using platform::NWHostEndpoint;
using platform::simulated::error;
using platform::simulated::FileOperation;

class ActivityLogTest : public ProxyTest {
protected:
    void SetUp() override { ASSERT_TRUE(world.start()); }

    void record(const std::string& bundleId) {
        world.offerToProxy(world.flow(
            {.remoteEndpoint = NWHostEndpoint{"h", "1"}, .signingIdentifier = bundleId}));
    }
    void recordMany(int count, const std::string& prefix = "app") {
        for (int n = 0; n < count; ++n) record(prefix + std::to_string(n));
    }
    void leaveBlockRecord(const std::string& bundleId) {
        ActivityLogEntryIPC entry;
        entry.bundleId = bundleId;
        coordinator.recordQuicBlock(entry);
    }
    std::vector<std::string> fileEntries() const {
        std::vector<std::string> names;
        const auto file = world.files.contents(activityLogFile).value_or("");
        const auto decoded = ActivityLogResponseIPC::decode(file);
        if (const auto* log = std::get_if<ActivityLogResponseIPC>(&decoded))
            for (const auto& entry : log->entries) names.push_back(entry.bundleId);
        return names;
    }
    std::size_t writes() const {
        return world.files.count(FileOperation::writeAtomically, activityLogFile);
    }
};

TEST_F(ActivityLogTest, TheFirstEntryIsOnDiskAtOnceAndABurstIsWrittenOnceMore) {
    record("first");
    EXPECT_EQ(fileEntries(), std::vector<std::string>{"first"});
    EXPECT_EQ(world.files.permissions(activityLogFile), 0644);
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

TEST_F(ActivityLogTest, KeepsTheNewestFiveHundred) {
    recordMany(500);
    world.advance(2);
    EXPECT_EQ(fileEntries().size(), 500u);
    EXPECT_EQ(fileEntries().front(), "app0");
    record("one more");
    EXPECT_EQ(fileEntries().size(), 500u);
    EXPECT_EQ(fileEntries().front(), "app1");
    EXPECT_EQ(fileEntries().back(), "one more");
}

TEST_F(ActivityLogTest, TheFiltersRecordsJoinAtTheEndWithTheNextWrite) {
    recordMany(495);
    for (int n = 0; n < 20; ++n) leaveBlockRecord("block" + std::to_string(n));
    world.advance(2);
    const auto entries = fileEntries();
    ASSERT_EQ(entries.size(), 500u);
    EXPECT_EQ(entries.front(), "app15");
    EXPECT_EQ(entries[480], "block0");
    EXPECT_EQ(entries.back(), "block19");
    // Alone they set no write going.
    leaveBlockRecord("late");
    world.advance(60);
    EXPECT_EQ(fileEntries().back(), "block19");
    record("next");
    EXPECT_EQ(fileEntries().back(), "late");
    // A write collects them once, and a reset drops what nobody collected.
    leaveBlockRecord("dropped");
    world.stopProxy();
    world.advance(2);
    record("after");
    EXPECT_EQ(fileEntries().back(), "after");
}

TEST_F(ActivityLogTest, AFailedWriteKeepsTheOldFileAndAllEntries) {
    record("a");
    leaveBlockRecord("block");
    world.files.fail(FileOperation::writeAtomically, activityLogFile);
    world.advance(2);
    world.takeLog();
    record("b");
    ASSERT_EQ(fileEntries(), std::vector<std::string>{"a"});
    const auto lines = world.takeLog(proxyCategory);
    EXPECT_EQ(std::ranges::count(lines, "Failed to write activity log file: %{public}s",
                                 &platform::simulated::LogLine::format),
              1);
    world.advance(0.5);
    record("c");  // the failed attempt counts for the throttle
    EXPECT_EQ(fileEntries().size(), 1u);
    world.advance(1);
    EXPECT_EQ(fileEntries(), (std::vector<std::string>{"a", "b", "block", "c"}));

    world.files.fail(FileOperation::setPermissions, activityLogFile);
    world.advance(2);
    world.takeLog();
    record("d");
    EXPECT_EQ(fileEntries().size(), 5u);
    for (const auto& line : world.takeLog())
        EXPECT_NE(line.level, platform::LogLevel::error) << line;
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

TEST(ActivityLogStory, OverlappingFlowsAndMessagesNeverBreakTheList) {
    using namespace platform::simulated;
    World world({.order = Order::threads});
    ASSERT_TRUE(world.start());
    for (int n = 0; n < 1500; ++n)
        world.later(
            [&world, n] {
                ActivityLogEntryIPC block;
                block.bundleId = "block";
                if (n % 3 == 0) FlowKillCoordinator::shared().recordQuicBlock(block);
                if (n % 50 == 0) world.message(R"({"type":"getActiveApps"})");
                world.offerToProxy(world.flow({.remoteEndpoint = NWHostEndpoint{"h", "1"},
                                               .signingIdentifier = "app" + std::to_string(n)}));
            },
            n / 100.0);
    world.runToEnd();
    const auto decoded =
        ActivityLogResponseIPC::decode(world.files.contents(activityLogFile).value_or(""));
    ASSERT_TRUE(std::holds_alternative<ActivityLogResponseIPC>(decoded));
    EXPECT_EQ(std::get<ActivityLogResponseIPC>(decoded).entries.size(), 500u);
}

}  // namespace
}  // namespace vantry
