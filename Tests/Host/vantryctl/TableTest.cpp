#include "Host/vantryctl/Table.h"

#include <gtest/gtest.h>

#include "Tests/Host/vantryctl/ToolTest.h"

namespace vantryctl::testing {
namespace {

TEST(TableTest, ColumnsGiveWayWhereRowsAreTooWide) {
    Table table({{"NAME", true}, {"N", false, true}, {"HOST", true}});
    table.add({"short", "7", "h"});
    EXPECT_EQ(table.text(),
              "NAME   N  HOST\n"
              "short  7  h\n");
    table.add({std::string(70, 'n'), "1234", std::string(30, 'h')});
    table.add({"\u00fc\u00fc" + std::string(70, 'n'), "1", "\t"});
    const auto text = table.text(80);
    EXPECT_TRUE(fitsTerminal(text)) << text;
    EXPECT_NE(text.find("n…  1234  hhh"), std::string::npos) << text;
    EXPECT_NE(text.find("\n\u00fc\u00fcnnn"), std::string::npos) << text;
}

TEST(TableTest, WrappedTextKeepsItsWordsWhole) {
    EXPECT_EQ(wrapped("one two three", 2, 9), "  one two\n  three\n");
    EXPECT_EQ(wrapped("incomprehensibilities", 0, 5), "incomprehensibilities\n");
    EXPECT_EQ(wrapped(""), "");
}

}  // namespace
}  // namespace vantryctl::testing
