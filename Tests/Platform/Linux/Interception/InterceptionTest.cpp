// The whole interception in a real network: real sockets, real attribution, scripted providers.
#include "Platform/Linux/Interception/Interception.h"

#include <gtest/gtest.h>
#include <netinet/tcp.h>
#include <sys/resource.h>
#include <unistd.h>

#include <future>
#include <vector>

#include "Platform/Linux/OwnTraffic.h"
#include "Tests/Platform/Linux/Interception/InterceptionLab.h"
#include "Tests/Platform/Linux/Interception/ScriptedProviders.h"

namespace platform::interception {

namespace {

constexpr std::uint16_t port = InterceptionLab::echoPort;

NENetworkRule everyFlowOf(NENetworkRule::Protocol protocol) {
    NENetworkRule rule;
    rule.protocol = protocol;
    rule.direction = NENetworkRule::TrafficDirection::outbound;
    return rule;
}

const std::vector<NENetworkRule> everyFlow{everyFlowOf(NENetworkRule::Protocol::TCP),
                                           everyFlowOf(NENetworkRule::Protocol::UDP)};

// A lab, the interception in force in it, and the providers behind.
struct Scene {
    explicit Scene(Interception::Choices choices = {})
        : interception(std::make_unique<Interception>(Providers{proxy, filter}, choices)) {
        EXPECT_EQ(setFilter(NEFilterAction::filterData), std::nullopt);
        EXPECT_EQ(setRules(everyFlow), std::nullopt);
    }

    std::optional<NSError> setRules(const std::vector<NENetworkRule>& rules) {
        std::promise<std::optional<NSError>> done;
        interception->setProxyRules(
            rules, [&](std::optional<NSError> error) { done.set_value(std::move(error)); });
        return done.get_future().get();
    }
    std::optional<NSError> setFilter(std::optional<NEFilterAction> action) {
        std::promise<std::optional<NSError>> done;
        interception->setFilterAction(
            action, [&](std::optional<NSError> error) { done.set_value(std::move(error)); });
        return done.get_future().get();
    }
    // One rule comes and leaves.
    void flush() {
        auto withAnother = everyFlow;
        withAnother.push_back(everyFlowOf(NENetworkRule::Protocol::TCP));
        withAnother.back().remoteNetwork = NWHostEndpoint{"127.255.255.254", "0"};
        withAnother.back().remotePrefix = 32;
        EXPECT_EQ(setRules(withAnother), std::nullopt);
        EXPECT_EQ(setRules(everyFlow), std::nullopt);
    }

    InterceptionLab lab;
    CallList calls;
    std::shared_ptr<ScriptedProxy> proxy = std::make_shared<ScriptedProxy>(calls);
    std::shared_ptr<ScriptedFilter> filter = std::make_shared<ScriptedFilter>(calls);
    std::unique_ptr<Interception> interception;
};

struct FlowKind {
    int family;
    int type;
    const char* name;
};
void PrintTo(const FlowKind& kind, std::ostream* stream) { *stream << kind.name; }

class InterceptionOfEveryKind : public testing::TestWithParam<FlowKind>, protected Scene {
protected:
    ClientSocket makeSocket() const { return {GetParam().family, GetParam().type}; }
    const char* address() const { return InterceptionLab::serverAddress(GetParam().family); }
    bool isTcp() const { return GetParam().type == SOCK_STREAM; }
    ClientSocket connected() const {
        ClientSocket client = makeSocket();
        EXPECT_EQ(client.connectTo(address(), port), 0);
        return client;
    }
};
INSTANTIATE_TEST_SUITE_P(Flows, InterceptionOfEveryKind,
                         testing::Values(FlowKind{AF_INET, SOCK_STREAM, "TCPv4"},
                                         FlowKind{AF_INET, SOCK_DGRAM, "UDPv4"},
                                         FlowKind{AF_INET6, SOCK_STREAM, "TCPv6"},
                                         FlowKind{AF_INET6, SOCK_DGRAM, "UDPv6"}),
                         [](const auto& kind) { return std::string(kind.param.name); });

class ClaimedTcp : public testing::TestWithParam<int>, protected Scene {
protected:
    void SetUp() override { proxy->isClaiming = true; }
    const char* address() const { return InterceptionLab::serverAddress(GetParam()); }
};
INSTANTIATE_TEST_SUITE_P(Families, ClaimedTcp, testing::Values(AF_INET, AF_INET6),
                         [](const auto& family) {
                             return std::string(family.param == AF_INET ? "IPv4" : "IPv6");
                         });

class InterceptionTest : public testing::Test, protected Scene {
protected:
    ClientSocket connected(int type = SOCK_STREAM) const {
        ClientSocket client(AF_INET, type);
        EXPECT_EQ(client.connectTo(InterceptionLab::serverAddress(AF_INET), port), 0);
        return client;
    }
};

}  // namespace

TEST_P(InterceptionOfEveryKind, EveryFlowIsOfferedOnceToTheProxyAndThenToTheFilter) {
    ClientSocket client = connected();
    for (int round = 0; round < 3; ++round) ASSERT_EQ(client.exchange(), 0);
    const auto made = calls.all();
    ASSERT_EQ(made.size(), 2u);
    EXPECT_EQ(made[0].kind, Call::Kind::proxy);
    EXPECT_EQ(made[1].kind, Call::Kind::filter);
    for (const Call& call : made) {
        EXPECT_EQ(call.isTcp, isTcp());
        EXPECT_EQ(call.host, address());
        EXPECT_EQ(call.port, std::to_string(port));
        EXPECT_EQ(call.token.size(), 32u);
        EXPECT_EQ(call.token, made[0].token);
    }
}

TEST_P(InterceptionOfEveryKind, DroppedFlowFailsAtOnce) {
    filter->setVerdict(NEFilterNewFlowVerdict::dropVerdict());
    ClientSocket client = makeSocket();
    const int error = client.connectTo(address(), port);
    EXPECT_EQ(isTcp() ? error : client.exchange(), ECONNABORTED);
    EXPECT_EQ(lab.bytesAtServer(), 0u);
    EXPECT_EQ(calls.count(Call::Kind::filter), 1u);
}

TEST_P(InterceptionOfEveryKind, WatchedFlowShowsItsBytesFromTheFirstAndDiesWhenTheFilterSaysSo) {
    filter->setVerdict(ScriptedFilter::watching());
    ClientSocket client = connected();
    for (const std::size_t bytes : {3u, 1400u, 1u}) ASSERT_EQ(client.exchange(bytes), 0);
    const auto shown = calls.of(Call::Kind::data);
    ASSERT_GE(shown.size(), 3u);
    std::int64_t expected = 0;
    for (const Call& call : shown) {
        // A byte is never skipped; only retransmissions go back.
        EXPECT_LE(call.offset, expected);
        expected = std::max(expected, call.offset + static_cast<std::int64_t>(call.length));
    }
    EXPECT_EQ(expected, 1404);
    EXPECT_EQ(shown.front().flow, shown.back().flow);

    filter->onData = NEFilterDataVerdict::Kind::drop;
    EXPECT_EQ(client.exchange(), ECONNABORTED);
    EXPECT_EQ(lab.bytesAtServer(), 1404u);
}

TEST_P(InterceptionOfEveryKind, WatchedFlowThatIsAllowedIsNotShownAgain) {
    filter->setVerdict(ScriptedFilter::watching());
    filter->onData = NEFilterDataVerdict::Kind::allow;
    ClientSocket client = connected();
    for (int round = 0; round < 3; ++round) ASSERT_EQ(client.exchange(), 0);
    EXPECT_EQ(calls.count(Call::Kind::data), 1u);
}

TEST_P(InterceptionOfEveryKind, FlushOffersDeclinedFlowsOnceMoreAndTheyGoOn) {
    ClientSocket client = connected();
    ASSERT_EQ(client.exchange(), 0);
    for (int flushes = 1; flushes <= 2; ++flushes) {
        flush();
        for (int round = 0; round < 3; ++round) ASSERT_EQ(client.exchange(), 0);
        EXPECT_EQ(calls.count(Call::Kind::proxy), 1u + static_cast<unsigned>(flushes));
        EXPECT_EQ(calls.count(Call::Kind::filter), 1u + static_cast<unsigned>(flushes));
    }
}

TEST_P(InterceptionOfEveryKind, FlowThatSleptThroughManyFlushesIsStillOfferedAgain) {
    ClientSocket client = connected();
    ASSERT_EQ(client.exchange(), 0);
    for (int flushes = 0; flushes < 31; ++flushes) flush();
    ASSERT_EQ(client.exchange(), 0);
    EXPECT_EQ(calls.count(Call::Kind::filter), 2u);
}

TEST_P(InterceptionOfEveryKind, FlushResetsAFlowThatIsNowDropped) {
    ClientSocket client = connected();
    ASSERT_EQ(client.exchange(), 0);
    filter->setVerdict(NEFilterNewFlowVerdict::dropVerdict());
    flush();
    EXPECT_EQ(client.exchange(), ECONNABORTED);
    EXPECT_EQ(lab.bytesAtServer(), 5u);
}

TEST_P(InterceptionOfEveryKind, FlushLeavesWatchedFlowsAlone) {
    filter->setVerdict(ScriptedFilter::watching());
    ClientSocket client = connected();
    ASSERT_EQ(client.exchange(), 0);
    flush();
    ASSERT_EQ(client.exchange(), 0);
    EXPECT_EQ(calls.count(Call::Kind::filter), 1u);
    EXPECT_EQ(calls.count(Call::Kind::data), 2u);
}

TEST_P(InterceptionOfEveryKind, FilterGoesOnWithoutTheProxyAndTheProxyWithoutTheFilter) {
    EXPECT_EQ(setRules({}), std::nullopt);
    ASSERT_EQ(connected().exchange(), 0);
    EXPECT_EQ(calls.count(Call::Kind::proxy), 0u);
    EXPECT_EQ(calls.count(Call::Kind::filter), 1u);

    EXPECT_EQ(setRules(everyFlow), std::nullopt);
    EXPECT_EQ(setFilter(std::nullopt), std::nullopt);
    ASSERT_EQ(connected().exchange(), 0);
    EXPECT_EQ(calls.count(Call::Kind::proxy), 1u);
    EXPECT_EQ(calls.count(Call::Kind::filter), 1u);
}

TEST_P(InterceptionOfEveryKind, SocketBoundToADeviceIsForTheFilterOnly) {
    ClientSocket client = makeSocket();
    ASSERT_EQ(setsockopt(client.descriptor(), SOL_SOCKET, SO_BINDTODEVICE, "eth0", 5), 0);
    ASSERT_EQ(client.connectTo(address(), port), 0);
    ASSERT_EQ(client.exchange(), 0);
    EXPECT_EQ(calls.count(Call::Kind::proxy), 0u);
    EXPECT_EQ(calls.count(Call::Kind::filter), 1u);
}

TEST_P(ClaimedTcp, ConnectionIsServedByTheProxyAndSeenByNobodyElse) {
    ClientSocket client(GetParam(), SOCK_STREAM);
    ASSERT_EQ(client.connectTo(address(), port), 0);
    ASSERT_EQ(client.exchange(100'000), 0);
    EXPECT_EQ(lab.bytesAtServer(), 0u);
    EXPECT_EQ(calls.count(Call::Kind::proxy), 1u);
    EXPECT_EQ(calls.count(Call::Kind::filter), 1u);
    EXPECT_EQ(proxy->openingErrors, 0);
}

TEST_P(ClaimedTcp, DroppedByTheFilterItsOpeningFails) {
    filter->setVerdict(NEFilterNewFlowVerdict::dropVerdict());
    ClientSocket client(GetParam(), SOCK_STREAM);
    EXPECT_EQ(client.connectTo(address(), port), ECONNABORTED);
    EXPECT_TRUE(eventually([&] { return proxy->openingErrors == 1; }));
}

TEST_P(ClaimedTcp, UnderWatchItsBytesAreShownAndItCanBeKilled) {
    filter->setVerdict(ScriptedFilter::watching());
    ClientSocket client(GetParam(), SOCK_STREAM);
    ASSERT_EQ(client.connectTo(address(), port), 0);
    ASSERT_EQ(client.exchange(10), 0);
    ASSERT_EQ(calls.count(Call::Kind::data), 1u);
    EXPECT_EQ(calls.of(Call::Kind::data).front().length, 10u);
    filter->onData = NEFilterDataVerdict::Kind::drop;
    EXPECT_EQ(client.exchange(), ECONNABORTED);
}

TEST_P(ClaimedTcp, FlowThatWasDeclinedBeforeIsResetAndComesBackClaimed) {
    proxy->isClaiming = false;
    ClientSocket client(GetParam(), SOCK_STREAM);
    ASSERT_EQ(client.connectTo(address(), port), 0);
    ASSERT_EQ(client.exchange(), 0);
    proxy->isClaiming = true;
    flush();
    EXPECT_EQ(client.exchange(), ECONNABORTED);
    EXPECT_TRUE(eventually([&] { return proxy->openingErrors == 1; }));

    ClientSocket again(GetParam(), SOCK_STREAM);
    ASSERT_EQ(again.connectTo(address(), port), 0);
    ASSERT_EQ(again.exchange(), 0);
    EXPECT_EQ(lab.bytesAtServer(), 5u);
}

TEST_F(InterceptionTest, BurstOfFirstPacketsGivesOneOffer) {
    filter->setVerdict(ScriptedFilter::watching());
    ClientSocket client(AF_INET, SOCK_DGRAM);
    ASSERT_EQ(client.connectTo(InterceptionLab::serverAddress(AF_INET), port), 0);
    for (int datagram = 0; datagram < 50; ++datagram) ASSERT_EQ(client.send(2), 0);
    ASSERT_EQ(client.receive(1), 0);
    EXPECT_EQ(calls.count(Call::Kind::proxy), 1u);
    EXPECT_EQ(calls.count(Call::Kind::filter), 1u);
    ASSERT_TRUE(eventually([&] { return calls.count(Call::Kind::data) == 50; }));
    EXPECT_EQ(calls.of(Call::Kind::data).back().offset, 98);
}

TEST_F(InterceptionTest, DeniedDatagramFlowSparesTheOtherFlowsOfItsSocket) {
    filter->setVerdict(NEFilterNewFlowVerdict::dropVerdict());
    ClientSocket client(AF_INET, SOCK_DGRAM);
    for (int datagram = 0; datagram < 5; ++datagram)
        ASSERT_EQ(client.sendTo(InterceptionLab::serverAddress(AF_INET), port, 1), 0);
    EXPECT_TRUE(eventually([&] { return calls.count(Call::Kind::filter) == 1; }));
    filter->setVerdict(NEFilterNewFlowVerdict::allowVerdict());
    // Another destination is another flow; this one has no service, but it gets there.
    ASSERT_EQ(client.sendTo(InterceptionLab::serverAddress(AF_INET), port + 1, 1), 0);
    EXPECT_TRUE(eventually([&] { return calls.count(Call::Kind::filter) == 2; }));
    EXPECT_EQ(lab.bytesAtServer(), 0u);
}

TEST_F(InterceptionTest, KilledDatagramFlowIsOfferedAnewWhenItsSocketGoesOn) {
    filter->setVerdict(ScriptedFilter::watching());
    ClientSocket client(AF_INET, SOCK_DGRAM);
    const char* const server = InterceptionLab::serverAddress(AF_INET);
    ASSERT_EQ(client.sendTo(server, port, 1), 0);
    ASSERT_EQ(client.receive(1), 0);
    filter->onData = NEFilterDataVerdict::Kind::drop;
    ASSERT_EQ(client.sendTo(server, port, 1), 0);
    ASSERT_TRUE(eventually([&] { return calls.count(Call::Kind::data) == 2; }));
    filter->onData = NEFilterDataVerdict::Kind::data;
    // The first datagram after the kill may come before the kernel's entry has gone.
    EXPECT_TRUE(eventually([&] {
        return client.sendTo(server, port, 1) == 0 && calls.count(Call::Kind::filter) == 2;
    }));
    EXPECT_EQ(client.receive(1), 0);
}

TEST_F(InterceptionTest, RulesDecideWhichFlowsTheProxyIsOffered) {
    NENetworkRule near = everyFlowOf(NENetworkRule::Protocol::TCP);
    near.remoteNetwork = NWHostEndpoint{"10.77.0.0", "0"};
    near.remotePrefix = 24;
    EXPECT_EQ(setRules({near}), std::nullopt);
    ASSERT_EQ(connected().exchange(), 0);
    EXPECT_EQ(calls.count(Call::Kind::proxy), 1u);
    ASSERT_EQ(connected(SOCK_DGRAM).exchange(), 0);
    ClientSocket six(AF_INET6, SOCK_STREAM);
    ASSERT_EQ(six.connectTo(InterceptionLab::serverAddress(AF_INET6), port), 0);
    EXPECT_EQ(calls.count(Call::Kind::proxy), 1u);
    EXPECT_EQ(calls.count(Call::Kind::filter), 3u);
}

TEST_F(InterceptionTest, StrangerAtTheListenerIsReset) {
    proxy->isClaiming = true;
    const std::string listening =
        lab.run("ss -Htln src 127.0.0.1 | sed 's/.*127.0.0.1:\\([0-9]*\\) .*/\\1/'");
    ClientSocket stranger(AF_INET, SOCK_STREAM);
    ASSERT_EQ(stranger.connectTo("127.0.0.1", static_cast<std::uint16_t>(std::stoi(listening))), 0);
    EXPECT_EQ(stranger.receive(1), ECONNRESET);
}

TEST_F(InterceptionTest, WithoutDescriptorsFlowsAreDeclinedAndGoOn) {
    proxy->isClaiming = true;
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    std::vector<FileDescriptor> used;
    for (;;) {
        FileDescriptor one(dup(STDERR_FILENO));
        if (!one) break;
        used.push_back(std::move(one));
    }
    for (int count = 0; count < 8; ++count) used.pop_back();
    ASSERT_EQ(connected().exchange(), 0);
    EXPECT_EQ(calls.count(Call::Kind::proxy), 0u);
    EXPECT_EQ(lab.bytesAtServer(), 5u);
    used.clear();
    ASSERT_EQ(connected().exchange(), 0);
    EXPECT_EQ(lab.bytesAtServer(), 5u);
}

TEST_F(InterceptionTest, ClaimedFlowSurvivesTheLossOfItsTunnelAddress) {
    ASSERT_EQ(lab.run("ip tuntap add utun0 mode tun && ip addr add 10.99.0.1/24 dev utun0 &&"
                      " ip link set utun0 up"),
              "");
    proxy->isClaiming = true;
    {
        ClientSocket client(AF_INET, SOCK_STREAM);
        ASSERT_EQ(client.connectTo("10.99.0.7", port), 0);
        ASSERT_EQ(client.exchange(), 0);
        EXPECT_NE(lab.run("ip addr show dev lo").find("inet 10.99.0.1/32"), std::string::npos);
        lab.run("ip link del utun0");
        EXPECT_EQ(client.exchange(100'000), 0);
    }
    EXPECT_TRUE(eventually(
        [&] { return lab.run("ip addr show dev lo").find("10.99.0.1") == std::string::npos; }));
}

TEST_F(InterceptionTest, OwnTrafficKeepsAWayOutWhenTheDefaultRouteIsDeleted) {
    const auto reach = [] {
        ClientSocket own(AF_INET, SOCK_STREAM);
        const std::uint32_t mark = OwnTraffic::mark();
        setsockopt(own.descriptor(), SOL_SOCKET, SO_MARK, &mark, sizeof mark);
        setsockopt(own.descriptor(), SOL_SOCKET, SO_BINDTODEVICE, "eth0", 5);
        return own.connectTo(InterceptionLab::farServerAddress(), port);
    };
    EXPECT_EQ(reach(), 0);
    const std::string rules = lab.run("ip rule; ip -6 rule");
    lab.run("ip route del default");
    EXPECT_TRUE(eventually([&] { return reach() == 0; }));
    EXPECT_NE(
        ClientSocket(AF_INET, SOCK_STREAM).connectTo(InterceptionLab::farServerAddress(), port), 0);
    lab.run("ip route add default via 10.77.0.2");
    EXPECT_TRUE(eventually([&] { return lab.run("ip rule; ip -6 rule") == rules; }));
    EXPECT_EQ(lab.run("ip route show table all | grep 'table 7660'"), "");
    EXPECT_EQ(reach(), 0);
}

TEST_F(InterceptionTest, MarksOfAnEarlierProcessAreWipedAtStartAndOursAtTheEnd) {
    ClientSocket client = connected();
    ASSERT_EQ(client.exchange(), 0);
    const auto marks = [&] { return lab.run("conntrack -L -p tcp -o extended"); };
    EXPECT_EQ(marks().find("mark=0 "), std::string::npos);
    interception.reset();
    EXPECT_NE(marks().find("mark=0 "), std::string::npos);
    // As if the process had been killed while this flow was denied.
    const std::uint32_t denied = MarkPlace(24).value(FlowState::denied);
    ASSERT_EQ(ConnectionEntries::open()->changeMarks(MarkPlace(24).mask(),
                                                     [&](std::uint32_t) { return denied; }),
              0);
    EXPECT_EQ(marks().find("mark=0 "), std::string::npos);

    interception = std::make_unique<Interception>(Providers{proxy, filter});
    EXPECT_EQ(setFilter(NEFilterAction::filterData), std::nullopt);
    EXPECT_NE(marks().find("mark=0 "), std::string::npos);
    EXPECT_EQ(client.exchange(), 0);
    EXPECT_EQ(calls.count(Call::Kind::filter), 1u);
}

TEST(InterceptionRules, ThatSomebodyFlushedComeBack) {
    Interception::Choices choices;
    choices.ownership = TableOwnership::shared;
    Scene scene(choices);
    scene.lab.run("nft flush ruleset");
    EXPECT_TRUE(eventually(
        [&] { return scene.lab.run("nft list tables").find("vantry") != std::string::npos; }));
    ClientSocket client(AF_INET, SOCK_STREAM);
    ASSERT_EQ(client.connectTo(InterceptionLab::serverAddress(AF_INET), port), 0);
    EXPECT_EQ(scene.calls.count(Call::Kind::filter), 1u);
}

}  // namespace platform::interception
