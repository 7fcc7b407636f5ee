// What a flow and a connection keep to, and the breaches on the core's side that they name.

#include "Platform/Simulated/Contracts.h"
#include "Platform/Simulated/Expectations.h"
#include "Platform/Simulated/FlowBytes.h"

namespace platform::simulated {
namespace {

using Kind = NWConnection::State::Kind;
const NSError broken{"posix", 54, "Connection reset by peer"};
const auto pool = DispatchQueue::global(QualityOfService::userInitiated);

// A connection whose states and completions are written down in order.
struct Relay {
    Relay()
        : connection(std::make_unique<NWConnection>(
              NWEndpoint::Host("peer"), *NWEndpoint::Port::fromString("443"), NWParameters{})) {
        connection->setStateUpdateHandler([this](const NWConnection::State& state) {
            events += state.kind == Kind::cancelled ? "cancelled " : "";
        });
    }

    void send(const std::string& bytes) {
        connection->send(
            bytes, NWConnection::ContentContext::defaultMessage, true,
            [this](std::optional<NSError> error) { events += error ? "unsent " : "sent "; });
    }
    void receive() {
        connection->receive(1, 65536,
                            [this](std::optional<Data> data, NWConnection::ContentContext,
                                   bool isComplete, std::optional<NSError> error) {
                                if (data && !data->isEmpty()) events += bytesOf(*data);
                                if (isComplete) events += "|";
                                if (error) events += "!";
                                events += " ";
                            });
    }
    std::string take() { return std::exchange(events, {}); }

    std::unique_ptr<NWConnection> connection;
    std::string events;
};

TEST(Connection, ACancelCompletesWhatIsOutstandingThenGivesTheFinalStateThenNothing) {
    for (std::uint64_t seed = 1; seed <= 50; ++seed) {
        World world({.order = Order::drawn, .seed = seed});
        auto slow = world.peer("peer", 443);
        slow.stopsReading();
        Relay dropped;
        dropped.connection->start(pool);
        world.runUntilIdle();
        dropped.receive();
        dropped.connection.reset();
        world.runUntilIdle();
        EXPECT_EQ(dropped.take(), "! ") << "what is outstanding completes, and no state comes";
        Relay relay;
        relay.connection->start(pool);
        world.runUntilIdle();
        relay.send("x");
        relay.receive();
        relay.connection->cancel();
        relay.connection->cancel();
        EXPECT_EQ(relay.events, "") << "nothing runs inside the call";
        world.runUntilIdle();
        EXPECT_THAT(relay.take(), testing::AnyOf("unsent ! cancelled ", "! unsent cancelled "));
        slow.sends("late");
        slow.makesWaiting(broken);
        world.advance(100);
        EXPECT_EQ(relay.take(), "");
    }
}

TEST(Connection, BreachesOnTheCoresSideAreNamed) {
    World world;
    auto peer = world.peer("peer", 443);
    Relay relay;
    relay.connection->start(pool);
    peer.stopsReading();
    collectBreaches(true);
    relay.connection->start(pool);
    relay.connection->setStateUpdateHandler([](const NWConnection::State&) {});
    relay.send("x");
    relay.send("y");
    relay.receive();
    relay.receive();
    EXPECT_EQ(takeBreaches(),
              (std::vector<std::string>{"a connection is started a second time",
                                        "a state handler is set on a connection that was started",
                                        "a send is called while one is outstanding",
                                        "a receive is called while one is outstanding"}));
    collectBreaches(false);
}

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
    // A flow that is dropped open completes what is outstanding too.
    flow = world.tcpFlow(app, "example.com", "80");
    object = flow.object();
    open();
    EXPECT_EQ(takeWhenIdle(), "opened ");
    read();
    object.reset();
    EXPECT_EQ(takeWhenIdle(), "unread ");
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
