#include "Platform/Common/JSONCoding.h"

#include <algorithm>

#include "Platform/Common/Text.h"

namespace platform {
namespace {

// Keys and texts of a document are quoted in a failure only as far as this.
constexpr std::size_t longestQuotation = 60;

std::string quotation(std::string_view text) { return '"' + excerpt(text, longestQuotation) + '"'; }

std::string describe(const JSONValue& value) {
    if (const auto* text = value.as<std::string>()) return "the string " + quotation(*text);
    if (value.typeName() != "a number") return std::string(value.typeName());
    JSONWriter number;
    number.value(value);
    return "the number " + excerpt(number.finish().value_or(""), longestQuotation);
}

std::optional<double> doubleOf(const JSONValue& value) {
    if (const auto* number = value.as<double>()) return *number;
    if (const auto* number = value.as<std::int64_t>()) return static_cast<double>(*number);
    if (const auto* number = value.as<std::uint64_t>()) return static_cast<double>(*number);
    return std::nullopt;
}

}  // namespace

JSONMismatch JSONMismatch::insideMember(std::string_view key) && {
    const bool needsDot = !path.empty() && path.front() != '[';
    return {excerpt(key, longestQuotation) + (needsDot ? "." : "") + path, std::move(reason)};
}

JSONMismatch JSONMismatch::insideElement(std::size_t index) && {
    const bool needsDot = !path.empty() && path.front() != '[';
    return {'[' + std::to_string(index) + ']' + (needsDot ? "." : "") + path, std::move(reason)};
}

JSONFailure JSONMismatch::failure() && {
    if (path.empty()) return {std::move(reason)};
    return {path + ": " + reason};
}

JSONMismatch unexpectedValue(std::string_view expected, const JSONValue& found) {
    return {{}, "expected " + std::string(expected) + ", found " + describe(found)};
}

JSONDecoding decodeValue(JSONValue& value, bool& field) {
    const auto* truth = value.as<bool>();
    if (!truth) return unexpectedValue("a boolean", value);
    field = *truth;
    return std::nullopt;
}

JSONDecoding decodeValue(JSONValue& value, std::int64_t& field) {
    const auto* number = value.as<std::int64_t>();
    if (!number) return unexpectedValue("a whole number of 64 bits", value);
    field = *number;
    return std::nullopt;
}

JSONDecoding decodeValue(JSONValue& value, std::uint16_t& field) {
    const auto* number = value.as<std::int64_t>();
    if (!number || !std::in_range<std::uint16_t>(*number))
        return unexpectedValue("a whole number from 0 to 65535", value);
    field = static_cast<std::uint16_t>(*number);
    return std::nullopt;
}

JSONDecoding decodeValue(JSONValue& value, std::string& field) {
    auto* text = std::get_if<std::string>(&value.value);
    if (!text) return unexpectedValue("a string", value);
    field = std::move(*text);
    return std::nullopt;
}

JSONDecoding decodeValue(JSONValue& value, Date& field) {
    const auto seconds = doubleOf(value);
    if (!seconds) return unexpectedValue("a date in seconds since 2001", value);
    field = Date::sinceReferenceDate(*seconds);
    return std::nullopt;
}

JSONDecoding decodeValue(JSONValue& value, UUID& field) {
    const auto* text = value.as<std::string>();
    const auto identifier = text ? UUID::fromString(*text) : std::nullopt;
    if (!identifier) return unexpectedValue("a UUID", value);
    field = *identifier;
    return std::nullopt;
}

JSONDecoding decodeValue(JSONValue& value, StringMap<std::string>& field) {
    auto* object = std::get_if<JSONObject>(&value.value);
    if (!object) return unexpectedValue("an object of strings", value);
    field.reserve(object->size());
    for (auto& [key, entry] : *object) {
        std::string text;
        auto result = decodeValue(entry, text);
        if (result) return JSONMismatch{'[' + quotation(key) + ']', std::move(result->reason)};
        field.emplace(std::move(key), std::move(text));
    }
    return std::nullopt;
}

JSONDecoding decodeWord(JSONValue& value, std::span<const std::string_view> words,
                        std::size_t& index) {
    const auto* text = value.as<std::string>();
    const auto found = text ? std::find(words.begin(), words.end(), *text) : words.end();
    if (found == words.end()) {
        std::string expected = "one of";
        for (const auto word : words)
            expected += (word == words.front() ? " " : ", ") + quotation(word);
        return unexpectedValue(expected, value);
    }
    index = static_cast<std::size_t>(found - words.begin());
    return std::nullopt;
}

void encodeValue(JSONWriter& writer, Date field) {
    writer.number(field.secondsSinceReferenceDate());
}

void encodeValue(JSONWriter& writer, const UUID& field) { writer.string(field.uuidString()); }

void encodeValue(JSONWriter& writer, const StringMap<std::string>& field) {
    writer.beginObject();
    for (const auto& [key, text] : field) {
        writer.key(key);
        writer.string(text);
    }
    writer.endObject();
}

}  // namespace platform
