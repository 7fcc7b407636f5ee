// What a worker and the core still hold of direct connections when steering ends, and those that wait for an
// uplink.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <atomic>
#include <string>

#include "Extension/proxy-session/ProxySession.h"
#include "Platform/Linux/Steering/Steering.h"
#include "Tests/Platform/Linux/Daemon/InterceptionLab.h"
#include "Tests/Platform/Linux/Eventually.h"

namespace platform::steering {

namespace {

using Decision = SteeredSession::Decision;
using interception::ClientSocket;
using interception::HeldPacket;
using interception::InterceptionLab;
using vantry::ProxySession;

const Logger endLogger("test", "steering");

class SteeringEnd : public testing::Test {
protected:
    void start(unsigned shift = 24) {
        auto started = Steering::start(MarkPlace(shift));
        if (!started) GTEST_SKIP() << started.error().text();
        steering = std::move(*started);
    }
    static std::string rules() { return runCommand("ip rule | grep -c fwmark || true"); }

    // The opening of `client`, which goes to the server.
    HeldPacket opening() const {
        HeldPacket packet;
        packet.opensTcp = true;
        packet.tcpSequence = 7;
        packet.flow.family = AF_INET;
        packet.flow.protocol = IPPROTO_TCP;
        packet.flow.sourcePort = client.localPort();
        packet.flow.destinationPort = InterceptionLab::echoPort;
        inet_pton(AF_INET, "10.8.0.2", packet.flow.sourceAddress.data());
        inet_pton(AF_INET, TestNetwork::serverIPv4, packet.flow.destinationAddress.data());
        return packet;
    }
    std::uint64_t cookie() const {
        std::uint64_t number = 0;
        socklen_t length = sizeof number;
        getsockopt(client.descriptor(), SOL_SOCKET, SO_COOKIE, &number, &length);
        return number;
    }
    // As the proxy does, which claims it for eth0.
    std::unique_ptr<Steering::Offer> offer() {
        auto offered = steering->offer(opening(), cookie());
        auto flow = std::make_shared<NEAppProxyTCPFlow>(NEFlowMetaData(), RemoteEndpoint(),
                                                        offered->flow());
        NWParameters parameters;
        parameters.requiredInterface.emplace("eth0", NWInterface::InterfaceType::wiredEthernet);
        const Steering::Offer::Pairing pairing(*offered);
        auto connection =
            std::make_shared<NWConnection>(NWEndpoint::Host(TestNetwork::serverIPv4),
                                           *NWEndpoint::Port::fromString("7007"), parameters);
        proxied = std::make_shared<ProxySession>(std::move(flow), std::move(connection), "app", 1,
                                                 endLogger);
        proxied->start([this] { ++ends; });
        return offered;
    }
    bool ended() {
        return eventually([&] { return ends == 1; });
    }

    InterceptionLab lab;
    ClientSocket client{AF_INET, SOCK_STREAM};
    std::unique_ptr<Steering> steering;
    std::shared_ptr<ProxySession> proxied;
    std::atomic<int> ends = 0;
};

TEST_F(SteeringEnd, SessionsHearOfItAndNothingStaysHoweverLongTheyAreHeld) {
    start();
    const auto offered = offer();
    ASSERT_EQ(offered->claim(nullptr).decision, Decision::steer);
    steering.reset();
    EXPECT_TRUE(ended());
    EXPECT_EQ(rules(), "0\n");
}

TEST_F(SteeringEnd, ClaimThatComesAfterItIsRefusedAndLeavesTheNextOneAlone) {
    start();
    auto offered = offer();
    const auto changes = steering->wayChanges();
    steering.reset();
    start(16);
    const auto before = rules();
    EXPECT_EQ(offered->claim(nullptr).decision, Decision::drop);
    EXPECT_TRUE(ended());
    EXPECT_GT(steering->wayChanges(), changes);
    offered.reset();
    proxied.reset();
    EXPECT_EQ(rules(), before);
}

TEST_F(SteeringEnd, OneThatWaitedGetsTheMarkOfTheUplinkThatCame) {
    runCommand("ip route del default dev eth0; ip -6 route del default dev eth0");
    start();
    const auto offered = offer();
    ASSERT_EQ(offered->claim(nullptr).decision, Decision::drop);
    runCommand("ip route add default via 192.0.2.1 dev eth0 metric 100");
    ASSERT_TRUE(eventually([&] {
        const auto again = steering->verdictOnKnown(opening(), cookie());
        return again && again->decision == Decision::steer;
    }));
    ASSERT_EQ(client.connectTo(TestNetwork::serverIPv4, InterceptionLab::echoPort), 0);
    int mark = 0;
    socklen_t length = sizeof mark;
    getsockopt(client.descriptor(), SOL_SOCKET, SO_MARK, &mark, &length);
    EXPECT_NE(mark, 0);
    EXPECT_EQ(ends, 0);
    steering.reset();
    EXPECT_TRUE(ended());
}

}  // namespace

}  // namespace platform::steering
