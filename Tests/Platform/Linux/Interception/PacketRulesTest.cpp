// The rules, the queues and the workers together in a real network, with scripted decisions in the
// place of the providers'.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <future>
#include <map>
#include <mutex>

#include "Platform/Linux/Interception/PacketQueue.h"
#include "Platform/Linux/Interception/PacketTable.h"
#include "Platform/Linux/Interception/PacketWorkers.h"
#include "Tests/Platform/Linux/Interception/InterceptionLab.h"

namespace platform::interception {

namespace {

constexpr MarkPlace place{24};
constexpr auto server = &InterceptionLab::serverAddress;
constexpr std::uint16_t port = InterceptionLab::echoPort;

// Rules and queues in force, with one decision for everything and a record of what was shown.
class Interception {
public:
    using Decide = std::function<FlowState(const HeldPacket&)>;

    explicit Interception(Decide decision,
                          std::chrono::milliseconds longestWait = std::chrono::milliseconds(1000))
        : decide(std::move(decision)),
          queue(PacketQueue::open()),
          table(PacketTable::open()),
          workers(
              *queue, [this](const HeldPacket& packet) { return mark(packet); },
              [this](std::size_t count) { overdue += count; }, {longestWait, 32}) {
        content.place = place;
        content.queues = queue->numbers();
        content.offeredProtocols = {IPPROTO_TCP, IPPROTO_UDP};
        EXPECT_EQ(table->install(content), 0);
    }
    ~Interception() { table->remove(); }

    std::size_t count(PacketPurpose purpose) {
        const std::lock_guard guard(lock);
        return seen[purpose].size();
    }
    std::vector<HeldPacket> packets(PacketPurpose purpose) {
        const std::lock_guard guard(lock);
        return seen[purpose];
    }

private:
    std::uint32_t mark(const HeldPacket& packet) {
        {
            const std::lock_guard guard(lock);
            seen[packet.purpose].push_back(packet);
        }
        const FlowState state = decide(packet);
        if (state == FlowState::unseen) return packet.mark;
        return place.put(packet.mark, place.value(state, generation));
    }

public:
    std::atomic<unsigned> generation{0};
    std::atomic<std::size_t> overdue{0};

private:
    const Decide decide;
    std::mutex lock;
    std::map<PacketPurpose, std::vector<HeldPacket>> seen;
    std::unique_ptr<PacketQueue> queue;

public:
    PacketTableContent content;
    std::unique_ptr<PacketTable> table;

private:
    PacketWorkers workers;
};

Interception::Decide always(FlowState state) {
    return [state](const HeldPacket&) { return state; };
}

struct FlowKind {
    int family;
    int type;
    const char* name;
};
void PrintTo(const FlowKind& kind, std::ostream* stream) { *stream << kind.name; }

class PacketRulesOfEveryKind : public testing::TestWithParam<FlowKind> {
protected:
    ClientSocket makeSocket() const { return {GetParam().family, GetParam().type}; }
    const char* address() const { return server(GetParam().family); }
    bool isTcp() const { return GetParam().type == SOCK_STREAM; }

    InterceptionLab lab;
};
INSTANTIATE_TEST_SUITE_P(Flows, PacketRulesOfEveryKind,
                         testing::Values(FlowKind{AF_INET, SOCK_STREAM, "TCPv4"},
                                         FlowKind{AF_INET, SOCK_DGRAM, "UDPv4"},
                                         FlowKind{AF_INET6, SOCK_STREAM, "TCPv6"},
                                         FlowKind{AF_INET6, SOCK_DGRAM, "UDPv6"}),
                         [](const auto& kind) { return std::string(kind.param.name); });

}  // namespace

TEST_P(PacketRulesOfEveryKind, DeclinedFlowIsShownOnceInEachGeneration) {
    Interception interception(always(FlowState::declined));
    ClientSocket client = makeSocket();
    ASSERT_EQ(client.connectTo(address(), port), 0);
    for (int round = 0; round < 3; ++round) ASSERT_EQ(client.exchange(), 0);
    EXPECT_EQ(interception.count(PacketPurpose::newFlow), 1u);
    EXPECT_EQ(interception.count(PacketPurpose::offeredAgain), 0u);

    interception.generation = 1;
    ASSERT_EQ(interception.table->setGeneration(1), 0);
    for (int round = 0; round < 3; ++round) ASSERT_EQ(client.exchange(), 0);
    EXPECT_EQ(interception.count(PacketPurpose::newFlow), 1u);
    EXPECT_EQ(interception.count(PacketPurpose::offeredAgain), 1u);
    EXPECT_EQ(interception.count(PacketPurpose::watchedData), 0u);
}

TEST_P(PacketRulesOfEveryKind, WatchedFlowShowsThePayloadOfEveryPacket) {
    Interception interception([](const HeldPacket& packet) {
        return packet.purpose == PacketPurpose::newFlow ? FlowState::watched : FlowState::unseen;
    });
    ClientSocket client = makeSocket();
    ASSERT_EQ(client.connectTo(address(), port), 0);
    for (const std::size_t bytes : {1u, 700u, 1400u}) ASSERT_EQ(client.exchange(bytes), 0);
    EXPECT_EQ(interception.count(PacketPurpose::newFlow), 1u);
    std::size_t shown = 0;
    for (const HeldPacket& packet : interception.packets(PacketPurpose::watchedData))
        shown += packet.payloadLength;
    // A datagram flow's first payload came with its first packet.
    EXPECT_EQ(shown, isTcp() ? 2101u : 2100u);
    EXPECT_EQ(interception.packets(PacketPurpose::newFlow).front().payloadLength,
              isTcp() ? 0u : 1u);
}

TEST_P(PacketRulesOfEveryKind, DeniedFlowFailsAtOnceAndSendsNothing) {
    Interception interception(always(FlowState::denied));
    ClientSocket client = makeSocket();
    if (isTcp()) {
        EXPECT_EQ(client.connectTo(address(), port), ECONNREFUSED);
    } else {
        ASSERT_EQ(client.connectTo(address(), port), 0);
        EXPECT_EQ(client.exchange(), ECONNREFUSED);
    }
    EXPECT_EQ(lab.bytesAtServer(), 0u);
}

TEST_P(PacketRulesOfEveryKind, EstablishedFlowThatIsDeniedFailsAtItsNextByte) {
    std::atomic<bool> isDenying{false};
    Interception interception([&](const HeldPacket& packet) {
        if (packet.purpose == PacketPurpose::newFlow) return FlowState::watched;
        return isDenying ? FlowState::denied : FlowState::unseen;
    });
    ClientSocket client = makeSocket();
    ASSERT_EQ(client.connectTo(address(), port), 0);
    ASSERT_EQ(client.exchange(), 0);
    isDenying = true;
    EXPECT_EQ(client.exchange(), isTcp() ? ECONNRESET : ECONNREFUSED);
    EXPECT_EQ(lab.bytesAtServer(), 5u);
}

TEST_P(PacketRulesOfEveryKind, OwnAndLoopbackTrafficIsNeverShown) {
    Interception interception(always(FlowState::denied));
    ClientSocket own = makeSocket();
    const std::uint32_t mark = place.value(FlowState::ownTraffic);
    ASSERT_EQ(setsockopt(own.descriptor(), SOL_SOCKET, SO_MARK, &mark, sizeof mark), 0);
    ASSERT_EQ(own.connectTo(address(), port), 0);
    EXPECT_EQ(own.exchange(), 0);

    const char* const local[] = {GetParam().family == AF_INET ? "127.0.0.1" : "::1",
                                 GetParam().family == AF_INET ? "10.77.0.1" : "fd77::1"};
    for (const char* const here : local) {
        ClientSocket loopback = makeSocket();
        ASSERT_EQ(loopback.connectTo(here, port), isTcp() ? ECONNREFUSED : 0);
        if (!isTcp()) loopback.send(1);
    }
    EXPECT_EQ(interception.count(PacketPurpose::newFlow), 0u);
}

TEST_P(PacketRulesOfEveryKind, FlowOlderThanTheRulesIsNeverShown) {
    // Someone else's rule keeps connection tracking on before ours come.
    lab.run(
        "nft 'add table inet other; add chain inet other c { type filter hook output priority 0; };"
        " add rule inet other c ct state new counter'");
    ClientSocket client = makeSocket();
    ASSERT_EQ(client.connectTo(address(), port), 0);
    ASSERT_EQ(client.exchange(), 0);
    Interception interception(always(FlowState::denied));
    for (int round = 0; round < 3; ++round) ASSERT_EQ(client.exchange(), 0);
    EXPECT_EQ(interception.count(PacketPurpose::newFlow), 0u);
}

TEST(PacketRules, LargeSegmentsOfAWatchedUploadAreShownWholeAndInOrder) {
    InterceptionLab lab;
    Interception interception([](const HeldPacket& packet) {
        return packet.purpose == PacketPurpose::newFlow ? FlowState::watched : FlowState::unseen;
    });
    ClientSocket client(AF_INET, SOCK_STREAM);
    ASSERT_EQ(client.connectTo(server(AF_INET), port), 0);
    constexpr std::size_t total = 4 << 20;
    std::thread drain([&] { EXPECT_EQ(client.receive(total), 0); });
    EXPECT_EQ(client.send(total), 0);
    drain.join();

    const auto opening = interception.packets(PacketPurpose::newFlow);
    ASSERT_EQ(opening.size(), 1u);
    std::uint32_t expected = opening.front().tcpSequence + 1;
    std::size_t largest = 0;
    for (const HeldPacket& packet : interception.packets(PacketPurpose::watchedData)) {
        largest = std::max(largest, packet.payloadLength);
        // A retransmission repeats what was shown; nothing may be left out.
        EXPECT_LE(static_cast<std::int32_t>(packet.tcpSequence - expected), 0);
        const std::uint32_t end =
            packet.tcpSequence + static_cast<std::uint32_t>(packet.payloadLength);
        if (static_cast<std::int32_t>(end - expected) > 0) expected = end;
    }
    EXPECT_EQ(expected - opening.front().tcpSequence - 1, total);
    EXPECT_GT(largest, 16000u);
}

TEST(PacketRules, AllOtherBitsOfBothMarksSurvive) {
    InterceptionLab lab;
    EXPECT_EQ(lab.run("nft 'add table inet other;"
                      " add chain inet other before { type filter hook output priority -180; };"
                      " add rule inet other before ct mark set ct mark or 0x00000500;"
                      " add chain inet other after { type filter hook postrouting priority 0; };"
                      " add rule inet other after meta mark 0x00a00007 counter accept;"
                      " add rule inet other after meta l4proto tcp counter'"),
              "");
    std::atomic<FlowState> state{FlowState::watched};
    Interception interception([&](const HeldPacket&) { return state.load(); });
    ClientSocket client(AF_INET, SOCK_STREAM);
    const std::uint32_t mark = 0x00a00007;
    ASSERT_EQ(setsockopt(client.descriptor(), SOL_SOCKET, SO_MARK, &mark, sizeof mark), 0);
    ASSERT_EQ(client.connectTo(server(AF_INET), port), 0);
    state = FlowState::declined;
    ASSERT_EQ(client.exchange(), 0);
    ASSERT_EQ(client.exchange(), 0);
    EXPECT_EQ(interception.packets(PacketPurpose::newFlow).front().mark, mark);
    const std::string connections = lab.run("conntrack -L -p tcp");
    EXPECT_NE(connections.find("mark=" + std::to_string(0x01000500)), std::string::npos)
        << connections;
    // No packet of the flow left with another mark than the application's.
    const std::string rules = lab.run("nft --numeric-protocol list chain inet other after");
    EXPECT_EQ(rules.find("mark 0x00a00007 counter packets 0"), std::string::npos) << rules;
    EXPECT_NE(rules.find("l4proto 6 counter packets 0"), std::string::npos) << rules;
}

TEST(PacketRules, SlowFlowHoldsUpNoOther) {
    InterceptionLab lab;
    std::promise<void> mayGoOn;
    auto gate = mayGoOn.get_future().share();
    std::atomic<std::uint16_t> slowPort{0};
    Interception interception(
        [&](const HeldPacket& packet) {
            if (packet.flow.sourcePort == slowPort) gate.wait();
            return FlowState::declined;
        },
        std::chrono::milliseconds(60'000));
    ClientSocket slow(AF_INET, SOCK_DGRAM);
    ASSERT_EQ(slow.connectTo(server(AF_INET), port), 0);
    sockaddr_in local{};
    socklen_t length = sizeof local;
    getsockname(slow.descriptor(), reinterpret_cast<sockaddr*>(&local), &length);
    slowPort = ntohs(local.sin_port);
    for (int burst = 0; burst < 20; ++burst) ASSERT_EQ(slow.send(1), 0);

    for (int other = 0; other < 50; ++other) {
        ClientSocket quick(AF_INET, SOCK_STREAM);
        ASSERT_EQ(quick.connectTo(server(AF_INET), port), 0);
    }
    EXPECT_EQ(interception.count(PacketPurpose::newFlow), 51u);
    mayGoOn.set_value();
    EXPECT_EQ(slow.receive(1), 0);
}

TEST(PacketRules, OverduePacketsAreLetGoEvenIfEveryWorkerIsStuck) {
    InterceptionLab lab;
    std::promise<void> mayGoOn;
    auto gate = mayGoOn.get_future().share();
    Interception interception(
        [&](const HeldPacket&) {
            gate.wait();
            return FlowState::denied;
        },
        std::chrono::milliseconds(100));
    std::vector<ClientSocket> clients;
    for (int index = 0; index < 80; ++index) {
        clients.emplace_back(AF_INET, SOCK_DGRAM);
        ASSERT_EQ(clients.back().connectTo(server(AF_INET), port), 0);
        ASSERT_EQ(clients.back().send(1), 0);
    }
    for (ClientSocket& client : clients) ASSERT_EQ(client.receive(1), 0);
    EXPECT_EQ(interception.overdue, 80u);
    mayGoOn.set_value();
}

TEST(PacketRules, NothingStaysBehindWhenTheProcessIsKilled) {
    int mayBegin[2];
    int ready[2];
    ASSERT_EQ(pipe(mayBegin) | pipe(ready), 0);
    // Forked before this process has other threads; it follows into the lab when that stands.
    const pid_t child = fork();
    char signal = 0;
    if (child == 0) {
        if (read(mayBegin[0], &signal, 1) != 1 || !InterceptionLab::enterThatOf(getppid()))
            _exit(1);
        Interception interception(always(FlowState::denied));
        if (write(ready[1], &signal, 1) != 1) _exit(1);
        for (;;) pause();
    }
    InterceptionLab lab;
    ASSERT_EQ(write(mayBegin[1], &signal, 1), 1);
    ASSERT_EQ(read(ready[0], &signal, 1), 1);
    EXPECT_EQ(ClientSocket(AF_INET, SOCK_STREAM).connectTo(server(AF_INET), port), ECONNREFUSED);
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    EXPECT_TRUE(eventually([&] { return lab.run("nft list ruleset").empty(); }));
    EXPECT_EQ(ClientSocket(AF_INET, SOCK_STREAM).connectTo(server(AF_INET), port), 0);
}

TEST(PacketRules, FlushingAllRulesSparesOursAndSharedOnesAreMissed) {
    InterceptionLab lab;
    Interception interception(always(FlowState::denied));
    EXPECT_TRUE(interception.table->isComplete());
    lab.run("nft flush ruleset");
    EXPECT_TRUE(interception.table->isComplete());
    EXPECT_EQ(ClientSocket(AF_INET, SOCK_STREAM).connectTo(server(AF_INET), port), ECONNREFUSED);

    interception.table->remove();
    const auto shared = PacketTable::open(TableOwnership::shared);
    ASSERT_EQ(shared->install(interception.content), 0);
    EXPECT_TRUE(shared->isComplete());
    lab.run("nft flush ruleset");
    EXPECT_FALSE(shared->isComplete());
}

}  // namespace platform::interception
