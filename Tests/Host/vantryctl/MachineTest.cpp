#include <gtest/gtest.h>

#include "Host/vantryctl/MachineCheck.h"

namespace vantryctl {
namespace {

TEST(MachineCheckTest, RulesOfOthersAreFoundWhereTheyMatter) {
    const struct {
        std::string hook, rule;
        const char* verdicts;
    } cases[] = {
        {"output", "tcp dport 80 redirect to :3128", "-++"},
        {"output", "ip daddr 192.0.2.9 dnat to 192.0.2.1", "-++"},
        {"output", "meta l4proto tcp counter xt target \"REDIRECT\"", "-++"},
        {"output", "udp dport 53 notrack", "+-+"},
        {"output", "tcp dport 80 accept", "+++"},
        {"prerouting", "tcp dport 80 redirect to :3128", "+++"},
        {"prerouting", "notrack", "+++"},
        {"output", "oifname != \"wg0\" reject with icmpx admin-prohibited", "++-"},
        {"output", "counter xt target \"DROP\"", "++-"},
        {"input", "drop", "+++"},
        {"prerouting", "iifname != \"wg0\" ip daddr 10.0.0.2 fib saddr type != local drop", "+++-"},
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
    EXPECT_EQ(checkMarks(0xffffffff).verdict, Verdict::missing);
    EXPECT_EQ(checkMarks(0x01010101 << 3 | 0x80808080).verdict, Verdict::missing);
}

}  // namespace
}  // namespace vantryctl
