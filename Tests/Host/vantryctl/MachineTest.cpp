#include <gtest/gtest.h>
#include <sys/socket.h>

#include "Host/vantryctl/MachineCheck.h"
#include "Host/vantryctl/TunnelState.h"
#include "Platform/Common/JSON.h"

namespace vantryctl {
namespace {

using platform::NetworkInterface;
using platform::NetworkState;
using Names = std::vector<std::string>;

platform::JSONValue parsed(const std::string& text) {
    return std::get<platform::JSONValue>(platform::parseJSON(text));
}

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
    const std::string redirect = R"({"redirect":{"port":3128}})";
    const std::string dnat = R"({"dnat":{"addr":"192.0.2.1"}})";
    const std::string notrack = R"({"notrack":null})";
    const struct {
        std::string table, hook, statement;
        const char* verdicts;
    } cases[] = {
        {"t", "output", redirect, "-+"},    {"t", "output", dnat, "-+"},
        {"t", "output", notrack, "+-"},     {"t", "prerouting", redirect, "++"},
        {"t", "prerouting", notrack, "++"}, {"vantry", "output", redirect, "++"},
    };
    for (const auto& [table, hook, statement, verdicts] : cases) {
        const auto place = R"({"family":"ip","table":")" + table + R"(",)";
        std::string found;
        for (const auto& finding : findingsInRuleSet(
                 parsed(R"({"nftables":[{"metainfo":{"version":"1"}},{"chain":)" + place +
                        R"("name":"c","hook":")" + hook + R"("}},{"rule":)" + place +
                        R"("chain":"c","expr":[{"match":{"op":"=="}},)" + statement + "]}}]}")))
            found += finding.verdict == Verdict::good ? "+" : "-";
        EXPECT_EQ(found, verdicts) << table << hook << statement;
    }
    EXPECT_EQ(findingsInRuleSet(parsed("[]")).front().verdict, Verdict::unknown);
}

TEST(MachineCheckTest, MarksClashOnlyWhereNoByteIsFree) {
    EXPECT_EQ(checkMarks(0xff00ffff).verdict, Verdict::good);
    EXPECT_EQ(checkMarks(0xffffffff).verdict, Verdict::warning);
    EXPECT_EQ(checkMarks(0x01010101 << 3 | 0x80808080).verdict, Verdict::warning);
}

}  // namespace
}  // namespace vantryctl
