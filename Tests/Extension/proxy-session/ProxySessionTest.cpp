#include "Extension/proxy-session/ProxySession.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "Tests/Extension/TransparentProxyProvider/ProxyTest.h"

namespace vantry {
namespace {

using platform::NWConnection;
using platform::NWEndpoint;
using platform::simulated::Peer;
using Kind = NWConnection::State::Kind;
using namespace std::string_literals;

const NSError broken{"posix", 104, "Connection reset by peer"};
const auto ready = debug("sid=7 Connection ready, starting relay");

// A session between an application and a scripted peer, and what its owner sees of it.
struct Relay {
    explicit Relay(World& world, std::uint16_t port = 443)
        : peer(world.peer("peer.example", port)),
          flow(world.flow({.remoteEndpoint = NWHostEndpoint{"peer.example", "443"}})) {
        auto connection = std::make_shared<NWConnection>(
            NWEndpoint::Host("peer.example"), *NWEndpoint::Port::fromString(std::to_string(port)),
            platform::NWParameters::tcp());
        session =
            std::make_shared<ProxySession>(flow.object(), std::move(connection), "com.example.App",
                                           7, platform::Logger("test", "TransparentProxy"));
    }
    void start() {
        session->start([ends = ends] { ++*ends; });
    }
    bool isOpenAndRelaying() const {
        return *ends == 0 && !flow.isClosed() && peer.connection()->state() == Kind::ready;
    }
    testing::AssertionResult endedOnce(const std::optional<NSError>& closedWith = {}) const {
        const bool isClosed =
            closedWith ? flow.isClosedOnceWith(*closedWith) : flow.isClosedOnceCleanly();
        if (*ends == 1 && isClosed) return testing::AssertionSuccess();
        return testing::AssertionFailure() << *ends << " ends, closed " << isClosed;
    }

    Peer peer;
    Flow flow;
    std::shared_ptr<ProxySession> session;
    std::shared_ptr<std::atomic<int>> ends = std::make_shared<std::atomic<int>>(0);
};

class ProxySessionTest : public testing::Test {
protected:
    void startAndConnect() {
        relay.start();
        world.runUntilIdle();
        ASSERT_TRUE(relay.isOpenAndRelaying());
        ASSERT_TRUE(logIs(world, {ready}));
    }

    World world;
    Relay relay{world};
};

TEST_F(ProxySessionTest, OpensTheFlowFirstAndThenConnectsAndMovesBytesBothWays) {
    relay.flow.opensAfter(5);
    relay.flow.sends("early");
    relay.peer.echoes();
    relay.start();
    world.advance(4);
    EXPECT_TRUE(relay.peer.connections().empty());
    world.advance(2);
    EXPECT_EQ(relay.flow.received(), "early");
    relay.flow.sends("more");
    relay.peer.sends(std::string(100'000, 'x'));
    world.runUntilIdle();
    EXPECT_EQ(relay.peer.received(), "earlymore");
    EXPECT_EQ(relay.flow.received().size(), 100'009u);
    EXPECT_TRUE(relay.isOpenAndRelaying());
    EXPECT_TRUE(logIs(world, {ready}));
}

TEST_F(ProxySessionTest, EndsWhenTheFlowCannotBeOpenedOrTheConnectionIsRefused) {
    relay.flow.failsOpening({"test", 1, "gone"});
    relay.start();
    world.runToEnd();
    EXPECT_TRUE(relay.endedOnce());
    EXPECT_TRUE(relay.peer.connections().empty());
    Relay refused(world, 1);
    refused.peer.refuses();
    refused.start();
    world.runToEnd();
    EXPECT_TRUE(refused.endedOnce());
    EXPECT_TRUE(logIs(world, {error("Failed to open TCP flow: gone"),
                              error("sid=7 Connection failed: Connection refused")}));
}

// How a relay ends by itself, with what it logs behind the line of the connection's being ready.
TEST_F(ProxySessionTest, EndsAsAWholeWhenEitherSideEndsOrFails) {
    struct Case {
        const char* what;
        void (*happens)(Relay&);
        std::vector<ExpectedLine> lines;
        const char* received;
    };
    const std::vector<Case> cases{
        {"the application ends its sending", [](auto& r) { r.flow.endsSending(); }, {}, ""},
        {"the application's side fails", [](auto& r) { r.flow.fails(broken); }, {}, ""},
        {"the peer ends with its last bytes", [](auto& r) { r.peer.sendsLast("z"); }, {}, "z"},
        {"the peer ends alone", [](auto& r) { r.peer.sends("a"), r.peer.ends(); }, {}, "a"},
        {"a receive brings nothing",
         [](auto& r) { r.peer.sendsNothing(); },
         {debug("sid=7 Empty receive without completion, cancelling")},
         ""},
        {"a receive fails with bytes", [](auto& r) { r.peer.breaks(broken, "lost"); }, {}, ""},
        {"a send fails", [](auto& r) { r.peer.failsNextSend(broken), r.flow.sends("x"); }, {}, ""},
        {"a write fails",
         [](auto& r) { r.flow.failsNextWrite(broken), r.peer.sends("x"); },
         {},
         ""},
    };
    int port = 1000;
    for (const auto& test : cases) {
        Relay one(world, static_cast<std::uint16_t>(++port));
        one.start();
        world.runUntilIdle();
        ASSERT_TRUE(one.isOpenAndRelaying()) << test.what;
        world.takeLog();
        test.happens(one);
        world.runToEnd();
        EXPECT_TRUE(one.endedOnce()) << test.what;
        EXPECT_EQ(one.flow.received(), test.received) << test.what;
        EXPECT_TRUE(logIs(world, test.lines)) << test.what;
        EXPECT_EQ(one.peer.connection()->record().states.back(), Kind::cancelled) << test.what;
        // The end that came with the bytes is believed: nothing more is asked for.
        EXPECT_TRUE(test.received != "z"s || one.peer.connection()->record().receives == 1);
    }
}

TEST_F(ProxySessionTest, TheFirstCancelDecidesWhatTheApplicationSees) {
    for (const bool gracefullyFirst : {false, true}) {
        Relay one(world, gracefullyFirst ? 1 : 2);
        one.start();
        world.runUntilIdle();
        if (gracefullyFirst) one.session->cancelGracefully();
        one.session->cancel();
        one.session->cancelGracefully();
        EXPECT_EQ(*one.ends, 1);
        world.runToEnd();
        EXPECT_TRUE(one.endedOnce(gracefullyFirst ? std::optional(peerReset()) : std::nullopt));
    }
}

TEST_F(ProxySessionTest, ASessionKilledBeforeItsStartOpensNothing) {
    relay.session->cancelGracefully();
    relay.start();
    world.runToEnd();
    EXPECT_EQ(relay.flow.record().opens, 0);
    EXPECT_TRUE(relay.flow.isClosedOnceWith(peerReset()));
    EXPECT_LE(*relay.ends, 1);
    EXPECT_TRUE(relay.peer.connections().empty());
}

TEST_F(ProxySessionTest, AConnectionThatStaysWaitingIsGivenUpThirtySecondsAfterTheFirstTime) {
    relay.peer.isUnreachable();
    relay.start();
    world.runUntilIdle();
    ASSERT_EQ(world.takeLog().size(), 1u);
    world.advance(29);
    relay.peer.makesWaiting({"posix", 101, "Network is unreachable"});
    world.runUntilIdle();
    EXPECT_EQ(*relay.ends, 0);
    EXPECT_TRUE(logIs(world, {error("sid=7 Connection waiting: Network is unreachable")}));
    world.advance(1.5);
    EXPECT_TRUE(relay.endedOnce());
    EXPECT_TRUE(logIs(world, {error("sid=7 Connection stuck in .waiting(), cancelling")}));
    world.runToEnd();
    EXPECT_TRUE(logIs(world, {}));
}

TEST_F(ProxySessionTest, AConnectionThatLeavesWaitingGoesOnWhenTheTimerFires) {
    relay.peer.waits(3);
    relay.peer.echoes();
    relay.start();
    world.advance(20);
    ASSERT_TRUE(relay.isOpenAndRelaying());
    world.advance(60);
    EXPECT_TRUE(relay.isOpenAndRelaying());
    relay.flow.sends("alive");
    world.runUntilIdle();
    EXPECT_EQ(relay.flow.received(), "alive");
}

TEST_F(ProxySessionTest, ASideThatDoesNotReadHoldsBackTheOther) {
    startAndConnect();
    relay.flow.stopsReading();
    relay.peer.stopsReading();
    for (int n = 0; n < 20; ++n) {
        relay.peer.sends(std::string(65'536, 'd'));
        relay.flow.sends(std::string(65'536, 'u'));
    }
    world.runUntilIdle();
    const auto taken = relay.flow.record();
    EXPECT_EQ(taken.reads, 1);
    EXPECT_EQ(taken.writes, 1);
    EXPECT_EQ(relay.peer.connection()->record().receives, 1);
    EXPECT_EQ(relay.peer.connection()->record().sends, 1);
    relay.flow.readsOn();
    relay.peer.readsOn();
    world.runUntilIdle();
    EXPECT_EQ(relay.flow.received().size(), 20u * 65'536u);
    EXPECT_EQ(relay.peer.received().size(), 20u * 65'536u);
}

TEST_F(ProxySessionTest, ASessionThatWasLetGoDoesNothingMore) {
    startAndConnect();
    const std::weak_ptr<ProxySession> gone = relay.session;
    relay.session.reset();
    EXPECT_TRUE(gone.expired());
    relay.flow.sends("late");
    relay.peer.sends("late");
    world.runToEnd();
    EXPECT_EQ(*relay.ends, 0);
    EXPECT_TRUE(logIs(world, {}));
}

}  // namespace
}  // namespace vantry
