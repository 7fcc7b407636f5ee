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
            states.push_back(state.kind);
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
    std::vector<Kind> states;
    std::string events;
};

class ConnectionTest : public testing::Test {
protected:
    World world;
    Peer peer = world.peer("peer", 443);
};

TEST(Connection, ACancelCompletesWhatIsOutstandingThenGivesTheFinalStateThenNothing) {
    for (std::uint64_t seed = 1; seed <= 50; ++seed) {
        World world({.order = Order::drawn, .seed = seed});
        auto slow = world.peer("peer", 443);
        slow.stopsReading();
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

TEST_F(ConnectionTest, ItsEndIsKeptWhicheverWayItComes) {
    Relay early;
    early.connection->cancel();
    early.connection->start(pool);
    world.advance(10);
    EXPECT_TRUE(early.states.empty());
    EXPECT_TRUE(peer.connections().empty());

    Relay letGo;
    letGo.connection->start(pool);
    world.runUntilIdle();
    letGo.receive();
    letGo.connection.reset();
    world.runUntilIdle();
    EXPECT_EQ(letGo.take(), "! ") << "what is outstanding completes, and no state comes";

    const auto held = std::make_shared<int>();
    NWConnection connection(NWEndpoint::Host("peer"), *NWEndpoint::Port::fromString("443"), {});
    connection.setStateUpdateHandler([held](const NWConnection::State&) {});
    connection.start(pool);
    connection.cancel();
    EXPECT_EQ(held.use_count(), 2) << "the handler is held until the final state";
    world.runUntilIdle();
    EXPECT_EQ(held.use_count(), 1);
}

TEST_F(ConnectionTest, BreachesOnTheCoresSideAreNamed) {
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

TEST(PathMonitor, GetsThePresentPathAndEachChangeInOrderUntilItEnds) {
    const NWInterface wifi("en0", NWInterface::InterfaceType::wifi);
    const NWInterface wired("en1", NWInterface::InterfaceType::wiredEthernet);
    for (const bool isCancelled : {true, false}) {
        World world({.order = Order::drawn, .seed = 3});
        world.scheduler.setLatency(0.5);  // which changes no order
        world.setPath({wifi});
        std::string seen;
        auto monitor = std::make_unique<NWPathMonitor>();
        monitor->setPathUpdateHandler([&](const NWPath& path) {
            for (const auto& interface : path.availableInterfaces) seen += interface.name();
            seen += " ";
        });
        monitor->start(DispatchQueue::global(QualityOfService::utility));
        EXPECT_EQ(seen, "");
        world.setPath({wired, wifi});
        world.setPath({});
        world.runUntilIdle();
        EXPECT_EQ(seen, "en0 en1en0  ");
        world.setPath({wired});
        isCancelled ? monitor->cancel() : monitor.reset();
        world.runUntilIdle();
        EXPECT_EQ(seen, "en0 en1en0  ") << "nothing is delivered after the end";
        EXPECT_EQ(world.network.monitors().cancelled, isCancelled ? 1 : 0);
        EXPECT_EQ(world.network.monitors().letGoWithoutCancel, isCancelled ? 0 : 1);
        EXPECT_EQ(world.network.monitorsAtWork(), 0u);
    }
}

}  // namespace
}  // namespace platform::simulated
