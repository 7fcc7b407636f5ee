#include <utility>

#include "Platform/Common/JSON.h"

namespace platform {

std::string_view JSONValue::typeName() const {
    struct {
        std::string_view operator()(std::nullptr_t) const { return "null"; }
        std::string_view operator()(bool) const { return "a boolean"; }
        std::string_view operator()(std::int64_t) const { return "a number"; }
        std::string_view operator()(std::uint64_t) const { return "a number"; }
        std::string_view operator()(double) const { return "a number"; }
        std::string_view operator()(const JSONLargeNumber&) const { return "a number"; }
        std::string_view operator()(const std::string&) const { return "a string"; }
        std::string_view operator()(const JSONArray&) const { return "an array"; }
        std::string_view operator()(const JSONObject&) const { return "an object"; }
    } name;
    return std::visit(name, value);
}

std::optional<StringMap<std::string>> stringTable(const JSONValue& value) {
    const auto* object = value.as<JSONObject>();
    if (!object) return std::nullopt;
    StringMap<std::string> table;
    for (const auto& [key, entry] : *object) {
        const auto* text = entry.as<std::string>();
        if (!text) return std::nullopt;
        table.emplace(key, *text);
    }
    return table;
}

std::optional<std::vector<std::string>> stringArray(const JSONValue& value) {
    const auto* array = value.as<JSONArray>();
    if (!array) return std::nullopt;
    std::vector<std::string> texts;
    texts.reserve(array->size());
    for (const auto& element : *array) {
        const auto* text = element.as<std::string>();
        if (!text) return std::nullopt;
        texts.push_back(*text);
    }
    return texts;
}

// As deep as the value: one that was read is never deeper than `maximumJSONDepth`.
void JSONWriter::value(const JSONValue& value) {
    struct {
        JSONWriter& writer;
        void operator()(std::nullptr_t) const { writer.null(); }
        void operator()(bool truth) const { writer.boolean(truth); }
        void operator()(std::int64_t number) const { writer.integer(number); }
        void operator()(std::uint64_t number) const { writer.unsignedInteger(number); }
        void operator()(double number) const { writer.number(number); }
        void operator()(const JSONLargeNumber& number) const { writer.number(number); }
        void operator()(const std::string& text) const { writer.string(text); }
        void operator()(const JSONArray& array) const {
            writer.beginArray();
            for (const auto& element : array) writer.value(element);
            writer.endArray();
        }
        void operator()(const JSONObject& object) const {
            writer.beginObject();
            for (const auto& [name, member] : object) {
                writer.key(name);
                writer.value(member);
            }
            writer.endObject();
        }
    } write{*this};
    std::visit(write, value.value);
}

}  // namespace platform
