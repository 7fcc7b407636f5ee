#include "Host/vantryctl/Table.h"

#include <gtest/gtest.h>

#include "Host/vantryctl/Spelling.h"

namespace vantryctl {
namespace {

TEST(TableTest, CountsTheCellsOfATerminal) {
    Table table({{"NAME", true}, {"TO"}});
    table.add({"日本語日本語", "x"});
    table.add({"e\xcc\x81t\xcc\x81", "y"});  // two accents that take no cell
    EXPECT_EQ(table.text(), "NAME          TO\n日本語日本語  x\ne\xcc\x81t\xcc\x81            y\n");
    EXPECT_EQ(table.text(13), "NAME       TO\n日本語日…  x\ne\xcc\x81t\xcc\x81         y\n");
}

TEST(SpellingTest, FindsWhatIsMeant) {
    const std::vector<std::string> words{"rules", "status", "set", "log", "failures"};
    for (const auto& [typed, meant] : {std::pair{"stauts", "status"},
                                       {"ruls", "rules"},
                                       {"Sett", "set"},
                                       {"fail", "failures"},
                                       {"dance", ""},
                                       {"x", ""}})
        EXPECT_EQ(closestTo(typed, words), meant) << typed;
}

}  // namespace
}  // namespace vantryctl
