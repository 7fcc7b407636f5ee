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

using Kind = NWConnection::State::Kind;
using Kinds = std::vector<Kind>;
const NSError broken{"posix", 54, "Connection reset by peer"};
const auto pool = DispatchQueue::global(QualityOfService::userInitiated);

// A connection whose states and completions are written down in order.
struct Relay {
    explicit Relay(std::optional<NWInterface> interface = std::nullopt)
        : connection(std::make_unique<NWConnection>(NWEndpoint::Host("peer"),
                                                    *NWEndpoint::Port::fromString("443"),
                                                    NWParameters{std::move(interface)})) {
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
    void receive(std::size_t minimum = 1, std::size_t maximum = 65536) {
        connection->receive(minimum, maximum,
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
    Kinds states;
    std::string events;
};

class ConnectionTest : public testing::Test {
protected:
    World world;
    Peer peer = world.peer("peer", 443);
};

TEST_F(ConnectionTest, StatesFollowWhatThePeerDoes) {
    struct Case {
        const char* name;
        void (*script)(Peer&);
        Kinds states;
    };
    const Case cases[] = {
        {"accepts", [](Peer&) {}, {Kind::preparing, Kind::ready}},
        {"refuses", [](Peer& p) { p.refuses(); }, {Kind::preparing, Kind::failed}},
        {"unreachable", [](Peer& p) { p.isUnreachable(); }, {Kind::preparing, Kind::waiting}},
        {"silent", [](Peer& p) { p.isSilent(); }, {Kind::preparing}},
        {"waits twice",
         [](Peer& p) { p.waits(2); },
         {Kind::preparing, Kind::waiting, Kind::waiting, Kind::ready}},
    };
    for (const auto& each : cases) {
        peer.accepts();
        each.script(peer);
        Relay relay;
        relay.connection->start(pool);
        EXPECT_TRUE(relay.states.empty());
        world.advance(10);
        EXPECT_EQ(relay.states, each.states) << each.name;
    }
}

TEST_F(ConnectionTest, AConnectionThatWaitsTriesAgainWhenThePathChanges) {
    world.setPath({{"utun0", NWInterface::InterfaceType::other}});
    const NWInterface wifi("en0", NWInterface::InterfaceType::wifi);
    Relay relay(wifi);
    relay.connection->start(pool);
    world.advance(60);
    EXPECT_EQ(relay.states, (Kinds{Kind::preparing, Kind::waiting}));
    world.setPath({wifi});
    world.runUntilIdle();
    EXPECT_EQ(relay.states.back(), Kind::ready);
    EXPECT_EQ(peer.connection()->requiredInterface(), wifi);
}

TEST_F(ConnectionTest, ReceivesKeepTheirLengthsAndTheEndComesWithTheLastBytes) {
    peer.sends("abcdef");
    peer.sends("gh");
    peer.sendsLast("ij");
    Relay relay;
    relay.connection->start(pool);
    const auto receive = [&](std::size_t minimum, std::size_t maximum) {
        relay.receive(minimum, maximum);
        world.runUntilIdle();
        return relay.take();
    };
    EXPECT_EQ(receive(1, 4), "abcd ");
    EXPECT_EQ(receive(3, 100), "efgh ");
    EXPECT_EQ(receive(1, 1), "i ");
    EXPECT_EQ(receive(5, 100), "j| ");
    EXPECT_EQ(receive(1, 100), "| ");
}

TEST_F(ConnectionTest, OddReceivesComeAsScripted) {
    peer.sendsNothing();
    peer.breaks(broken, "tail");
    Relay relay;
    relay.connection->start(pool);
    relay.receive();
    world.runUntilIdle();
    EXPECT_EQ(relay.take(), " ");
    relay.receive();
    world.runUntilIdle();
    EXPECT_EQ(relay.take(), "tail! ");
}

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

TEST_F(ConnectionTest, AStartAfterACancelConnectsNothing) {
    Relay relay;
    relay.connection->cancel();
    relay.connection->start(pool);
    world.advance(10);
    EXPECT_TRUE(relay.states.empty());
    EXPECT_TRUE(peer.connections().empty());
}

TEST_F(ConnectionTest, AConnectionThatIsLetGoCompletesWhatIsOutstandingWithoutAState) {
    Relay relay;
    relay.connection->start(pool);
    world.runUntilIdle();
    relay.receive();
    relay.connection.reset();
    world.runUntilIdle();
    EXPECT_EQ(relay.take(), "! ");
}

TEST_F(ConnectionTest, TheHandlerIsHeldUntilTheFinalState) {
    const auto held = std::make_shared<int>();
    NWConnection connection(NWEndpoint::Host("peer"), *NWEndpoint::Port::fromString("443"), {});
    connection.setStateUpdateHandler([held](const NWConnection::State&) {});
    connection.start(pool);
    connection.cancel();
    EXPECT_EQ(held.use_count(), 2);
    world.runUntilIdle();
    EXPECT_EQ(held.use_count(), 1);
}

TEST_F(ConnectionTest, APeerHoldsBackFailsAndReturnsBytes) {
    peer.echoes();
    peer.stopsReading();
    Relay relay;
    relay.connection->start(pool);
    relay.send("ping");
    world.advance(100);
    EXPECT_EQ(relay.take(), "");
    peer.readsOn();
    relay.receive();
    world.runUntilIdle();
    EXPECT_EQ(relay.take(), "sent ping ");
    peer.failsNextSend(broken);
    relay.send("more");
    world.runUntilIdle();
    EXPECT_EQ(relay.take(), "unsent ");
    EXPECT_EQ(peer.received(), "ping");
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
    World world({.order = Order::drawn, .seed = 3});
    const NWInterface wifi("en0", NWInterface::InterfaceType::wifi);
    const NWInterface wired("en1", NWInterface::InterfaceType::wiredEthernet);
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
    monitor->cancel();
    world.runUntilIdle();
    EXPECT_EQ(seen, "en0 en1en0  ") << "nothing is delivered after the cancel";
    EXPECT_EQ(world.network.monitors().cancelled, 1);

    auto letGo = std::make_unique<NWPathMonitor>();
    letGo->setPathUpdateHandler([&](const NWPath&) { seen += "late"; });
    letGo->start(DispatchQueue::global(QualityOfService::utility));
    letGo.reset();
    world.runUntilIdle();
    EXPECT_EQ(seen, "en0 en1en0  ");
    EXPECT_EQ(world.network.monitors().letGoWithoutCancel, 1);
    EXPECT_EQ(world.network.monitorsAtWork(), 0u);
}

}  // namespace
}  // namespace platform::simulated
