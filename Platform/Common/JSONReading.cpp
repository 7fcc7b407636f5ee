#include <algorithm>
#include <nlohmann/json.hpp>

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

// Takes the parser's events and puts the value together. A call that returns false ends the
// parsing; `failure` then holds why.
class ValueBuilder final : public nlohmann::json_sax<nlohmann::json> {
public:
    explicit ValueBuilder(std::string_view documentText) : text(documentText) {}

    bool null() override { return add(nullptr); }
    bool boolean(bool value) override { return add(value); }
    bool number_integer(std::int64_t value) override {
        // Only a number with a minus sign comes here, so that 0 was written as -0.
        return value == 0 ? add(-0.0) : add(value);
    }
    bool number_unsigned(std::uint64_t value) override {
        return std::in_range<std::int64_t>(value) ? add(static_cast<std::int64_t>(value))
                                                  : add(value);
    }
    bool number_float(double value, const std::string&) override { return add(value); }
    bool string(std::string& value) override { return add(std::move(value)); }
    bool binary(nlohmann::json::binary_t&) override { return false; }

    bool start_object(std::size_t) override { return open(JSONObject()); }
    bool key(std::string& name) override {
        nextKey = std::move(name);
        return true;
    }
    bool end_object() override { return close(); }
    bool start_array(std::size_t) override { return open(JSONArray()); }
    bool end_array() override { return close(); }

    bool parse_error(std::size_t position, const std::string&,
                     const nlohmann::json::exception& error) override {
        // The position counts the bytes that were read, the one that didn't fit included.
        failure = failureAt(text, std::max<std::size_t>(position, 1) - 1, reasonOf(error.what()));
        return false;
    }

    JSONValue result;
    JSONFailure failure;

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
        return true;
    }

    template <class Value>
    bool add(Value&& value) {
        nextPlace().value = std::forward<Value>(value);
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
    std::string nextKey;
    // The containers that have begun and not ended, outermost first. Each stays where it is, as
    // what is around it grows only after its end.
    std::vector<JSONValue*> openContainers;
};

}  // namespace

std::variant<JSONValue, JSONFailure> parseJSON(std::string_view text) {
    // The parser takes this byte for the end of its input and would not look at what follows.
    const auto nul = text.find('\0');
    if (nul != std::string_view::npos) return failureAt(text, nul, "a NUL byte");

    ValueBuilder builder(text);
    if (!nlohmann::json::sax_parse(text.begin(), text.end(), &builder))
        return std::move(builder.failure);
    return std::move(builder.result);
}

std::optional<JSONValue> NSJSONSerialization::JSONObjectWithData(std::string_view data) {
    auto parsed = parseJSON(data);
    auto* value = std::get_if<JSONValue>(&parsed);
    if (!value || (!value->as<JSONArray>() && !value->as<JSONObject>())) return std::nullopt;
    return std::move(*value);
}

}  // namespace platform
