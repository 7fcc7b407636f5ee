#include "Platform/Common/JSON.h"

#include <gmock/gmock.h>

#include <cmath>
#include <limits>

#include "Platform/Common/Text.h"

namespace platform {
namespace {

using namespace std::string_literals;
using testing::HasSubstr;

std::optional<JSONValue> parsed(std::string_view text) {
    auto result = parseJSON(text);
    auto* value = std::get_if<JSONValue>(&result);
    return value ? std::optional(std::move(*value)) : std::nullopt;
}

std::string failureOf(std::string_view text) {
    const auto result = parseJSON(text);
    const auto* failure = std::get_if<JSONFailure>(&result);
    return failure ? failure->description : "";
}

std::optional<std::string> written(const JSONValue& value) {
    JSONWriter writer;
    writer.value(value);
    return writer.finish();
}

TEST(JSONReading, GivesEachValueItsType) {
    const std::pair<std::string_view, JSONValue> cases[] = {
        {"null", nullptr},
        {" \t\r\n true ", true},
        {"9223372036854775807", std::numeric_limits<std::int64_t>::max()},
        {"-9223372036854775808", std::numeric_limits<std::int64_t>::min()},
        {"9223372036854775808", std::uint64_t{1} << 63},
        {"18446744073709551615", std::numeric_limits<std::uint64_t>::max()},
        {"18446744073709551616", 0x1p64},
        {"-9223372036854775809", -0x1p63},
        {"-0", std::int64_t{0}},
        {"-0.0", -0.0},
        {"1e2", 100.0},
        {"1e-400", 0.0},
        {"4.9406564584124654e-324", std::numeric_limits<double>::denorm_min()},
        {R"("a\"\\\/\b\f\n\r\t\u0041\u20AC\ud83d\ude00")",
         "a\"\\/\b\f\n\r\tA\xE2\x82\xAC\xF0\x9F\x98\x80"s},
        {R"("nul \u0000 inside")", "nul \0 inside"s},
        {"\"\x7F\xC3\xA9\"", "\x7F\xC3\xA9"s},
        {R"({"a":1,"b":2,"a":{"c":3}})",
         JSONObject{{"a", JSONObject{{"c", std::int64_t{3}}}}, {"b", std::int64_t{2}}}},
        {R"({"":1,"a\u0000b":2})", JSONObject{{"", std::int64_t{1}}, {"a\0b"s, std::int64_t{2}}}},
    };
    for (const auto& [text, value] : cases) EXPECT_EQ(parsed(text), value) << text;
}

TEST(JSONReading, KeepsANumberThatIsTooLargeAsItWasWritten) {
    const std::string large = std::string(400, '9');
    const auto document = R"([1,"1e999 \"2e999",{"ignored":-1e999,"k":2},)" + large + ",true,4]";
    ASSERT_TRUE(parsed(document)) << failureOf(document);
    EXPECT_EQ(written(*parsed(document)), document);
    EXPECT_EQ(parsed("[0,1E+400]"), (JSONArray{std::int64_t{0}, JSONLargeNumber{"1E+400"}}));
}

TEST(JSONReading, GivesTheElementsOfAnArrayOneAfterTheOther) {
    JSONArray given;
    const auto take = [&](JSONValue element) { given.push_back(std::move(element)); };
    const std::string elements = R"([1,[2,[3]],{"a":{"b":[]}},"text"])";
    EXPECT_FALSE(readJSONArray(elements, take));
    EXPECT_EQ(written(given), elements);
    EXPECT_TRUE(readJSONArray("[5,6", take));
    EXPECT_EQ(given.size(), 6u);
    for (const auto* other : {"{\"a\":1}", "1", "", "[1]]", "[1e999]"})
        EXPECT_TRUE(readJSONArray(other, [](const JSONValue&) {})) << other;
}

TEST(JSONReading, RefusesWhatIsNotJSONAndSaysWhereItIsWrong) {
    const std::pair<std::string, std::string_view> cases[] = {
        {"", "unexpected end of input"},
        {"nul", "line 1, column 4: "},
        {"{\n  \"a\": tru\n}", "line 2, column 11: syntax error"},
        {"[-1e400, 01e400]", "line 1, column 15"},
        {"[1e999.5]", "1e999"},
        {"[1,\n2]\0garbage"s, "line 2, column 3: a NUL byte"},
        {std::string(600, '['), "512 levels"},
    };
    for (const auto& [document, expected] : cases)
        EXPECT_THAT(failureOf(document), HasSubstr(expected)) << testing::PrintToString(document);
    for (const std::string document :
         {"NaN", "0x10", "{} // no", "{}{}", R"("\ud800")", R"("\ud800\u0041")", R"("\udc00")",
          "\"\xC0\xAF\"", "\"\xED\xA0\x80\"", "{\"\xFF\":1}"}) {
        const auto failure = failureOf(document);
        EXPECT_TRUE(!failure.empty() && isValidUTF8(failure)) << testing::PrintToString(document);
    }
}

TEST(JSONReading, FailsForEveryPieceOfADocumentAndForAValueThatIsNoContainerAsAFile) {
    const std::string document =
        R"({"type":"reload","rules":{"a\u00e9":"x","b":[-1.5e3,true,null,{}]},"last":[]})";
    ASSERT_TRUE(parsed(document));
    for (std::size_t length = 0; length < document.size(); ++length)
        EXPECT_FALSE(parsed(document.substr(0, length))) << length;
    using File = NSJSONSerialization;
    EXPECT_TRUE(File::JSONObjectWithData("{}") && File::JSONObjectWithData("[]"));
    for (const auto* fragment : {"1", "\"a\"", "null", "true", "", "{"})
        EXPECT_FALSE(File::JSONObjectWithData(fragment)) << fragment;
}

TEST(JSONReading, LimitsDepthAndNothingElse) {
    const auto nested = [](std::size_t depth) {
        return std::string(depth, '[') + std::string(depth, ']');
    };
    EXPECT_EQ(written(*parsed(nested(maximumJSONDepth))), nested(maximumJSONDepth));
    EXPECT_FALSE(parsed(nested(maximumJSONDepth + 1)));
    std::string objects;
    for (int i = 0; i < 100'000; ++i) objects += "{\"a\":";
    EXPECT_FALSE(parsed(objects));

    std::string large(8'000'000, 'x');
    large.front() = '"';
    EXPECT_LT(failureOf(large).size(), 400u);
    large.back() = '"';
    EXPECT_EQ(parsed(large)->as<std::string>()->size(), large.size() - 2);
}

TEST(JSONObject, KeepsEachKeyOnceInItsPlace) {
    for (const int size : {1, 16, 17, 1000}) {
        const auto key = [](int number) { return "key" + std::to_string(number); };
        JSONObject object;
        for (int i = 0; i < size; ++i) object[key(i)] = i;
        JSONObject backwards;
        for (int i = size - 1; i >= 0; --i) {
            object[key(i)] = -i;
            EXPECT_EQ(object.find(key(i)) - object.begin(), i);
            backwards[key(i)] = -i;
        }
        EXPECT_EQ(object.size(), static_cast<std::size_t>(size));
        EXPECT_EQ(object.find(key(size)), object.end());
        EXPECT_EQ(object, backwards);
        object["another"] = 1;
        EXPECT_NE(backwards, object);
        backwards["key0"] = "changed";
        backwards["another"] = 1;
        EXPECT_NE(object, backwards);
    }
}

TEST(JSONWriting, IsCompactAndExact) {
    const JSONObject document{{"k\n", JSONArray{std::numeric_limits<std::int64_t>::min(),
                                                std::numeric_limits<std::uint64_t>::max(),
                                                785164320.25, -0.0, true, nullptr}},
                              {"empty", JSONObject{}},
                              {"t", "\"\\/\b\f\n\r\t\x01\x1f\x7f\0 \xC3\xA9\xF0\x9F\x98\x80"s}};
    EXPECT_EQ(written(document),
              R"({"k\n":[-9223372036854775808,18446744073709551615,785164320.25,-0.0,true,null],)"
              R"("empty":{},"t":"\"\\/\b\f\n\r\t\u0001\u001f)"
              "\x7f"
              R"(\u0000 )"
              "\xC3\xA9\xF0\x9F\x98\x80\"}");
}

TEST(JSONWriting, EscapesEachByteWhereverItStands) {
    for (int byte = 0; byte < 0x80; ++byte)
        for (std::size_t at = 0; at < 20; ++at) {
            std::string text(20, '~');
            text[at] = static_cast<char>(byte);
            const auto document = *written(text);
            ASSERT_EQ(*parsed(document)->as<std::string>(), text) << document;
            const bool isEscaped = byte < 0x20 || byte == '"' || byte == '\\';
            ASSERT_EQ(document.size() > text.size() + 2, isEscaped) << document;
        }
}

TEST(JSONWriting, GivesNothingForWhatJSONCannotExpress) {
    for (const double number :
         {std::numeric_limits<double>::infinity(), -std::numeric_limits<double>::infinity(),
          std::numeric_limits<double>::quiet_NaN()})
        EXPECT_EQ(written(JSONArray{number}), std::nullopt);
    for (const std::string text : {"\x80", "ab\xC3", "\xED\xA0\x80", "good, then \xFF and more"}) {
        EXPECT_EQ(written(JSONArray{text}), std::nullopt);
        EXPECT_EQ(written(JSONObject{{text, 1}}), std::nullopt);
    }
    JSONWriter writer;
    writer.string("\xFF");
    EXPECT_EQ(writer.finish(), std::nullopt);
    writer.string("the next document");
    EXPECT_EQ(writer.finish(), "\"the next document\"");
}

}  // namespace
}  // namespace platform
