// The whole interception in a real network: real sockets, real attribution, scripted providers.
#include "Platform/Linux/Daemon/Interception.h"

#include <gtest/gtest.h>

#include <vector>

#include "Platform/Linux/OwnTraffic.h"
#include "Platform/Linux/ThreadPriority.h"
#include "Tests/Platform/Linux/Daemon/InterceptionLab.h"
#include "Tests/Platform/Linux/Daemon/ScriptedProviders.h"
#include "Tests/Platform/Linux/Eventually.h"
#include "Tests/Platform/Linux/Namespaces.h"

namespace platform::interception {

namespace {

constexpr std::uint16_t port = InterceptionLab::echoPort;
using NewFlow = ScriptedFilter::NewFlow;
using OnData = ScriptedFilter::OnData;
using Kind = Call::Kind;

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
        setFilter(NEFilterAction::filterData);
        setRules(everyFlow);
    }

    void setRules(const std::vector<NENetworkRule>& rules) {
        Awaited<std::optional<NSError>> outcome;
        interception->setProxyRules(rules, outcome.put());
        EXPECT_EQ(outcome.get(), std::nullopt);
    }
    void setFilter(std::optional<NEFilterAction> action) {
        Awaited<std::optional<NSError>> outcome;
        interception->setFilterAction(action, outcome.put());
        EXPECT_EQ(outcome.get(), std::nullopt);
    }
    // One rule comes and leaves.
    void flush() {
        auto withAnother = everyFlow;
        withAnother.push_back(everyFlowOf(NENetworkRule::Protocol::TCP));
        withAnother.back().remoteNetwork = NWHostEndpoint{"127.255.255.254", "0"};
        withAnother.back().remotePrefix = 32;
        setRules(withAnother);
        setRules(everyFlow);
    }
    void changeRules() {
        interception->setRulesChanging(true);
        interception->setRulesChanging(false);
        // Carried out after what the change has set off.
        setFilter(NEFilterAction::filterData);
    }
    // The bytes that the filter was shown, all from the first one on.
    std::int64_t bytesShown() const {
        std::int64_t expected = 0;
        for (const Call& call : calls.of(Kind::data)) {
            // A byte is never skipped; only retransmissions go back.
            EXPECT_LE(call.offset, expected);
            expected = std::max(expected, call.offset + static_cast<std::int64_t>(call.length));
        }
        return expected;
    }
    std::size_t timesOffered() const { return calls.count(Kind::filter); }

    static std::ptrdiff_t entriesFrom(std::uint16_t localPort) {
        const auto flows =
            ConnectionEntries::openOrNull()->flowsWith([](std::uint32_t) { return true; });
        if (!flows) return -1;
        return std::ranges::count(*flows, localPort, &FlowTuple::sourcePort);
    }

    static const char* server(int family = AF_INET) {
        return InterceptionLab::serverAddress(family);
    }
    static ClientSocket connected(int type = SOCK_STREAM, int family = AF_INET) {
        ClientSocket client(family, type);
        EXPECT_EQ(client.connectTo(server(family), port), 0);
        return client;
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
    ClientSocket connected() const { return Scene::connected(GetParam().type, GetParam().family); }
    const char* address() const { return server(GetParam().family); }
    bool isTcp() const { return GetParam().type == SOCK_STREAM; }
};
constexpr FlowKind tcpOverIPv4{AF_INET, SOCK_STREAM, "TCPv4"};
constexpr FlowKind tcpOverIPv6{AF_INET6, SOCK_STREAM, "TCPv6"};
const auto nameOf = [](const auto& kind) { return std::string(kind.param.name); };
INSTANTIATE_TEST_SUITE_P(Flows, InterceptionOfEveryKind,
                         testing::Values(tcpOverIPv4, FlowKind{AF_INET, SOCK_DGRAM, "UDPv4"},
                                         tcpOverIPv6, FlowKind{AF_INET6, SOCK_DGRAM, "UDPv6"}),
                         nameOf);

class InterceptionTest : public testing::Test, protected Scene {};

}  // namespace

TEST_P(InterceptionOfEveryKind, EveryFlowIsOfferedOnceToTheProxyAndThenToTheFilter) {
    ClientSocket client = connected();
    for (int round = 0; round < 3; ++round) ASSERT_EQ(client.exchange(), 0);
    const auto made = calls.all();
    ASSERT_EQ(made.size(), 2u);
    EXPECT_EQ(made[0].kind, Kind::proxy);
    EXPECT_EQ(made[1].kind, Kind::filter);
    for (const Call& call : made) {
        EXPECT_EQ(call.isTcp, isTcp());
        EXPECT_EQ(call.host, address());
        EXPECT_EQ(call.port, std::to_string(port));
        EXPECT_EQ(call.token.size(), 32u);
        EXPECT_EQ(call.token, made[0].token);
    }
}

TEST_P(InterceptionOfEveryKind, WatchedFlowShowsItsBytesUntilTheFilterAllowsOrKillsIt) {
    filter->onNewFlow = NewFlow::filterData;
    ClientSocket client = connected();
    for (const std::size_t bytes : {3u, 1400u, 1u}) ASSERT_EQ(client.exchange(bytes), 0);
    flush();  // leaves it alone
    ASSERT_EQ(client.exchange(1), 0);
    EXPECT_EQ(bytesShown(), 1405);
    EXPECT_EQ(timesOffered(), 1u);

    filter->onData = OnData::drop;
    EXPECT_EQ(client.exchange(), ECONNABORTED);
    EXPECT_EQ(lab.bytesAtServer(), 1405u);

    const std::size_t shown = calls.count(Kind::data);
    filter->onData = OnData::allow;
    ClientSocket another = connected();
    for (int round = 0; round < 3; ++round) ASSERT_EQ(another.exchange(), 0);
    EXPECT_EQ(calls.count(Kind::data), shown + 1);
}

TEST_P(InterceptionOfEveryKind, FlushOffersDeclinedFlowsOnceMoreAlsoAfterALongSleep) {
    ClientSocket client = connected();
    ASSERT_EQ(client.exchange(), 0);
    std::size_t offers = 1;
    for (const int flushes : {31, 1}) {
        for (int count = 0; count < flushes; ++count) flush();
        for (int round = 0; round < 3; ++round) ASSERT_EQ(client.exchange(), 0);
        EXPECT_EQ(calls.count(Kind::proxy), ++offers);
        EXPECT_EQ(timesOffered(), offers);
    }
    filter->onNewFlow = NewFlow::drop;
    flush();
    EXPECT_EQ(client.exchange(), ECONNABORTED);
    // So does a new one.
    ClientSocket another = makeSocket();
    const int error = another.connectTo(address(), port);
    EXPECT_EQ(isTcp() ? error : another.exchange(), ECONNABORTED);
}

TEST_P(InterceptionOfEveryKind, ChangedRulesShowDeclinedFlowsToTheFilterAlone) {
    ClientSocket client = connected();
    ASSERT_EQ(client.exchange(), 0);
    proxy->isClaiming = true;
    for (const unsigned changes : {1u, countedGenerations + 1, 1u}) {
        const std::size_t shown = timesOffered();
        for (unsigned count = 0; count < changes; ++count) changeRules();
        for (int round = 0; round < 3; ++round) ASSERT_EQ(client.exchange(), 0);
        EXPECT_GT(timesOffered(), shown);
    }
    EXPECT_EQ(calls.count(Kind::proxy), 1u);

    // A flush counts, however many changes there were before it and after.
    proxy->isClaiming = false;
    for (unsigned count = 0; count < countedGenerations; ++count) changeRules();
    flush();
    changeRules();
    ASSERT_EQ(client.exchange(), 0);
    EXPECT_EQ(calls.count(Kind::proxy), 2u);

    filter->onNewFlow = NewFlow::filterData;
    changeRules();
    ASSERT_EQ(client.exchange(), 0);
    EXPECT_EQ(calls.count(Kind::data), 1u);
    filter->onData = OnData::drop;
    EXPECT_EQ(client.exchange(), ECONNABORTED);
}

TEST_P(InterceptionOfEveryKind, OwnAndLoopbackTrafficIsNeverOffered) {
    ClientSocket own = makeSocket();
    const std::uint32_t mark = OwnTraffic::mark();
    ASSERT_EQ(setsockopt(own.descriptor(), SOL_SOCKET, SO_MARK, &mark, sizeof mark), 0);
    ASSERT_EQ(own.connectTo(address(), port), 0);
    EXPECT_EQ(own.exchange(), 0);
    const bool isIPv4 = GetParam().family == AF_INET;
    for (const char* here : {isIPv4 ? "127.0.0.1" : "::1", isIPv4 ? "192.0.2.2" : "fd02::2"}) {
        ClientSocket loopback = makeSocket();
        ASSERT_EQ(loopback.connectTo(here, port), isTcp() ? ECONNREFUSED : 0);
        if (!isTcp()) loopback.send(1);
    }
    EXPECT_EQ(calls.all().size(), 0u);
}

using ClaimedTcp = InterceptionOfEveryKind;
INSTANTIATE_TEST_SUITE_P(Families, ClaimedTcp, testing::Values(tcpOverIPv4, tcpOverIPv6), nameOf);

// What a socket that cannot be ended comes to: the mark alone.
TEST_P(ClaimedTcp, DeniedConnectionIsRejectedAtItsNextByte) {
    ClientSocket client = connected();
    ASSERT_EQ(client.exchange(), 0);
    const MarkPlace place(24);
    ASSERT_TRUE(ConnectionEntries::openOrNull()->changeMarks(
        place.mask(), [&](std::uint32_t) { return place.value(FlowState::denied); }));
    EXPECT_EQ(client.exchange(), ECONNRESET);
    EXPECT_EQ(lab.bytesAtServer(), 5u);
}

TEST_P(ClaimedTcp, UnderWatchItsBytesAreShownAndItCanBeKilled) {
    proxy->isClaiming = true;
    filter->onNewFlow = NewFlow::filterData;
    ClientSocket client = connected();
    ASSERT_EQ(client.exchange(100'000), 0);
    EXPECT_EQ(bytesShown(), 100'000);
    EXPECT_EQ(calls.count(Kind::proxy), 1u);
    EXPECT_EQ(timesOffered(), 1u);
    filter->onData = OnData::drop;
    EXPECT_EQ(client.exchange(), ECONNABORTED);
    EXPECT_EQ(*proxy->openingErrors, 0);
    EXPECT_EQ(lab.bytesAtServer(), 0u);
}

// Neither what it was denied for nor its redirect is handed on with its port.
TEST_P(ClaimedTcp, AfterItsEndItsPortIsAnyOnes) {
    proxy->isClaiming = true;
    filter->onNewFlow = NewFlow::filterData;
    for (const bool isDenied : {false, true}) {
        ClientSocket client = connected();
        ASSERT_EQ(client.exchange(), 0);
        const std::uint16_t itsPort = client.localPort();
        filter->onData = OnData::drop;
        if (!isDenied) proxy->resetLast();
        EXPECT_EQ(isDenied ? client.exchange() : client.receive(1),
                  isDenied ? ECONNABORTED : ECONNRESET);
        client = makeSocket();
        proxy->isClaiming = false;
        filter->onNewFlow = NewFlow::allow;
        ASSERT_EQ(client.bindTo(itsPort, GetParam().family), 0);
        ASSERT_EQ(client.connectTo(address(), port), 0);
        EXPECT_EQ(client.exchange(), 0);
        proxy->isClaiming = true;
        filter->onNewFlow = NewFlow::filterData;
        filter->onData = OnData::data;
    }
}

TEST_P(ClaimedTcp, ItsOpeningFailsWhenItComesTooLateOrTheFilterDropsIt) {
    ClientSocket client = connected();
    ASSERT_EQ(client.exchange(), 0);
    proxy->isClaiming = true;
    flush();
    EXPECT_EQ(client.exchange(), ECONNABORTED);
    EXPECT_TRUE(eventually([&] { return *proxy->openingErrors == 1; }));
    EXPECT_EQ(connected().exchange(), 0);
    EXPECT_EQ(lab.bytesAtServer(), 5u);

    filter->onNewFlow = NewFlow::drop;
    EXPECT_EQ(makeSocket().connectTo(address(), port), ECONNABORTED);
    EXPECT_TRUE(eventually([&] { return *proxy->openingErrors == 2; }));

    // A firewall keeps it from the listener, and its application tries again from the same port.
    filter->onNewFlow = NewFlow::allow;
    runCommand(
        "nft 'add table inet strict; add chain inet strict out { type filter hook output priority "
        "10; };"
        " add rule inet strict out oifname lo drop'");
    for (int attempt = 0; attempt < 2; ++attempt) {
        client = makeSocket();
        const timeval moment{0, 100'000};
        setsockopt(client.descriptor(), SOL_SOCKET, SO_SNDTIMEO, &moment, sizeof moment);
        ASSERT_EQ(client.bindTo(40124, GetParam().family), 0);
        EXPECT_EQ(client.connectTo(address(), port), EINPROGRESS);
    }
    EXPECT_TRUE(eventually([&] { return *proxy->openingErrors == 3; }));
}

TEST_F(InterceptionTest, FilterGoesOnWithoutTheProxyAndTheProxyWithoutTheFilter) {
    setRules({everyFlowOf(NENetworkRule::Protocol::UDP)});
    ASSERT_EQ(connected().exchange(), 0);
    EXPECT_EQ(calls.count(Kind::proxy), 0u);
    EXPECT_EQ(timesOffered(), 1u);

    setRules(everyFlow);
    setFilter(std::nullopt);
    ASSERT_EQ(connected().exchange(), 0);
    EXPECT_EQ(calls.count(Kind::proxy), 1u);
    EXPECT_EQ(timesOffered(), 1u);
}

TEST_F(InterceptionTest, BurstOfFirstPacketsGivesOneOffer) {
    filter->onNewFlow = NewFlow::filterData;
    ClientSocket client = connected(SOCK_DGRAM);
    for (int datagram = 0; datagram < 50; ++datagram) ASSERT_EQ(client.send(2), 0);
    ASSERT_EQ(client.receive(1), 0);
    EXPECT_EQ(calls.count(Kind::proxy), 1u);
    EXPECT_EQ(timesOffered(), 1u);
    ASSERT_TRUE(eventually([&] { return calls.count(Kind::data) == 50; }));
    EXPECT_EQ(bytesShown(), 100);
}

TEST_F(InterceptionTest, BurstOfPacketsThatAreOfferedAgainGivesOneOffer) {
    ClientSocket client = connected();
    ASSERT_EQ(client.exchange(), 0);
    const int yes = 1;
    ASSERT_EQ(setsockopt(client.descriptor(), IPPROTO_TCP, TCP_NODELAY, &yes, sizeof yes), 0);
    filter->onNewFlow = NewFlow::drop;
    filter->isWaiting = true;
    flush();
    for (int segment = 0; segment < 8; ++segment) ASSERT_EQ(client.send(1), 0);
    ASSERT_TRUE(eventually([&] { return timesOffered() == 2; }));
    filter->mayGoOn.set_value();
    EXPECT_EQ(client.receive(1), ECONNABORTED);
    // All that was held has been judged when no thread works on it any more.
    interception.reset();
    EXPECT_EQ(timesOffered(), 2u);
}

TEST_F(InterceptionTest, WhatWaitsAfterADeniedSegmentIsDeniedUnasked) {
    filter->onNewFlow = NewFlow::filterData;
    ClientSocket client = connected();
    const int yes = 1;
    ASSERT_EQ(setsockopt(client.descriptor(), IPPROTO_TCP, TCP_NODELAY, &yes, sizeof yes), 0);
    ASSERT_EQ(client.exchange(), 0);
    filter->onData = OnData::drop;
    filter->isWaiting = true;
    for (int segment = 0; segment < 8; ++segment) ASSERT_EQ(client.send(1), 0);
    ASSERT_TRUE(eventually([&] { return calls.count(Kind::data) == 2; }));
    filter->mayGoOn.set_value();
    EXPECT_EQ(client.receive(1), ECONNABORTED);
    interception.reset();
    EXPECT_EQ(calls.count(Kind::data), 2u);
    EXPECT_EQ(timesOffered(), 1u);
    EXPECT_EQ(lab.bytesAtServer(), 5u);
}

TEST_F(InterceptionTest, ADropThatComesOnceTheEndHasBegunEndsNothing) {
    filter->onNewFlow = NewFlow::filterData;
    ClientSocket client = connected();
    ASSERT_EQ(client.exchange(), 0);
    filter->onData = OnData::drop;
    filter->isWaiting = true;
    ASSERT_EQ(client.send(1), 0);
    ASSERT_TRUE(eventually([&] { return calls.count(Kind::data) == 2; }));
    Awaited<std::optional<NSError>> ended;
    interception->endOffers(ended.put());
    EXPECT_EQ(ended.get(), std::nullopt);
    filter->mayGoOn.set_value();
    EXPECT_EQ(client.receive(1), 0);
    EXPECT_EQ(client.exchange(), 0);
}

TEST_F(InterceptionTest, LargeSegmentsOfAWatchedUploadAreShownWholeAndInOrder) {
    filter->onNewFlow = NewFlow::filterData;
    ClientSocket client = connected();
    constexpr std::size_t total = 4 << 20;
    std::thread drain([&] { EXPECT_EQ(client.receive(total), 0); });
    EXPECT_EQ(client.send(total), 0);
    drain.join();
    EXPECT_EQ(bytesShown(), std::int64_t{total});
    const auto shown = calls.of(Kind::data);
    EXPECT_TRUE(std::ranges::any_of(shown, [](const Call& call) { return call.length > 16000; }));
}

TEST_F(InterceptionTest, DeniedDatagramFlowSparesTheOtherFlowsOfItsSocket) {
    filter->onNewFlow = NewFlow::drop;
    ClientSocket client(AF_INET, SOCK_DGRAM);
    for (int datagram = 0; datagram < 5; ++datagram) ASSERT_EQ(client.sendTo(server(), port), 0);
    EXPECT_TRUE(eventually([&] { return timesOffered() == 1; }));
    filter->onNewFlow = NewFlow::allow;
    // Another destination is another flow; this one has no service, but it gets there.
    ASSERT_EQ(client.sendTo(server(), port + 1), 0);
    EXPECT_TRUE(eventually([&] { return timesOffered() == 2; }));
    EXPECT_EQ(lab.bytesAtServer(), 0u);
}

TEST_F(InterceptionTest, KilledDatagramFlowStaysSoUntilTheRulesChangeOrItsPortIsAnothers) {
    filter->onNewFlow = NewFlow::filterData;
    ClientSocket client(AF_INET, SOCK_DGRAM);
    ASSERT_EQ(client.sendTo(server(), port), 0);
    ASSERT_EQ(client.receive(1), 0);
    filter->onData = OnData::drop;
    ASSERT_EQ(client.sendTo(server(), port), 0);
    ASSERT_TRUE(eventually([&] { return calls.count(Kind::data) == 2; }));
    filter->onData = OnData::data;
    for (int datagram = 0; datagram < 3; ++datagram) client.sendTo(server(), port);
    const timeval moment{0, 200'000};
    setsockopt(client.descriptor(), SOL_SOCKET, SO_RCVTIMEO, &moment, sizeof moment);
    EXPECT_EQ(client.receive(1), EAGAIN);
    EXPECT_EQ(timesOffered(), 1u);
    EXPECT_EQ(calls.count(Kind::data), 2u);

    interception->setRulesChanging(true);
    interception->setRulesChanging(false);
    ASSERT_EQ(client.sendTo(server(), port), 0);
    EXPECT_EQ(client.receive(1), 0);
    EXPECT_EQ(timesOffered(), 2u);

    filter->onData = OnData::drop;
    client.sendTo(server(), port);
    ASSERT_TRUE(eventually([&] { return calls.count(Kind::data) == 4; }));
    filter->onData = OnData::data;
    const std::uint16_t takenPort = client.localPort();
    client = ClientSocket(AF_INET, SOCK_DGRAM);
    ASSERT_EQ(client.bindTo(takenPort), 0);
    ASSERT_EQ(client.sendTo(server(), port), 0);
    EXPECT_EQ(client.receive(1), 0);
    EXPECT_EQ(timesOffered(), 3u);
}

TEST_F(InterceptionTest, NextSocketOnAPortIsNotTakenForTheOneBefore) {
    constexpr std::uint16_t takenPort = 40123;
    // More destinations than are kept for a socket.
    for (const int destinations : {1, 40}) {
        const auto offeredBefore = timesOffered();
        for (int socket = 0; socket < 2; ++socket) {
            ClientSocket client(AF_INET, SOCK_DGRAM);
            ASSERT_EQ(client.bindTo(takenPort), 0);
            for (int each = 0; each < destinations; ++each)
                ASSERT_EQ(client.sendTo(server(), static_cast<std::uint16_t>(port + each)), 0);
            const auto expected =
                offeredBefore + static_cast<std::size_t>((socket + 1) * destinations);
            EXPECT_TRUE(eventually([&] { return timesOffered() == expected; }))
                << destinations << " destinations, socket " << socket << ": offered "
                << timesOffered() - offeredBefore;
            // A packet gets its entry after it was offered.
            ASSERT_TRUE(eventually([&] { return entriesFrom(takenPort) == destinations; }));
            client = ClientSocket(AF_INET, SOCK_DGRAM);
            ASSERT_TRUE(eventually([&] { return entriesFrom(takenPort) == 0; }));
        }
    }
}

TEST_F(InterceptionTest, VerdictsComeBeforeWhateverElseWantsToRun) {
    int ownNiceness = 0;
    int nicenessOfOthers = -1;
    std::thread([&] {
        runBeforeOrdinaryPrograms();
        ownNiceness = nicenessOfThisThread();
        std::thread([&] { nicenessOfOthers = nicenessOfThisThread(); }).join();
    }).join();
    if (ownNiceness == 0) GTEST_SKIP() << "needs the right to run before others";
    EXPECT_EQ(nicenessOfOthers, 0) << "what it starts is not handed its place";
    connected();
    EXPECT_EQ(filter->niceness, ownNiceness);
}

TEST_F(InterceptionTest, AllOtherBitsOfBothMarksSurvive) {
    runCommand(
        "nft 'add table inet other;"
        " add chain inet other before { type filter hook output priority -180; };"
        " add rule inet other before ct mark set ct mark or 0x00000500;"
        " add chain inet other after { type filter hook postrouting priority 0; };"
        " add rule inet other after meta mark 0x00a00007 counter accept;"
        " add rule inet other after meta l4proto tcp counter'");
    filter->onNewFlow = NewFlow::filterData;
    ClientSocket client(AF_INET, SOCK_STREAM);
    const std::uint32_t mark = 0x00a00007;
    ASSERT_EQ(setsockopt(client.descriptor(), SOL_SOCKET, SO_MARK, &mark, sizeof mark), 0);
    ASSERT_EQ(client.connectTo(server(), port), 0);
    filter->onData = OnData::allow;
    for (int round = 0; round < 2; ++round) ASSERT_EQ(client.exchange(), 0);
    const std::string connections = runCommand("conntrack -L -p tcp");
    EXPECT_NE(connections.find("mark=" + std::to_string(0x01000500)), std::string::npos)
        << connections;
    // No packet of the flow left with another mark than the application's.
    const std::string rules = runCommand("nft --numeric-protocol list chain inet other after");
    EXPECT_EQ(rules.find("mark 0x00a00007 counter packets 0"), std::string::npos) << rules;
    EXPECT_NE(rules.find("l4proto 6 counter packets 0"), std::string::npos) << rules;
}

TEST_F(InterceptionTest, StrangerAtTheListenerIsReset) {
    proxy->isClaiming = true;
    const std::string listening =
        runCommand("ss -Htln src 127.0.0.1 | sed 's/.*127.0.0.1:\\([0-9]*\\) .*/\\1/'");
    ClientSocket stranger(AF_INET, SOCK_STREAM);
    ASSERT_EQ(stranger.connectTo("127.0.0.1", static_cast<std::uint16_t>(std::stoi(listening))), 0);
    EXPECT_EQ(stranger.receive(1), ECONNRESET);
}

TEST_F(InterceptionTest, MarksOfAnEarlierProcessAreWipedAtStartAndOursAtTheEnd) {
    ClientSocket client = connected();
    ASSERT_EQ(client.exchange(), 0);
    const auto hasMark = [] {
        return runCommand("conntrack -L -p tcp -o extended").find("mark=0 ") == std::string::npos;
    };
    EXPECT_TRUE(hasMark());
    interception.reset();
    EXPECT_FALSE(hasMark());
    // As if the process had been killed while this flow was denied.
    const std::uint32_t denied = MarkPlace(24).value(FlowState::denied);
    ASSERT_TRUE(ConnectionEntries::openOrNull()->changeMarks(
        MarkPlace(24).mask(), [&](std::uint32_t) { return denied; }));
    EXPECT_TRUE(hasMark());

    interception = std::make_unique<Interception>(Providers{proxy, filter});
    setFilter(NEFilterAction::filterData);
    EXPECT_FALSE(hasMark());
    // A connection older than the rules is not offered.
    EXPECT_EQ(client.exchange(), 0);
    EXPECT_EQ(timesOffered(), 1u);
}

// Where the kernel cannot let a table have an owner.
TEST(InterceptionRules, ThatSomebodyFlushesComeBack) {
    Scene scene({TableOwnership::shared, {}});
    runCommand("nft flush ruleset");
    EXPECT_TRUE(eventually(
        [] { return runCommand("nft list tables").find("vantry") != std::string::npos; }));
    Scene::connected();
    EXPECT_EQ(scene.timesOffered(), 1u);
}

// The table is another's for a while, and what is asked for then can't be carried out at once.
TEST(InterceptionRules, AFlushThatFailsIsTriedAgainAndEndsWithTheOffers) {
    Scene scene({TableOwnership::shared, {}});
    const auto takeTable = [] {
        std::unique_ptr<std::FILE, decltype(&pclose)> another(popen("nft -i > /dev/null", "w"),
                                                              &pclose);
        std::fputs("delete table inet vantry; add table inet vantry { flags owner; }\n",
                   another.get());
        std::fflush(another.get());
        EXPECT_TRUE(eventually(
            [] { return runCommand("nft list ruleset").find("owner") != std::string::npos; }));
        return another;
    };
    ClientSocket client = Scene::connected();
    auto another = takeTable();
    Awaited<std::optional<NSError>> flushed;
    scene.interception->setProxyRules({everyFlow[0]}, flushed.put());
    ASSERT_EQ(client.exchange(), 0);
    EXPECT_FALSE(scene.interception->isInForce());
    another.reset();
    EXPECT_EQ(flushed.get(), std::nullopt);
    EXPECT_EQ(client.exchange(), 0);
    EXPECT_EQ(scene.timesOffered(), 2u);

    another = takeTable();
    Awaited<std::optional<NSError>> refused;
    Awaited<std::optional<NSError>> ended;
    scene.interception->setProxyRules({everyFlow[1]}, refused.put());
    scene.interception->endOffers(ended.put());
    EXPECT_NE(refused.get(), std::nullopt);
    another.reset();
    EXPECT_EQ(ended.get(), std::nullopt);
    EXPECT_EQ(client.exchange(), 0);
    EXPECT_EQ(Scene::connected().exchange(), 0);
    EXPECT_EQ(scene.timesOffered(), 2u);
}

// A filter that answers no one until it may go on, and an account without a limit.
struct StuckScene : Scene {
    explicit StuckScene(std::chrono::milliseconds longestWait)
        : Scene({TableOwnership::exclusive, {longestWait, 32, {100'000, 32}, longestWait}}) {
        filter->isWaiting = true;
    }
};

TEST(InterceptionQueue, OverduePacketsAreLetGoEvenIfEveryWorkerIsStuck) {
    StuckScene scene(std::chrono::milliseconds(100));
    std::vector<ClientSocket> clients;
    for (int index = 0; index < 80; ++index) {
        clients.push_back(Scene::connected(SOCK_DGRAM));
        ASSERT_EQ(clients.back().send(1), 0);
    }
    for (ClientSocket& client : clients) ASSERT_EQ(client.receive(1), 0);
    const auto moves = [&] {
        EXPECT_EQ(clients.front().send(1), 0);
        return scene.interception->areVerdictsMoving();
    };
    EXPECT_TRUE(eventually([&] { return !moves(); })) << "the service manager is to hear of it";
    scene.filter->mayGoOn.set_value();
    EXPECT_TRUE(eventually(moves));
}

// As many flushes as bring the same number back into the marks, while a verdict is being waited for
// and then at once after the next one.
TEST(InterceptionQueue, FlushesWithinAMomentOfferAFlowOnceMore) {
    StuckScene scene(std::chrono::minutes(1));
    ClientSocket client = Scene::connected(SOCK_DGRAM);
    ASSERT_EQ(client.send(1), 0);
    ASSERT_TRUE(eventually([&] { return scene.timesOffered() == 1; }));
    for (unsigned count = 0; count < countedGenerations; ++count) scene.flush();
    scene.filter->mayGoOn.set_value();
    ASSERT_EQ(client.receive(1), 0);
    for (int round = 0; round < 2; ++round) ASSERT_EQ(client.exchange(), 0);
    EXPECT_EQ(scene.timesOffered(), 2u);
    for (unsigned count = 0; count < countedGenerations; ++count) scene.flush();
    ASSERT_EQ(client.exchange(), 0);
    EXPECT_EQ(scene.timesOffered(), 3u);
}

TEST(InterceptionQueue, PacketsBeyondItsRoomPassAndItGoesOnAfterwards) {
    StuckScene scene(std::chrono::minutes(1));
    std::vector<ClientSocket> clients;
    // More than the queue holds, less of each flow than its socket may have on the way.
    while (scene.lab.bytesAtServer() == 0) {
        ASSERT_LT(clients.size(), 200u) << "the queue takes everything";
        clients.push_back(Scene::connected(SOCK_DGRAM));
        for (int datagram = 0; datagram < 100; ++datagram) ASSERT_EQ(clients.back().send(1), 0);
    }
    const std::size_t stuck = scene.timesOffered();
    scene.filter->mayGoOn.set_value();
    // A new flow passes, and as soon as the queue has room again it is offered.
    const auto offered = [&](bool isTcp) {
        return std::ranges::count(scene.calls.of(Kind::filter), isTcp, &Call::isTcp);
    };
    EXPECT_TRUE(eventually([&] {
        EXPECT_EQ(Scene::connected().exchange(), 0);
        return offered(true) > 0;
    }));
    EXPECT_TRUE(eventually([&] { return std::cmp_greater(offered(false), stuck); }))
        << "what waited is offered, too";
    // What passed is offered with its next packet.
    for (ClientSocket& client : clients) ASSERT_EQ(client.send(1), 0);
    EXPECT_TRUE(eventually([&] { return std::cmp_greater_equal(offered(false), clients.size()); }));
}

}  // namespace platform::interception
