// What the interception remembers of flows between packets, and the small questions that it answers
// without the kernel.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>

#include "Platform/Linux/Decisions/NetworkRules.h"
#include "Platform/Linux/Decisions/RecentVerdicts.h"
#include "Platform/Linux/Decisions/WatchedFlows.h"
#include "Platform/Linux/Packets/WaitingFlows.h"
#include "Platform/Linux/Rules/MarkPlaces.h"
#include "Platform/Linux/Rules/MarksInRules.h"

namespace platform::interception {

namespace {

FlowTuple flowTo(const char* address, std::uint16_t port, int protocol = IPPROTO_TCP) {
    FlowTuple flow;
    flow.protocol = protocol;
    flow.family =
        std::string_view(address).find(':') == std::string_view::npos ? AF_INET : AF_INET6;
    inet_pton(flow.family, address, flow.destinationAddress.data());
    flow.destinationPort = port;
    flow.sourcePort = 40000;
    return flow;
}

HeldPacket packetOf(const FlowTuple& flow, PacketPurpose purpose, std::uint32_t sequence = 0,
                    std::size_t payload = 0) {
    HeldPacket packet;
    packet.flow = flow;
    packet.purpose = purpose;
    packet.tcpSequence = sequence;
    packet.payloadLength = payload;
    return packet;
}

}  // namespace

TEST(WatchedFlow, OffsetsFollowTheStreamThroughWrapsRetransmissionsAndDatagrams) {
    const FlowTuple tcp = flowTo("192.0.2.1", 443);
    WatchedFlow stream(nullptr, 0xfffffff0u, 0);
    const auto offset = [&](std::uint32_t sequence, std::size_t length) {
        return stream.offsetOf(packetOf(tcp, PacketPurpose::watchedData, sequence, length));
    };
    EXPECT_EQ(offset(0xfffffff0u, 16), 0);
    EXPECT_EQ(offset(0, 100), 16);
    EXPECT_EQ(offset(0xfffffff0u, 16), 0);  // again
    EXPECT_EQ(offset(50, 60), 66);          // overlapping
    EXPECT_EQ(offset(94, 1000), 110);       // and on
    std::int64_t expected = 1110;
    for (std::uint32_t sequence = 1094; expected < (std::int64_t{9} << 30);
         sequence += 1u << 30, expected += std::int64_t{1} << 30)
        ASSERT_EQ(offset(sequence, std::size_t{1} << 30), expected);

    const FlowTuple udp = flowTo("192.0.2.1", 443, IPPROTO_UDP);
    WatchedFlow datagrams(nullptr, 0, 0);
    for (const std::int64_t sum : {0, 700, 1400})
        EXPECT_EQ(datagrams.offsetOf(packetOf(udp, PacketPurpose::watchedData, 0, 700)), sum);
}

TEST(WatchedFlow, DataOnASynBeginsAtTheStart) {
    WatchedFlow stream(nullptr, 1001, 0);
    HeldPacket opening = packetOf(flowTo("192.0.2.1", 443), PacketPurpose::newFlow, 1000, 20);
    opening.opensTcp = true;
    EXPECT_EQ(stream.offsetOf(opening), 0);
    EXPECT_EQ(stream.offsetOf(packetOf(opening.flow, PacketPurpose::watchedData, 1021, 5)), 20);
}

TEST(WatchedFlows, ForgetTheLongestUnusedBeyondTheirCapacity) {
    WatchedFlows flows(3);
    const auto flow = [](std::uint16_t port) { return flowTo("192.0.2.1", port); };
    for (std::uint16_t port = 1; port <= 3; ++port)
        flows.add(flow(port), std::make_shared<WatchedFlow>(nullptr, 0, 0));
    EXPECT_NE(flows.find(flow(1)), nullptr);
    flows.add(flow(4), std::make_shared<WatchedFlow>(nullptr, 0, 0));
    EXPECT_EQ(flows.find(flow(2)), nullptr);
    EXPECT_NE(flows.find(flow(1)), nullptr);
    flows.removeEnded(std::chrono::seconds(0),
                      [](const FlowTuple& asked) { return asked.destinationPort != 4; });
    EXPECT_EQ(flows.count(), 1u);
    EXPECT_NE(flows.find(flow(4)), nullptr);
}

TEST(WaitingFlows, AccountsTakeTurnsAndHaveTheirShareOfPacketsAndWorkers) {
    constexpr std::uint32_t flooding = 1000, quiet = 1001;
    WaitingFlows flows({5, 2});
    const auto add = [&](std::uint32_t account, std::uint16_t port) {
        HeldPacket packet = packetOf(flowTo("192.0.2.1", port), PacketPurpose::newFlow);
        packet.account = account;
        return flows.add(packet, {});
    };
    for (std::uint16_t port = 1; port <= 5; ++port) EXPECT_TRUE(add(flooding, port));
    EXPECT_FALSE(add(flooding, 6));
    EXPECT_TRUE(add(quiet, 7));
    EXPECT_EQ(flows.take().tuple.destinationPort, 1);
    EXPECT_EQ(flows.take().tuple.destinationPort, 7);
    WaitingFlows::Flow& second = flows.take();
    EXPECT_EQ(second.tuple.destinationPort, 2);
    EXPECT_FALSE(flows.isAnyReady()) << "two workers for one account";
    flows.removeFirst(second, 1);
    flows.finish(second);
    EXPECT_TRUE(flows.isAnyReady());
    EXPECT_TRUE(add(flooding, 6));
}

TEST(RecentVerdicts, TellRetransmissionsFromNewOpenings) {
    RecentVerdicts recent;
    const FlowTuple tcp = flowTo("192.0.2.1", 443);
    recent.remember(packetOf(tcp, PacketPurpose::newFlow, 77), {FlowState::denied, 0});
    EXPECT_TRUE(recent.find(packetOf(tcp, PacketPurpose::newFlow, 77), 0));
    EXPECT_FALSE(recent.find(packetOf(tcp, PacketPurpose::newFlow, 78), 0));
    EXPECT_FALSE(recent.find(packetOf(tcp, PacketPurpose::offeredAgain, 77), 0));

    recent.remember(packetOf(tcp, PacketPurpose::offeredAgain), {FlowState::declined, 5});
    EXPECT_TRUE(recent.find(packetOf(tcp, PacketPurpose::offeredAgain), 5));
    EXPECT_FALSE(recent.find(packetOf(tcp, PacketPurpose::offeredAgain), 6));
    recent.forget(tcp);
    EXPECT_FALSE(recent.find(packetOf(tcp, PacketPurpose::offeredAgain), 5));
}

TEST(NetworkRules, CoverFlowsByProtocolDirectionAddressAndPort) {
    using Protocol = NENetworkRule::Protocol;
    using Direction = NENetworkRule::TrafficDirection;
    const FlowTuple flow = flowTo("10.20.30.40", 443);
    constexpr auto outbound = Direction::outbound;
    const struct {
        const char* name;
        std::optional<NWHostEndpoint> remote;
        unsigned prefix;
        Protocol protocol;
        Direction direction;
        bool covers;
    } cases[] = {
        {"everything", {}, 0, Protocol::any, Direction::any, true},
        {"its protocol", {}, 0, Protocol::TCP, outbound, true},
        {"the other protocol", {}, 0, Protocol::UDP, outbound, false},
        {"inbound", {}, 0, Protocol::TCP, Direction::inbound, false},
        {"its network", {{"10.20.16.0", "0"}}, 20, Protocol::TCP, outbound, true},
        {"beside it", {{"10.20.32.0", "0"}}, 20, Protocol::TCP, outbound, false},
        {"its port", {{"10.0.0.0", "443"}}, 8, Protocol::TCP, outbound, true},
        {"another port", {{"10.0.0.0", "80"}}, 8, Protocol::TCP, outbound, false},
        {"the other family", {{"::", "0"}}, 0, Protocol::TCP, outbound, false},
    };
    for (const auto& [name, remote, prefix, protocol, direction, covers] : cases)
        EXPECT_EQ(asksFor({{remote, prefix, std::nullopt, 0, protocol, direction}}, flow), covers)
            << name;
}

TEST(MarkPlaces, AvoidTheBitsThatOthersName) {
    EXPECT_EQ(freeMarkPlace(0), MarkPlace(24));
    EXPECT_EQ(freeMarkPlace(0x80000000), MarkPlace(23));
    EXPECT_EQ(freeMarkPlace(0xffff00ff), MarkPlace(8));
    EXPECT_EQ(freeMarkPlace(0x6d6f6c65), std::nullopt);
}

TEST(MarkPlaces, RangesAndNumbersThatTheKernelDrawsCountWhole) {
    EXPECT_EQ(markBitsInRules("\tmeta mark set numgen inc mod 16 offset 256\n"), 0x10fu);
    EXPECT_EQ(markBitsInRules("\tmeta mark 0x00000011-0x00000013 accept\n"), 0x13u);
    EXPECT_EQ(markBitsInRules("\tset s {\n\t\ttype mark\n\t\telements = { 0x00ff0000/24 }\n"),
              0x00ff00ffu);
}

TEST(MarkPlaces, RulesThatKeepNothingOfAConnectionsMarkAreTold) {
    const auto chain = [](const std::string& name, const std::string& rule) {
        return "table ip " + name +
               " {\n\tchain c {\n\t\ttype filter hook output priority 0;\n\t\t" + rule +
               "\n\t}\n}\n";
    };
    EXPECT_EQ(
        tablesThatOverwriteMarks(chain("saved", "oifname \"tun0\" ct mark set meta mark") +
                                 chain("number", "ct mark set 0x00000001 meta mark set ct mark") +
                                 chain("masked", "ct mark set meta mark & 0x000000ff") +
                                 chain("some", "meta mark != 0x00000000 ct mark set meta mark") +
                                 chain("iptables", "counter packets 1 bytes 60 ct mark set mark")),
        "ip saved, ip number, ip masked, ip some, ip iptables");
    EXPECT_EQ(tablesThatDoNotTrack(chain("web", "tcp dport 80 notrack") + chain("b", "accept")),
              "ip web");
    EXPECT_EQ(tablesThatOverwriteMarks(
                  chain("kept", "ct mark set ct mark & 0xffffff00 | 0x00000001") +
                  chain("both", "ct mark set meta mark & 0xff | ct mark & 0xffffff00") +
                  chain("iptables", "ct mark set mark and 0xff0000") +
                  chain("tunnel", "meta l4proto udp meta mark 0x0000ca6c ct mark set meta mark") +
                  chain("read", "meta mark set ct mark") +
                  "table ip f {\n\tchain c {\n\t\ttype filter hook forward priority 0;\n"
                  "\t\tct mark set 0x1\n"),
              "");
}

}  // namespace platform::interception
