#include "Tests/Extension/TransparentProxyProvider/ProxyTest.h"

namespace vantry {
namespace {

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
            NWParameters::tcp());
        session =
            std::make_shared<ProxySession>(flow.object(), std::move(connection), "com.example.App",
                                           7, Logger("test", "TransparentProxy"));
    }
    void start() {
        session->start([ends = ends] { ++*ends; });
    }
    bool isOpenAndRelaying() const {
        const auto connection = peer.connection();
        return *ends == 0 && !flow.isClosed() && connection && connection->state() == Kind::ready;
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
    std::shared_ptr<int> ends = std::make_shared<int>(0);
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

// How a session ends: what is so before its start, what happens once it relays, and what comes of it.
TEST_F(ProxySessionTest, EndsAsAWholeWhicheverWayItEnds) {
    struct Case {
        const char* what;
        void (*before)(Relay&);
        void (*happens)(Relay&);
        std::vector<ExpectedLine> lines = {};
        const char* received = "";
        std::optional<NSError> closedWith = {};
    };
    const auto nothing = [](Relay&) {};
    const std::vector<Case> cases{
        {"the flow cannot be opened",
         [](auto& r) { r.flow.failsOpening(broken); },
         nothing,
         {error("Failed to open TCP flow: Connection reset by peer (posix 104)")}},
        {"the connection is refused",
         [](auto& r) { r.peer.refuses(); },
         nothing,
         {error("sid=7 Connection failed: Connection refused (posix 61)")}},
        {"the application ends its sending", nothing, [](auto& r) { r.flow.endsSending(); }},
        {"the application's side fails", nothing, [](auto& r) { r.flow.fails(broken); }},
        {"the peer ends with its last bytes",
         nothing,
         [](auto& r) { r.peer.sendsLast("z"); },
         {},
         "z"},
        {"the peer ends alone",
         nothing,
         [](auto& r) { r.peer.sends("a"), r.peer.ends(); },
         {},
         "a"},
        {"a receive brings nothing",
         nothing,
         [](auto& r) { r.peer.sendsNothing(); },
         {debug("sid=7 Empty receive without completion, cancelling")}},
        {"a receive fails with bytes", nothing, [](auto& r) { r.peer.breaks(broken, "lost"); }},
        {"a send fails", [](auto& r) { r.flow.sends("x"); },
         [](auto& r) { r.peer.failsNextSend(broken), r.flow.sends("x"); }},
        {"a write fails", nothing,
         [](auto& r) { r.flow.failsNextWrite(broken), r.peer.sends("x"); }},
        {"it is cancelled first", nothing,
         [](auto& r) { r.session->cancel(), r.session->cancelGracefully(); }},
        {"it is killed first",
         nothing,
         [](auto& r) { r.session->cancelGracefully(), r.session->cancel(); },
         {},
         "",
         peerReset()},
    };
    int port = 1000;
    for (const auto& test : cases) {
        Relay one(world, static_cast<std::uint16_t>(++port));
        test.before(one);
        one.start();
        world.runUntilIdle();
        if (one.isOpenAndRelaying()) world.takeLog();
        test.happens(one);
        world.runToEnd();
        EXPECT_TRUE(one.endedOnce(test.closedWith)) << test.what;
        EXPECT_EQ(one.flow.received(), test.received) << test.what;
        EXPECT_TRUE(logIs(world, test.lines)) << test.what;
        for (const auto& connection : one.peer.connections()) {
            EXPECT_EQ(connection->record().states.back(), Kind::cancelled) << test.what;
            // The end that came with the bytes is believed: nothing more is asked for.
            EXPECT_TRUE(test.received != "z"s || connection->record().receives == 1);
        }
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
    EXPECT_TRUE(
        logIs(world, {error("sid=7 Connection waiting: Network is unreachable (posix 101)")}));
    world.advance(1.5);
    EXPECT_TRUE(relay.endedOnce());
    EXPECT_TRUE(logIs(world, {error("sid=7 Connection stuck in .waiting(), cancelling")}));
    world.runToEnd();
    EXPECT_TRUE(logIs(world, {}));
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
    EXPECT_EQ(relay.peer.connection()->record().receives, 21);  // each as large as can be
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
