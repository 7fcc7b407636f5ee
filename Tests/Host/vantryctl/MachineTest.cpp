#include <sched.h>
#include <sys/socket.h>
#include <sys/wait.h>

#include <csignal>
#include <cstdlib>
#include <iostream>

#include "Host/vantryctl/MachineCheck.h"
#include "Host/vantryctl/SettingsStore.h"
#include "Host/vantryctl/TunnelState.h"
#include "Tests/Host/vantryctl/ToolTest.h"

namespace vantryctl::testing {
namespace {

using platform::NetworkInterface;
using platform::NetworkState;
using Names = std::vector<std::string>;

NetworkInterface interfaceNamed(const std::string& name, bool isTunnel) {
    NetworkInterface made;
    made.name = made.shownName = name;
    made.isTunnel = isTunnel;
    made.isUp = true;
    made.addresses.push_back({AF_INET, {10, 0, 0, 1}, 24, false});
    return made;
}

TEST(TunnelStateTest, OnlyATunnelInUseIsTheVPN) {
    auto down = interfaceNamed("tun1", true);
    down.isUp = false;
    auto bare = interfaceNamed("tun2", true);
    bare.addresses.clear();
    auto linkLocal = interfaceNamed("tun3", true);
    linkLocal.addresses = {{AF_INET6, {0xfe, 0x80}, 64, true}};
    const NetworkState state{{interfaceNamed("eth0", false), interfaceNamed("tun0", true), down,
                              bare, linkLocal, interfaceNamed("wg0", true)}};
    EXPECT_EQ(tunnelsThatAreUp(state, {}), (Names{"tun0", "wg0"}));
    EXPECT_EQ(tunnelsThatAreUp(state, {"wg0", "tun1"}), (Names{"wg0"}));
    EXPECT_EQ(tunnelsThatAreUp(state, {"eth0"}), (Names{"eth0"}));
    EXPECT_EQ(tunnelsThatAreUp({}, {}), Names{});
}

TEST(MachineCheckTest, RulesOfOthersAreFoundWhereTheyMatter) {
    const auto verdicts = [](const std::string& rules) {
        std::string found;
        for (const auto& finding : findingsInRuleSet(
                 parsed(R"({"nftables":[{"metainfo":{"version":"1"}})" + rules + "]}")))
            found += finding.verdict == Verdict::good ? "+" : "-";
        return found;
    };
    const auto chain = [](const std::string& table, const std::string& hook) {
        return R"(,{"chain":{"family":"ip","table":")" + table + R"(","name":"c","hook":")" + hook +
               "\"}}";
    };
    const auto rule = [](const std::string& table, const std::string& statement) {
        return R"(,{"rule":{"family":"ip","table":")" + table +
               R"(","chain":"c","expr":[{"match":{"op":"=="}},)" + statement + "]}}";
    };
    const std::string redirect = R"({"redirect":{"port":3128}})";
    const std::string notrack = R"({"notrack":null})";
    EXPECT_EQ(verdicts(""), "++");
    EXPECT_EQ(verdicts(chain("t", "output") + rule("t", redirect)), "-+");
    EXPECT_EQ(verdicts(chain("t", "output") + rule("t", R"({"dnat":{"addr":"192.0.2.1"}})")), "-+");
    EXPECT_EQ(verdicts(chain("t", "output") + rule("t", notrack)), "+-");
    EXPECT_EQ(verdicts(chain("t", "prerouting") + rule("t", redirect) + rule("t", notrack)), "++");
    EXPECT_EQ(verdicts(chain("vantry", "output") + rule("vantry", redirect)), "++");
    EXPECT_EQ(findingsInRuleSet(parsed("[]")).front().verdict, Verdict::unknown);
}

TEST(MachineCheckTest, MarksClashOnlyWhereNoByteIsFree) {
    EXPECT_EQ(checkMarks(0).verdict, Verdict::good);
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
    static void shell(const std::string& command) {
        ASSERT_EQ(std::system(command.c_str()), 0) << command;
    }
    static bool isSaidToBeUp() {
        return under(storedInRulesFile(), "vpnConnected") == platform::JSONValue(true);
    }
};

TEST_F(Machine, TheCheckAnswersForEverySubjectAndLeavesNothingBehind) {
    const auto result = runTool({"check", "--json"});
    const auto document = parsed(result.out);
    const auto list = listUnder(document, "findings");
    std::string subjects;
    for (const auto& finding : list) subjects += textUnder(finding, "subject") + "\n";
    for (const char* subject : {"packet queues", "packet rules", "owner flag", "ending sockets",
                                "connection table", "control groups", "reverse path", "redirects",
                                "tracking", "packet marks", "physical interface"})
        EXPECT_NE(subjects.find(subject), std::string::npos) << subject;
    EXPECT_TRUE(fitsTerminal(runTool({"check"}).out)) << runTool({"check"}).out;
    shell("test -z \"$(nft list ruleset)\"");
}

TEST_F(Machine, WhatIsFoundIsWhatIsThere) {
    const auto verdictOf = [](const std::string& subject) {
        const auto document = parsed(runTool({"check", "--json"}).out);
        for (const auto& finding : listUnder(document, "findings"))
            if (textUnder(finding, "subject") == subject) return textUnder(finding, "verdict");
        return std::string("none");
    };
    EXPECT_EQ(verdictOf("redirects"), "good");
    EXPECT_EQ(verdictOf("physical interface"), "warning");
    shell(
        "nft add table ip other && nft 'add chain ip other c { type nat hook output priority -90; "
        "}'"
        " && nft add rule ip other c tcp dport 80 redirect to :8080");
    shell(
        "ip link add eth9 type veth peer name far && ip link set eth9 up && ip link set far up"
        " && ip address add 192.0.2.2/24 dev eth9 && ip route add default via 192.0.2.1");
    EXPECT_EQ(verdictOf("redirects"), "warning");
    EXPECT_EQ(verdictOf("tracking"), "good");
}

TEST_F(Machine, TheWatchStoresWhatTheTunnelIsAndMakesTheRulesFileAnew) {
    shell("ip link add vpn9 type veth peer name far && ip link set far up");
    ASSERT_EQ(runTool({"rules", "set", "a", "direct"}).exitCode, 0);
    ASSERT_EQ(unlink(places::rulesFile), 0);
    const pid_t child = fork();
    if (child == 0) {
        dup2(STDERR_FILENO, STDOUT_FILENO);
        _exit(run({"watch", "--interface", "vpn9"}, {std::cout, std::cerr}));
    }
    const auto hasRules = [] { return access(places::rulesFile, F_OK) == 0; };
    EXPECT_TRUE(becomesTrue([&] { return hasRules() && !isSaidToBeUp(); }));
    EXPECT_EQ(under(storedInRulesFile(), "rules"), parsed(R"({"a":"direct"})"));
    for (int turn = 0; turn < 3; ++turn) {
        shell("ip address add 10.8.0.2/24 dev vpn9 && ip link set vpn9 up");
        EXPECT_TRUE(becomesTrue(isSaidToBeUp));
        EXPECT_EQ(storedInPreferences(), storedInRulesFile());
        shell("ip link set vpn9 down && ip address del 10.8.0.2/24 dev vpn9");
        EXPECT_TRUE(becomesTrue([] { return !isSaidToBeUp(); }));
    }
    ASSERT_EQ(unlink(places::rulesFile), 0);
    EXPECT_TRUE(becomesTrue(hasRules));
    kill(child, SIGTERM);
    waitpid(child, nullptr, 0);
}

}  // namespace
}  // namespace vantryctl::testing
