#include "Platform/Common/Text.h"

#include <gmock/gmock.h>

namespace platform {
namespace {

using namespace std::string_literals;
using testing::ElementsAre;
using testing::IsEmpty;

TEST(Text, ReplacesExactlyWhatIsNotWellFormedUTF8) {
    const std::string replaced = "\xEF\xBF\xBD";
    const std::pair<std::string, std::string> cases[] = {
        {"", ""},
        {"plain text, longer than eight bytes", "plain text, longer than eight bytes"},
        {"nul\0inside"s, "nul\0inside"s},
        {"\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x98\x80", "\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x98\x80"},
        {"\xEE\x80\x80\xEF\xBF\xBF\xF4\x8F\xBF\xBF", "\xEE\x80\x80\xEF\xBF\xBF\xF4\x8F\xBF\xBF"},
        {"\xED\x9F\xBF", "\xED\x9F\xBF"},
        {"a\x80z", "a" + replaced + "z"},
        {"\xC0\xAF", replaced + replaced},                 // overlong
        {"\xE0\x9F\xBF", replaced + replaced + replaced},  // overlong
        {"\xF0\x8F\xBF\xBF", replaced + replaced + replaced + replaced},
        {"\xED\xA0\x80", replaced + replaced + replaced},  // surrogate
        {"\xF4\x90\x80\x80", replaced + replaced + replaced + replaced},
        {"\xE2\x82", replaced},  // cut short
        {"\xE2\x82z", replaced + "z"},
        {"12345678\xFF", "12345678" + replaced},
    };
    for (const auto& [bytes, valid] : cases) {
        EXPECT_EQ(isValidUTF8(bytes), bytes == valid) << testing::PrintToString(bytes);
        EXPECT_EQ(validUTF8(bytes), valid) << testing::PrintToString(bytes);
    }
}

TEST(Text, ReadsDecimalNumbersOf16Bits) {
    const std::pair<std::string_view, std::optional<std::uint16_t>> cases[] = {
        {"0", 0},   {"443", 443},        {"65535", 65535}, {"00443", 443},   {"65536", {}},
        {"", {}},   {"99999999999", {}}, {"-1", {}},       {"+1", {}},       {" 1", {}},
        {"1 ", {}}, {"0x10", {}},        {"1.0", {}},      {"\xD9\xA1", {}}, {"000000000080", 80},
    };
    for (const auto& [text, number] : cases) EXPECT_EQ(decimalUInt16(text), number) << text;
    EXPECT_TRUE(isDecimalNumber("123456789012345678901234567890"));
    EXPECT_FALSE(isDecimalNumber(""));
}

TEST(Text, TakesDottedNamesApart) {
    EXPECT_THAT(nonEmptyComponents("com.example.app"), ElementsAre("com", "example", "app"));
    EXPECT_THAT(nonEmptyComponents("..a...b."), ElementsAre("a", "b"));
    EXPECT_THAT(nonEmptyComponents(""), IsEmpty());
    EXPECT_EQ(joinComponents(nonEmptyComponents("a..b.c"), 2), "a.b");
    EXPECT_EQ(lastComponent("com.example.browser"), "browser");
    EXPECT_EQ(lastComponent("com.example."), "");
    EXPECT_EQ(lastComponent(""), "");
    EXPECT_EQ(excerpt("ab\xC3\xA9", 3), "ab...");
}

}  // namespace
}  // namespace platform
