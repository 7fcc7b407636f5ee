#include "Platform/Simulated/Contracts.h"
#include "Platform/Simulated/Expectations.h"
#include "Platform/Simulated/FlowBytes.h"

namespace platform::simulated {
namespace {

const NSError reset{NEAppProxyErrorDomain, NEAppProxyFlowErrorPeerReset, ""};

// Apart, so that the compiler's own analysis does not see what the platform has to notice.
void takeAndRelease(NSLock& lock) { const NSLockGuard guard(lock); }

// The core's side of a flow, whose completions are written down in order.
class FlowTest : public testing::Test {
protected:
    void open() {
        object->openWithLocalEndpoint(nullptr, [this](std::optional<NSError> error) {
            events += error ? "unopened " : "opened ";
        });
    }
    void read() {
        object->readData([this](std::optional<Data> data, std::optional<NSError> error) {
            EXPECT_FALSE(data && data->bytes()) << "a flow's bytes are not for the core to look at";
            events += (error ? "unread" : bytesOf(data.value_or(Data()))) + " ";
        });
    }
    void write(const char* bytes) {
        object->writeData(bytes, [this](std::optional<NSError> error) {
            events += error ? "unwritten " : "written ";
        });
    }
    std::string take() { return std::exchange(events, {}); }
    std::string takeWhenIdle() {
        EXPECT_EQ(take(), "") << "no completion runs inside its call";
        world.runUntilIdle();
        return take();
    }

    World world;
    const Process app = world.application("A", "com.example.A");
    Flow flow = world.tcpFlow(app, "example.com", "443");
    std::shared_ptr<NEAppProxyTCPFlow> object = flow.object();
    std::string events;
};

TEST_F(FlowTest, CompletionsRunLaterAndOnce) {
    open();
    EXPECT_EQ(takeWhenIdle(), "opened ");
    flow.sends("hello");
    world.runUntilIdle();
    read();
    write("to the application");
    EXPECT_EQ(takeWhenIdle(), "hello written ");
    EXPECT_EQ(flow.received(), "to the application");
    flow.stopsReading();
    read();
    write("x");
    object->closeReadWithError(reset);
    object->closeWriteWithError(reset);
    object->closeWriteWithError(std::nullopt);
    EXPECT_EQ(takeWhenIdle(), "unread unwritten ");
    read();
    EXPECT_EQ(takeWhenIdle(), "unread ");
    EXPECT_EQ(flow.received(), "to the application");
    EXPECT_EQ(flow.record().readCloses, (std::vector<std::optional<NSError>>{reset}));
    EXPECT_EQ(flow.record().writeCloses, (std::vector<std::optional<NSError>>{reset, {}}));
    EXPECT_FALSE(flow.isClosedOnceWith(reset));
}

TEST_F(FlowTest, WhatIsOutstandingCompletesWhenNobodyComesOrTheFlowIsLetGo) {
    flow.neverOpens();
    open();
    world.advance(20);
    EXPECT_EQ(take(), "unopened ");

    flow = world.tcpFlow(app, "example.com", "1");
    object = flow.object();
    open();
    object->closeReadWithError(std::nullopt);
    EXPECT_EQ(takeWhenIdle(), "opened ");

    flow = world.tcpFlow(app, "example.com", "2");
    object = flow.object();
    open();
    EXPECT_EQ(takeWhenIdle(), "opened ");
    read();
    object.reset();
    EXPECT_EQ(takeWhenIdle(), "unread ");
    EXPECT_TRUE(flow.record().wasLetGoOpen);
}

TEST_F(FlowTest, BreachesOnTheCoresSideAreNamed) {
    collectBreaches(true);
    read();
    open();
    world.runUntilIdle();
    flow.stopsReading();
    read();
    write("x");
    open();
    read();
    write("y");
    NSLock lock;
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
                  "readData is called on a flow that was not opened",
                  "openWithLocalEndpoint is called a second time",
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
