#include <algorithm>
#include <limits>
#include <nlohmann/json.hpp>
#include <unordered_map>
#include <utility>

#include "Platform/Common/JSON.h"
#include "Platform/Common/Text.h"

namespace platform {
namespace {

// A document may be of any size; what is said about it stays short.
constexpr std::size_t longestReason = 200;

JSONFailure failureAt(std::string_view text, std::size_t offset, std::string_view reason) {
    const auto before = text.substr(0, std::min(offset, text.size()));
    const auto line = 1 + std::count(before.begin(), before.end(), '\n');
    const auto lineStart = before.rfind('\n') + 1;  // without a line break before: 0
    const auto column = before.size() - lineStart + 1;
    return {"Not valid JSON at line " + std::to_string(line) + ", column " +
            std::to_string(column) + ": " + excerpt(reason, longestReason)};
}

// The parser's message without its classification and its own account of the place.
std::string_view reasonOf(std::string_view message) {
    const auto syntax = message.find("syntax error");
    if (syntax != std::string_view::npos) return message.substr(syntax);
    const auto classification = message.find("] ");
    return classification == std::string_view::npos ? message : message.substr(classification + 2);
}

// The numbers of a document that are too large for every type, by how many numbers stand before each.
using LargeNumbers = std::unordered_map<std::size_t, std::string_view>;

// Takes the parser's events and puts the value together. A call that returns false ends the
// parsing; `failure` then holds why.
class ValueBuilder final : public nlohmann::json_sax<nlohmann::json> {
public:
    explicit ValueBuilder(std::string_view documentText, const LargeNumbers& largeNumbers = {},
                          const std::function<void(JSONValue)>* takesElements = nullptr,
                          const JSONMemberTexts* takesTexts = nullptr)
        : text(documentText),
          large(largeNumbers),
          takeElement(takesElements),
          memberTexts(takesTexts) {}

    bool null() override { return add(nullptr); }
    bool boolean(bool value) override { return add(value); }
    bool number_integer(std::int64_t value) override { return addNumber(value); }
    bool number_unsigned(std::uint64_t value) override {
        return std::in_range<std::int64_t>(value) ? addNumber(static_cast<std::int64_t>(value))
                                                  : addNumber(value);
    }
    bool number_float(double value, const std::string&) override { return addNumber(value); }
    // Texts are copied: the parser reads the next one into the room of this one.
    bool string(std::string& value) override {
        if (!areTextsTaken || openContainers.size() != 2) return add(std::as_const(value));
        memberTexts->take(nextKey, value);
        auto& object = std::get<JSONObject>(openContainers.back()->value);
        if (const auto before = object.find(nextKey); before != object.end())
            before->second = std::as_const(value);
        return true;
    }
    bool binary(nlohmann::json::binary_t&) override { return false; }

    bool start_object(std::size_t) override {
        if (memberTexts && openContainers.size() == 1 && nextKey == memberTexts->member) {
            areTextsTaken = result.as<JSONObject>() != nullptr;
            if (areTextsTaken) memberTexts->begin();
        }
        return open(JSONObject());
    }
    bool key(std::string& name) override {
        nextKey = name;
        return true;
    }
    bool end_object() override { return close(); }
    bool start_array(std::size_t) override { return open(JSONArray()); }
    bool end_array() override { return close(); }

    bool parse_error(std::size_t position, const std::string& token,
                     const nlohmann::json::exception& error) override {
        constexpr int numberOverflow = 406;
        if (error.id == numberOverflow) tooLarge = token;
        // The position counts the bytes that were read, the one that didn't fit included.
        failure = failureAt(text, std::max<std::size_t>(position, 1) - 1, reasonOf(error.what()));
        return false;
    }

    JSONValue result;
    JSONFailure failure;
    std::string tooLarge;  // the number that the parser gave up at, if it was one

private:
    template <class Container>
    bool open(Container empty) {
        if (openContainers.size() == maximumJSONDepth) {
            failure.description = "Not read: arrays and objects are nested deeper than " +
                                  std::to_string(maximumJSONDepth) + " levels";
            return false;
        }
        auto& place = nextPlace();
        place.value = std::move(empty);
        openContainers.push_back(&place);
        return true;
    }

    bool close() {
        openContainers.pop_back();
        if (openContainers.size() < 2) areTextsTaken = false;
        return giveElement();
    }

    template <class Value>
    bool add(Value&& value) {
        nextPlace().value = std::forward<Value>(value);
        return giveElement();
    }

    template <class Number>
    bool addNumber(Number value) {
        const auto found = large.find(numbers++);
        return found == large.end() ? add(value) : add(JSONLargeNumber{std::string(found->second)});
    }

    // Gives a whole element of the outermost array away, where somebody takes them.
    bool giveElement() {
        if (!takeElement) return true;
        auto* array = std::get_if<JSONArray>(&result.value);
        if (!array) {
            failure.description = "expected an array, found " + std::string(result.typeName());
            return false;
        }
        if (openContainers.size() != 1) return true;
        (*takeElement)(std::move(array->back()));
        array->pop_back();
        return true;
    }

    // Where the next value belongs. The place of a key that was there before is used again.
    JSONValue& nextPlace() {
        if (openContainers.empty()) return result;
        auto& container = openContainers.back()->value;
        if (auto* array = std::get_if<JSONArray>(&container)) return array->emplace_back();
        return std::get<JSONObject>(container)[std::move(nextKey)];
    }

    std::string_view text;
    const LargeNumbers large;
    const std::function<void(JSONValue)>* takeElement;
    const JSONMemberTexts* memberTexts;
    bool areTextsTaken = false;
    std::size_t numbers = 0;
    std::string nextKey;
    // The containers that have begun and not ended, outermost first. Each stays where it is, as
    // what is around it grows only after its end.
    std::vector<JSONValue*> openContainers;
};

bool parse(std::string_view text, ValueBuilder& builder) {
    // The parser takes this byte for the end of its input and would not look at what follows.
    const auto nul = text.find('\0');
    if (nul == std::string_view::npos)
        return nlohmann::json::sax_parse(text.begin(), text.end(), &builder);
    builder.failure = failureAt(text, nul, "a NUL byte");
    return false;
}

bool isTooLarge(std::string_view number) {
    constexpr std::size_t mostDigits = std::numeric_limits<double>::max_exponent10;
    if (number.size() <= mostDigits && number.find_first_of("eE") == std::string_view::npos)
        return false;
    ValueBuilder builder(number);
    return !parse(number, builder) && builder.tooLarge == number;
}

// The length of the string, its quotes included, that `text` begins with.
std::size_t stringLength(std::string_view text) {
    for (std::size_t at = 1; at < text.size(); ++at) {
        if (text[at] == '"') return at + 1;
        if (text[at] == '\\') ++at;
    }
    return text.size();
}

// Takes the numbers that are too large for the parser out of the document: it reads 0 in their places.
LargeNumbers takeLargeNumbers(std::string_view text, std::string& document) {
    constexpr std::string_view begins = "-0123456789", goesOn = "+-.0123456789eE";
    LargeNumbers found;
    std::size_t numbers = 0;
    for (std::size_t at = 0; at < text.size();) {
        const auto rest = text.substr(at);
        std::size_t length = rest[0] == '"' ? stringLength(rest) : 1;
        if (begins.find(rest[0]) != std::string_view::npos) {
            const auto number = rest.substr(0, rest.find_first_not_of(goesOn));
            length = number.size();
            if (isTooLarge(number)) {
                found.emplace(numbers, number);
                document.replace(at, length, length, ' ')[at] = '0';
            }
            ++numbers;
        }
        at += length;
    }
    return found;
}

}  // namespace

std::variant<JSONValue, JSONFailure> parseJSON(std::string_view text,
                                               const JSONMemberTexts* texts) {
    ValueBuilder builder(text, {}, nullptr, texts);
    if (parse(text, builder)) return std::move(builder.result);
    if (builder.tooLarge.empty()) return std::move(builder.failure);

    std::string document(text);
    const auto large = takeLargeNumbers(text, document);
    ValueBuilder again(document, large, nullptr, texts);
    if (parse(document, again)) return std::move(again.result);
    return std::move(again.failure);
}

std::optional<JSONFailure> readJSONArray(std::string_view text,
                                         const std::function<void(JSONValue)>& take) {
    ValueBuilder builder(text, {}, &take);
    if (parse(text, builder)) return std::nullopt;
    return std::move(builder.failure);
}

std::optional<JSONValue> NSJSONSerialization::JSONObjectWithData(std::string_view data,
                                                                 const JSONMemberTexts* texts) {
    auto parsed = parseJSON(data, texts);
    auto* value = std::get_if<JSONValue>(&parsed);
    if (!value || (!value->as<JSONArray>() && !value->as<JSONObject>())) return std::nullopt;
    return std::move(*value);
}

}  // namespace platform
