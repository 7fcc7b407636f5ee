#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Platform/Simulated/Contracts.h"
#include "Platform/Simulated/Expectations.h"
#include "Platform/Simulated/FlowBytes.h"
#include "Tests/Platform/Simulated/Providers.h"

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
    NSLock writerLock(NSLock::heldAcrossCalls);
    flow.stopsReading();
    collectBreaches(true);
    const auto breachesOf = [](auto&& call) {
        call();
        return takeBreaches();
    };
    using Texts = std::vector<std::string>;
    EXPECT_EQ(breachesOf([&] { object->openWithLocalEndpoint(nullptr, ignoreError); }),
              Texts{"openWithLocalEndpoint is called a second time"});
    EXPECT_EQ(breachesOf([&] { unopened->readData(ignoreRead); }),
              Texts{"readData is called on a flow that was not opened"});
    object->readData(ignoreRead);
    EXPECT_EQ(breachesOf([&] { object->readData(ignoreRead); }),
              Texts{"readData is called while a read is outstanding"});
    object->writeData("x", ignoreError);
    EXPECT_EQ(breachesOf([&] { object->writeData("y", ignoreError); }),
              Texts{"writeData is called while a write is outstanding"});
    EXPECT_EQ(breachesOf([&] {
                  const NSLockGuard guard(lock);
                  object->closeReadWithError(std::nullopt);
              }),
              Texts{"NEAppProxyTCPFlow.closeReadWithError is called while an NSLock is held"});
    EXPECT_EQ(breachesOf([&] {
                  const NSLockGuard guard(writerLock);
                  NSFileManager::defaultManager().writeAtomically("x", "/x");
              }),
              Texts{});
    EXPECT_EQ(breachesOf([&] {
                  const NSLockGuard guard(lock);
                  takeAndRelease(lock);
              }).front(),
              "an NSLock is taken twice by one thread");
    collectBreaches(false);
}

class OfferTest : public testing::Test {
protected:
    OfferTest() {
        EXPECT_TRUE(world.start());
        proxy = ScriptedProxy::present();
        filter = ScriptedFilter::present();
        proxy->onNewFlow = [this](const std::shared_ptr<NEAppProxyFlow>& object) {
            held = std::static_pointer_cast<NEAppProxyTCPFlow>(object);
            held->openWithLocalEndpoint(nullptr, open.errorOnly());
            return true;
        };
        filter->onNewFlow = [this](const NEFilterFlow&) { return verdict; };
        filter->onData = [this](std::int64_t offset, const Data& bytes) {
            shown += std::to_string(offset) + "+" + std::to_string(bytes.length()) + " ";
            return dataVerdict;
        };
    }

    World world;
    const Process app = world.application("A", "com.example.A");
    Flow flow = world.tcpFlow(app, "example.com", "443");
    std::shared_ptr<ScriptedProxy> proxy;
    std::shared_ptr<ScriptedFilter> filter;
    std::string shown;
    std::shared_ptr<NEAppProxyTCPFlow> held;
    Seen open;
    NEFilterNewFlowVerdict verdict = NEFilterNewFlowVerdict::allowVerdict();
    NEFilterDataVerdict dataVerdict = NEFilterDataVerdict::allowVerdict();
};

TEST_F(OfferTest, AClaimedFlowThatTheFilterDropsOpensWithAnError) {
    verdict = NEFilterNewFlowVerdict::dropVerdict();
    EXPECT_TRUE(world.offer(flow).dropped());
    world.runUntilIdle();
    EXPECT_EQ(open.times, 1);
    EXPECT_TRUE(open.error);
    EXPECT_TRUE(flow.isEnded());
}

TEST_F(OfferTest, WatchedBytesOfAClaimedFlowPassTheFilterBeforeTheProxyReadsThem) {
    verdict = NEFilterNewFlowVerdict::filterDataVerdict(false, 0, true, 1);
    dataVerdict = NEFilterDataVerdict::dataVerdict(3, 1);
    world.offer(flow);
    world.runUntilIdle();
    Seen read;
    held->readData(read.read());
    flow.sends("abcdef");
    world.runUntilIdle();
    ASSERT_TRUE(read.data);
    EXPECT_EQ(bytesOf(*read.data), "abc");
    dataVerdict = NEFilterDataVerdict::dropVerdict();
    held->readData(read.read());
    flow.sends("g");
    world.runUntilIdle();
    EXPECT_EQ(shown, "0+6 3+4 ");
    EXPECT_TRUE(read.error);
}

TEST_F(OfferTest, AProxyThatOpensAFlowAndDeclinesItBreaksTheContract) {
    proxy->onNewFlow = [this](const std::shared_ptr<NEAppProxyFlow>& object) {
        static_cast<NEAppProxyTCPFlow&>(*object).openWithLocalEndpoint(nullptr, open.errorOnly());
        return false;
    };
    collectBreaches(true);
    world.offer(flow);
    EXPECT_EQ(takeBreaches(),
              std::vector<std::string>{"a flow is opened by a proxy that then declines it"});
    collectBreaches(false);
}

}  // namespace
}  // namespace platform::simulated
