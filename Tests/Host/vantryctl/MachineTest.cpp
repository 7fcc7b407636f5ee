#include <gtest/gtest.h>
#include <sys/socket.h>

#include "Host/vantryctl/MachineCheck.h"
#include "Host/vantryctl/TunnelState.h"

namespace vantryctl {
namespace {

using platform::NetworkInterface;
using platform::NetworkState;
using Names = std::vector<std::string>;

TEST(TunnelStateTest, OnlyATunnelInUseIsTheVPN) {
    const auto interfaceNamed = [](const char* name, bool isTunnel = true) {
        NetworkInterface made;
        made.name = made.shownName = name;
        made.isTunnel = isTunnel;
        made.isUp = true;
        made.addresses.push_back({AF_INET, {10, 0, 0, 1}, 24, false});
        return made;
    };
    NetworkState state{{interfaceNamed("eth0", false), interfaceNamed("tun0"),
                        interfaceNamed("down"), interfaceNamed("bare"), interfaceNamed("local"),
                        interfaceNamed("wg0")}};
    state.interfaces[2].isUp = false;
    state.interfaces[3].addresses.clear();
    state.interfaces[4].addresses = {{AF_INET6, {0xfe, 0x80}, 64, true}};
    EXPECT_EQ(tunnelsThatAreUp(state, {}), (Names{"tun0", "wg0"}));
    EXPECT_EQ(tunnelsThatAreUp(state, {"wg0", "down"}), (Names{"wg0"}));
    EXPECT_EQ(tunnelsThatAreUp(state, {"eth0"}), (Names{"eth0"}));
}

TEST(MachineCheckTest, RulesOfOthersAreFoundWhereTheyMatter) {
    const struct {
        std::string hook, rule;
        const char* verdicts;
    } cases[] = {
        {"output", "tcp dport 80 redirect to :3128", "-+"},
        {"output", "ip daddr 192.0.2.9 dnat to 192.0.2.1", "-+"},
        {"output", "meta l4proto tcp counter xt target \"REDIRECT\"", "-+"},
        {"output", "udp dport 53 notrack", "+-"},
        {"output", "tcp dport 80 accept", "++"},
        {"prerouting", "tcp dport 80 redirect to :3128", "++"},
        {"prerouting", "notrack", "++"},
    };
    for (const auto& [hook, rule, verdicts] : cases) {
        std::string found;
        for (const auto& finding : findingsInRules(
                 "table ip first {\n}\ntable inet t {\n\tchain c {\n\t\ttype nat hook " + hook +
                 " priority -100; policy accept;\n\t\t" + rule + "\n\t}\n}\n"))
            found += finding.verdict == Verdict::good ? "+" : "-";
        EXPECT_EQ(found, verdicts) << hook << " " << rule;
    }
}

TEST(MachineCheckTest, MarksClashOnlyWhereNoByteIsFree) {
    EXPECT_EQ(checkMarks(0xff00ffff).verdict, Verdict::good);
    EXPECT_EQ(checkMarks(0xffffffff).verdict, Verdict::warning);
    EXPECT_EQ(checkMarks(0x01010101 << 3 | 0x80808080).verdict, Verdict::warning);
}

}  // namespace
}  // namespace vantryctl
