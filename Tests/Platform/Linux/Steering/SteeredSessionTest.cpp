// The extension's own session over the two ends of a steered one: what it makes of each event of the
// socket, and what is done to the socket in turn.
#include "Platform/Linux/Steering/SteeredSession.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>

#include "Extension/proxy-session/ProxySession.h"
#include "Platform/Linux/CarriedEnds.h"
#include "Platform/Linux/SystemError.h"
#include "Tests/Platform/Linux/Eventually.h"

namespace platform::steering {

namespace {

using Decision = SteeredSession::Decision;
using vantry::ProxySession;

const Logger logger("test", "steering");

struct ScriptedSocket final : SessionSocket {
    Way findWay(const std::string& name) override {
        EXPECT_EQ(name, "eth0");
        return way;
    }
    void destroy() override { done += "destroy "; }
    void finish() override { done += "finish "; }
    void holdBack() override { done += "hold "; }

    Way way{Way::Kind::open, 3};
    std::string done;
};

// What the proxy does with a flow that it claims.
class SteeredSessionStory : public testing::Test, private OfferInProgress {
protected:
    void SetUp() override {
        NWParameters parameters;
        parameters.requiredInterface.emplace("eth0", NWInterface::InterfaceType::wiredEthernet);
        auto connection = std::make_shared<NWConnection>(
            NWEndpoint::Host("192.0.2.1"), *NWEndpoint::Port::fromString("80"), parameters);
        auto flow = std::make_shared<NEAppProxyTCPFlow>(NEFlowMetaData(), RemoteEndpoint(),
                                                        flowOf(session));
        proxied = std::make_shared<ProxySession>(std::move(flow), std::move(connection), "app", 1,
                                                 logger);
        proxied->start([this] { ++ends; });
    }
    void TearDown() override {
        // Nothing is told twice, and the end comes in every story.
        proxied.reset();
        EXPECT_TRUE(eventually([&] { return ends == 1; }));
    }
    Decision decide() { return session->decide().decision; }
    void establish() {
        ASSERT_EQ(decide(), Decision::steer);
        SteeredSocket seen{};
        seen.isEstablished = 1;
        session->socketChanged(seen);
    }
    void close(int error, bool isReleased = false) {
        SteeredSocket seen{};
        seen.isClosed = 1;
        seen.isReleased = isReleased ? 1 : 0;
        seen.error = error;
        session->socketChanged(seen);
    }
    bool ended() {
        return eventually([&] { return ends == 1; });
    }

    const std::shared_ptr<ScriptedSocket> socket = std::make_shared<ScriptedSocket>();
    const std::shared_ptr<SteeredSession> session = std::make_shared<SteeredSession>(socket);
    std::shared_ptr<ProxySession> proxied;
    std::atomic<int> ends = 0;

private:
    std::shared_ptr<NWConnection::Implementation> pairWith(
        const std::string&, std::uint16_t, const NWParameters& parameters) override {
        session->setInterface(parameters.requiredInterface->name());
        return connectionOf(session);
    }
};

TEST_F(SteeredSessionStory, EndsOfTheSocketEndTheSessionAndAreLeftAlone) {
    establish();
    close(0);
    EXPECT_TRUE(ended());
    EXPECT_EQ(socket->done, "");
    EXPECT_EQ(session->decideAgain().decision, Decision::deny);
}

TEST_F(SteeredSessionStory, ResetEndsTheSession) {
    establish();
    close(ECONNRESET);
    EXPECT_TRUE(ended());
    EXPECT_EQ(socket->done, "");
}

TEST_F(SteeredSessionStory, RefusalEndsTheSessionAndIsLeftToTheApplication) {
    EXPECT_EQ(decide(), Decision::steer);
    // The application may have closed it by the time that the event is read.
    close(ECONNREFUSED, true);
    EXPECT_TRUE(ended());
    EXPECT_EQ(socket->done, "");
}

TEST_F(SteeredSessionStory, OtherFamilyMayTry) {
    socket->way = {Way::Kind::otherFamilyOnly, 0};
    EXPECT_EQ(decide(), Decision::unreachable);
    EXPECT_TRUE(ended());
    EXPECT_EQ(session->decideAgain().decision, Decision::unreachable);
}

TEST_F(SteeredSessionStory, WaitsForAWayWithEachOpeningThatComesAgain) {
    socket->way = {};
    EXPECT_EQ(decide(), Decision::drop);
    EXPECT_EQ(session->decideAgain().decision, Decision::drop);
    socket->way = {Way::Kind::open, 5};
    EXPECT_EQ(session->decideAgain().number, 5u);
    proxied->cancel();
    EXPECT_EQ(socket->done, "destroy ");
}

TEST_F(SteeredSessionStory, WaitsForNoInterfaceThatIsGone) {
    socket->way = {};
    EXPECT_EQ(decide(), Decision::drop);
    socket->way = {Way::Kind::gone, 0};
    EXPECT_EQ(session->decideAgain().decision, Decision::deny);
    EXPECT_TRUE(ended());
    EXPECT_EQ(socket->done, "destroy ");
}

TEST_F(SteeredSessionStory, StopIsOrderlyAndAKillIsNot) {
    establish();
    proxied->cancel();
    EXPECT_EQ(socket->done, "finish ");
    close(0, true);
}

TEST_F(SteeredSessionStory, KillAfterItWasHeldBack) {
    establish();
    proxied->holdBack();
    EXPECT_EQ(session->decideAgain().decision, Decision::drop);
    proxied->cancelGracefully();
    EXPECT_EQ(socket->done, "hold destroy ");
}

TEST_F(SteeredSessionStory, CancelBeforeTheDecisionConnectsNothing) {
    proxied->cancelGracefully();
    EXPECT_EQ(decide(), Decision::deny);
    EXPECT_EQ(socket->done, "");
}

TEST_F(SteeredSessionStory, FilterThatDropsFailsTheOpening) {
    session->failOpening(systemError(ECONNABORTED));
    EXPECT_TRUE(ended());
    EXPECT_EQ(socket->done, "");
}

TEST_F(SteeredSessionStory, LossOfTheNetworkEndsTheSocketFirst) {
    establish();
    session->networkLost();
    EXPECT_EQ(socket->done, "destroy ");
    close(ECONNABORTED);
    EXPECT_TRUE(ended());
}

}  // namespace

}  // namespace platform::steering
