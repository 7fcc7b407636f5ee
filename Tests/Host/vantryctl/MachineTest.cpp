#include <sched.h>
#include <sys/socket.h>
#include <sys/wait.h>

#include <csignal>
#include <cstdlib>
#include <iostream>
#include <map>

#include "Host/vantryctl/MachineCheck.h"
#include "Host/vantryctl/TunnelState.h"
#include "Tests/Host/vantryctl/ToolTest.h"

namespace vantryctl::testing {
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

class Machine : public ToolTest {
protected:
    void SetUp() override {
        ToolTest::SetUp();
        if (!IsSkipped()) {
            ASSERT_EQ(unshare(CLONE_NEWNET), 0);
        }
    }
};

TEST_F(Machine, TheCheckAnswersForEverySubjectAndLeavesNothingBehind) {
    const auto document = parsed(runTool("check --json").out);
    std::map<std::string, std::string> verdicts;
    for (const auto& finding : listUnder(document, "findings"))
        verdicts[textUnder(finding, "subject")] = textUnder(finding, "verdict");
    EXPECT_EQ(verdicts.size(), 12U);
    EXPECT_EQ(verdicts["redirects"], "good");
    EXPECT_EQ(verdicts["physical interface"], "warning");
    EXPECT_TRUE(fitsTerminal(runTool("check").out));
    ASSERT_EQ(std::system("test -z \"$(nft list ruleset)\""), 0);
}

// What else it follows is seen end to end.
TEST_F(Machine, TheWatchMakesALostRulesFileAnew) {
    ASSERT_EQ(runTool("rules set a direct").exitCode, 0);
    const pid_t child = fork();
    if (child == 0) {
        dup2(STDERR_FILENO, STDOUT_FILENO);
        _exit(run({"watch"}, {std::cout, std::cerr}));
    }
    for (int loss = 0; loss < 2; ++loss) {
        ASSERT_EQ(unlink(places::rulesFile), 0);
        EXPECT_TRUE(eventually([] { return access(places::rulesFile, F_OK) == 0; }));
    }
    EXPECT_EQ(under(storedInRulesFile(), "rules"), parsed(R"({"a":"direct"})"));
    EXPECT_EQ(under(storedInRulesFile(), "vpnConnected"), JSONValue(false));
    kill(child, SIGTERM);
    waitpid(child, nullptr, 0);
}

}  // namespace
}  // namespace vantryctl::testing
