#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Platform/Simulated/Contracts.h"
#include "Platform/Simulated/Expectations.h"
#include "Platform/Simulated/FlowBytes.h"

namespace platform::simulated {
namespace {

const NSError reset{NEAppProxyErrorDomain, NEAppProxyFlowErrorPeerReset, ""};

// Apart, so that the compiler's own analysis does not see what the platform has to notice.
void takeAndRelease(NSLock& lock) { const NSLockGuard guard(lock); }

// What a completion with an optional error brought, and how often it ran.
struct Seen {
    int times = 0;
    std::optional<NSError> error;
    std::optional<Data> data;

    Completion<std::optional<NSError>> errorOnly() {
        return [this](std::optional<NSError> failure) {
            ++times;
            error = std::move(failure);
        };
    }
    NEAppProxyTCPFlow::ReadCompletion read() {
        return [this](std::optional<Data> bytes, std::optional<NSError> failure) {
            ++times;
            data = std::move(bytes);
            error = std::move(failure);
        };
    }
};

class FlowTest : public testing::Test {
protected:
    std::shared_ptr<NEAppProxyTCPFlow> opened() {
        auto object = flow.object();
        object->openWithLocalEndpoint(nullptr, [](std::optional<NSError>) {});
        world.runUntilIdle();
        return object;
    }

    World world;
    const Process app = world.application("A", "com.example.A");
    Flow flow = world.tcpFlow(app, "example.com", "443");
};

TEST_F(FlowTest, CompletionsRunLaterAndOnce) {
    const auto object = flow.object();
    Seen open;
    Seen read;
    Seen write;
    object->openWithLocalEndpoint(nullptr, open.errorOnly());
    EXPECT_EQ(open.times, 0);
    world.runUntilIdle();
    EXPECT_EQ(open.times, 1);
    flow.sends("hello");
    world.runUntilIdle();
    object->readData(read.read());
    object->writeData("to the application", write.errorOnly());
    EXPECT_EQ(read.times + write.times, 0);
    world.runUntilIdle();
    EXPECT_EQ(read.times, 1);
    EXPECT_EQ(write.times, 1);
    ASSERT_TRUE(read.data);
    EXPECT_FALSE(read.data->bytes()) << "bytes of a flow are not for the core to look at";
    EXPECT_EQ(bytesOf(*read.data), "hello");
    EXPECT_EQ(flow.received(), "to the application");
}

TEST_F(FlowTest, ACloseEndsWhatIsOutstandingWithAnErrorAndTheFirstOneCounts) {
    const auto object = opened();
    flow.stopsReading();
    Seen read;
    Seen write;
    Seen later;
    object->readData(read.read());
    object->writeData("x", write.errorOnly());
    object->closeReadWithError(reset);
    object->closeWriteWithError(reset);
    object->closeWriteWithError(std::nullopt);
    world.runUntilIdle();
    EXPECT_EQ(read.times, 1);
    EXPECT_EQ(write.times, 1);
    EXPECT_TRUE(read.error && write.error);
    object->readData(later.read());
    world.runUntilIdle();
    EXPECT_TRUE(later.error);
    EXPECT_EQ(flow.received(), "");
    EXPECT_EQ(flow.readCloses(), (std::vector<std::optional<NSError>>{reset}));
    EXPECT_EQ(flow.writeCloses(), (std::vector<std::optional<NSError>>{reset, std::nullopt}));
    EXPECT_FALSE(flow.isClosedOnceWith(reset));
}

TEST_F(FlowTest, AnOpeningAlwaysCompletes) {
    for (const bool isClosedMeanwhile : {true, false}) {
        auto toOpen = world.tcpFlow(app, "example.com", "1");
        if (!isClosedMeanwhile) toOpen.neverOpens();
        const auto object = toOpen.object();
        Seen open;
        object->openWithLocalEndpoint(nullptr, open.errorOnly());
        if (isClosedMeanwhile) object->closeReadWithError(std::nullopt);
        world.advance(20);
        EXPECT_EQ(open.times, 1);
        EXPECT_EQ(open.error.has_value(), !isClosedMeanwhile);
    }
}

TEST_F(FlowTest, AFlowThatIsLetGoCompletesWhatIsOutstanding) {
    Seen read;
    {
        const auto object = opened();
        object->readData(read.read());
    }
    world.runUntilIdle();
    EXPECT_EQ(read.times, 1);
    EXPECT_TRUE(read.error);
    EXPECT_TRUE(flow.record().wasLetGoOpen);
}

TEST_F(FlowTest, BreachesOnTheCoresSideAreNamed) {
    const auto ignoreError = [](std::optional<NSError>) {};
    const auto ignoreRead = [](std::optional<Data>, std::optional<NSError>) {};
    const auto object = opened();
    const auto unopened = world.tcpFlow(app, "example.com", "80").object();
    NSLock lock;
    flow.stopsReading();
    object->readData(ignoreRead);
    object->writeData("x", ignoreError);
    collectBreaches(true);
    object->openWithLocalEndpoint(nullptr, ignoreError);
    unopened->readData(ignoreRead);
    object->readData(ignoreRead);
    object->writeData("y", ignoreError);
    {
        const NSLockGuard guard(lock);
        object->closeReadWithError(std::nullopt);
    }
    {
        NSLock writerLock(NSLock::heldAcrossCalls);
        const NSLockGuard guard(writerLock);
        NSFileManager::defaultManager().writeAtomically("x", "/x");
    }
    EXPECT_EQ(takeBreaches(),
              (std::vector<std::string>{
                  "openWithLocalEndpoint is called a second time",
                  "readData is called on a flow that was not opened",
                  "readData is called while a read is outstanding",
                  "writeData is called while a write is outstanding",
                  "NEAppProxyTCPFlow.closeReadWithError is called while an NSLock is held"}));
    {
        const NSLockGuard guard(lock);
        takeAndRelease(lock);
    }
    EXPECT_EQ(takeBreaches().front(), "an NSLock is taken twice by one thread");
    collectBreaches(false);
}

}  // namespace
}  // namespace platform::simulated
