// Random documents, valid and damaged, against a second reader: both have to agree on what is JSON
// and on what it says.
#include <gtest/gtest.h>

#include <cmath>
#include <nlohmann/json.hpp>
#include <random>

#include "Platform/Common/JSON.h"

namespace platform {
namespace {

using Random = std::mt19937_64;

std::size_t below(Random& random, std::size_t limit) { return random() % limit; }

std::string randomText(Random& random) {
    static const std::string_view pieces[] = {"a",
                                              "rules",
                                              "com.example.app",
                                              " ",
                                              "\"",
                                              "\\",
                                              "\n",
                                              "\x01",
                                              "\xC3\xA9",
                                              "\xE2\x82\xAC",
                                              "\xF0\x9F\x98\x80",
                                              std::string_view("\0", 1),
                                              "/",
                                              "\x7F",
                                              "_0"};
    std::string text;
    for (auto count = below(random, 5); count > 0; --count)
        text += pieces[below(random, std::size(pieces))];
    return text;
}

JSONValue randomValue(Random& random, std::size_t depth) {
    switch (below(random, depth == 0 ? 6 : 8)) {
        case 0:
            return nullptr;
        case 1:
            return random() % 2 == 0;
        case 2:
            return static_cast<std::int64_t>(random() >> below(random, 64)) *
                   (random() % 2 == 0 ? 1 : -1);
        case 3:
            return random() | std::uint64_t{1} << 63;
        case 4:
            return std::ldexp(static_cast<double>(random()) + 0.5,
                              static_cast<int>(below(random, 400)) - 300) *
                   1.5;
        case 5:
            return randomText(random);
        case 6: {
            JSONArray array;
            for (auto count = below(random, 5); count > 0; --count)
                array.push_back(randomValue(random, depth - 1));
            return array;
        }
        default: {
            JSONObject object;
            for (auto count = below(random, 5); count > 0; --count)
                object[randomText(random)] = randomValue(random, depth - 1);
            return object;
        }
    }
}

// Bytes that mean something to a reader, so that damage is often nearly right.
void damage(Random& random, std::string& text) {
    static constexpr std::string_view telling =
        "{}[]\",:\\/0123456789-+.eEutrfnal \n\x00\x80\xC3\xED\xFF";
    for (auto count = 1 + below(random, 3); count > 0 && !text.empty(); --count) {
        const auto at = below(random, text.size());
        const auto length = below(random, 4);
        switch (below(random, 4)) {
            case 0:
                text[at] = telling[below(random, telling.size())];
                break;
            case 1:
                text.insert(at, 1, telling[below(random, telling.size())]);
                break;
            case 2:
                text.erase(at, length);
                break;
            default:
                text.insert(below(random, text.size()), text.substr(at, length * 4));
        }
    }
}

bool same(const JSONValue& value, const nlohmann::json& other);

bool sameMembers(const JSONObject& object, const nlohmann::json& other) {
    if (!other.is_object() || object.size() != other.size()) return false;
    for (const auto& [key, member] : object) {
        const auto found = other.find(key);
        if (found == other.end() || !same(member, *found)) return false;
    }
    return true;
}

bool same(const JSONValue& value, const nlohmann::json& other) {
    if (value.isNull()) return other.is_null();
    if (const auto* truth = value.as<bool>()) return other.is_boolean() && other == *truth;
    if (const auto* text = value.as<std::string>()) return other.is_string() && other == *text;
    if (const auto* number = value.as<std::int64_t>())
        return other.is_number_integer() && other == *number;
    if (const auto* number = value.as<std::uint64_t>())
        return other.is_number_unsigned() && other == *number;
    if (const auto* number = value.as<double>()) return other.is_number() && other == *number;
    if (const auto* object = value.as<JSONObject>()) return sameMembers(*object, other);
    const auto& array = *value.as<JSONArray>();
    if (!other.is_array() || array.size() != other.size()) return false;
    for (std::size_t i = 0; i < array.size(); ++i)
        if (!same(array[i], other[i])) return false;
    return true;
}

std::string written(const JSONValue& value) {
    JSONWriter writer;
    writer.value(value);
    return writer.finish().value();
}

TEST(JSONExploration, AgreesWithTheOtherReaderOnValidAndDamagedDocuments) {
    Random random(2);
    int accepted = 0;
    int refused = 0;
    for (int i = 0; i < 100'000; ++i) {
        auto text = written(randomValue(random, 4));
        const auto whole = parseJSON(text);
        ASSERT_TRUE(std::holds_alternative<JSONValue>(whole)) << text;
        ASSERT_EQ(written(std::get<JSONValue>(whole)), text);
        damage(random, text);
        const auto result = parseJSON(text);
        const auto* value = std::get_if<JSONValue>(&result);
        // The other reader stops at a NUL byte as if the text ended there.
        const auto other = text.find('\0') == std::string::npos
                               ? nlohmann::json::parse(text, nullptr, false)
                               : nlohmann::json(nlohmann::json::value_t::discarded);
        ASSERT_EQ(value != nullptr, !other.is_discarded()) << testing::PrintToString(text);
        ASSERT_TRUE(!value || same(*value, other)) << testing::PrintToString(text);
        ++(value ? accepted : refused);
    }
    EXPECT_GT(accepted, 10'000);
    EXPECT_GT(refused, 10'000);
}

}  // namespace
}  // namespace platform
