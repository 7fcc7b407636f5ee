// JSON as rules files, preferences and messages hold it: whatever is read is written and read again
// without a change, a record too; and a document without harm is read.

#include <string>
#include <variant>

#include "Extension/ipc/ActivityLogResponseIPC.h"
#include "Extension/ipc/ExtensionMessage.h"
#include "Extension/ipc/ExtensionResponse.h"
#include "Fuzz/Input.h"
#include "Platform/Common/JSON.h"
#include "Platform/Common/Text.h"

namespace {

using platform::JSONValue;

std::string string(fuzz::Input& input) {
    static constexpr std::string_view pieces[] = {
        "type",         "rules", "defaultAction", "reload",  "getStatus", "direct",
        "block",        "_0",    "error",         "success", "id",        " ",
        "\\\"",         "\\\\",  "\\n",           "\\u0000", "\xc3\xa9",  "\\ud83d\\ude00",
        "vpnConnected", "a.b"};
    std::string text = "\"";
    for (auto count = input.below(3); count > 0; --count) text += input.pick(pieces);
    return text + "\"";
}

std::string value(fuzz::Input& input, int depth) {
    static constexpr std::string_view leaves[] = {"null",
                                                  "true",
                                                  "false",
                                                  "0",
                                                  "-0",
                                                  "-0.0",
                                                  "1e2",
                                                  "443",
                                                  "65536",
                                                  "-1",
                                                  "1e999",
                                                  "-2E+400",
                                                  "1e-400",
                                                  "9223372036854775808",
                                                  "-9223372036854775809",
                                                  "0.1"};
    const auto kind = input.below(8);
    if (depth == 6 || kind < 3) return std::string(input.pick(leaves));
    if (kind < 5) return string(input);
    std::string members;
    for (auto count = input.below(4); count > 0; --count) {
        if (!members.empty()) members += input.oneIn(4) ? " ,\n" : ",";
        if (kind != 5) members += string(input) + ":";
        members += value(input, depth + 1);
    }
    return kind == 5 ? "[" + members + "]" : "{" + members + "}";
}

// Bytes that mean something to a reader, so that damage is often nearly right.
void damage(fuzz::Input& input, std::string& text) {
    static constexpr std::string_view telling = "{}[]\",:\\/0123456789-+.eEutrfnal \n\x80\xC3\xFF";
    const auto at = input.below(text.size() < 255 ? text.size() + 1 : 256);
    if (input.oneIn(2))
        text.insert(at, 1, telling[input.below(telling.size())]);
    else
        text.erase(at, input.below(4));
}

std::string written(const JSONValue& value) {
    platform::JSONWriter writer;
    writer.value(value);
    const auto document = writer.finish();
    fuzz::require(document.has_value(), "what was read cannot be written");
    return document.value_or("");
}

// A record that a document holds says the same after it was written.
template <class Record>
void tryRecord(const std::string& document) {
    const auto decoded = Record::decode(document);
    const auto* record = std::get_if<Record>(&decoded);
    if (!record) {
        const auto& why = std::get<platform::JSONFailure>(decoded).description;
        fuzz::require(platform::isValidUTF8(why) && why.size() < 1000, "an unfit failure", why);
        return;
    }
    const auto again = Record::decode(record->encode().value_or("none"));
    fuzz::require(std::holds_alternative<Record>(again) && std::get<Record>(again) == *record,
                  "a record changes by being written", document);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::Input input({data, size});
    auto document = value(input, 0);
    auto harms = input.oneIn(2) ? input.below(4) : 0;
    const bool isWhole = harms == 0;
    for (; harms > 0; --harms) damage(input, document);

    tryRecord<vantry::ExtensionMessage>(document);
    tryRecord<vantry::ExtensionResponse>(document);
    const auto parsed = platform::parseJSON(document);
    const auto* read = std::get_if<JSONValue>(&parsed);
    fuzz::require(read || !isWhole, "a document is refused", document);
    if (!read) return 0;
    const auto text = written(*read);
    const auto again = platform::parseJSON(text);
    fuzz::require(std::holds_alternative<JSONValue>(again), "what was written is refused", text);
    fuzz::require(written(std::get<JSONValue>(again)) == text, "it changes by being read", text);

    platform::JSONArray elements;
    const auto failure = platform::readJSONArray(
        text, [&](JSONValue element) { elements.push_back(std::move(element)); });
    if (!failure)
        fuzz::require(std::get<JSONValue>(again) == JSONValue(elements),
                      "other elements one by one", text);
    return 0;
}
