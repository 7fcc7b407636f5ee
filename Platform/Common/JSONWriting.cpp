#include <array>
#include <charconv>
#include <cmath>

#include "Platform/Common/JSON.h"
#include "Platform/Common/Text.h"

namespace platform {
namespace {

// True for each byte that stands for itself in a JSON string: ASCII but for quotes, backslashes
// and control characters.
constexpr auto isPlainByte = [] {
    std::array<bool, 256> plain{};
    for (std::size_t byte = 0x20; byte < 0x80; ++byte) plain[byte] = byte != '"' && byte != '\\';
    return plain;
}();

std::size_t plainLength(std::string_view text) {
    std::size_t length = 0;
    while (length < text.size() && isPlainByte[static_cast<unsigned char>(text[length])]) ++length;
    return length;
}

void appendEscape(std::string& out, char character) {
    constexpr std::string_view escaped = "\"\\\b\f\n\r\t";
    constexpr std::string_view letters = "\"\\bfnrt";
    constexpr std::string_view hexadecimal = "0123456789abcdef";
    out += '\\';
    if (const auto at = escaped.find(character); at != std::string_view::npos) {
        out += letters[at];
        return;
    }
    const auto code = static_cast<unsigned char>(character);
    out += "u00";
    out += hexadecimal[code >> 4];
    out += hexadecimal[code & 0x0f];
}

template <class Number>
void appendNumber(std::string& out, Number number) {
    char digits[32];
    const auto result = std::to_chars(digits, digits + sizeof digits, number);
    out.append(digits, result.ptr);
}

}  // namespace

void JSONWriter::key(std::string_view name) {
    separate();
    quoted(name);
    out += ':';
    needsComma = false;
}

void JSONWriter::string(std::string_view text) {
    separate();
    quoted(text);
}

void JSONWriter::boolean(bool value) {
    separate();
    out += value ? "true" : "false";
}

void JSONWriter::integer(std::int64_t value) {
    separate();
    appendNumber(out, value);
}

void JSONWriter::unsignedInteger(std::uint64_t value) {
    separate();
    appendNumber(out, value);
}

void JSONWriter::number(double value) {
    separate();
    if (!std::isfinite(value)) isSpoiled = true;
    appendNumber(out, value);
}

void JSONWriter::null() {
    separate();
    out += "null";
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

std::optional<std::string> JSONWriter::finish() {
    auto document = std::exchange(out, {});
    needsComma = false;
    if (std::exchange(isSpoiled, false)) return std::nullopt;
    return document;
}

void JSONWriter::open(char bracket) {
    separate();
    out += bracket;
    needsComma = false;
}

void JSONWriter::close(char bracket) {
    out += bracket;
    needsComma = true;
}

void JSONWriter::separate() {
    if (needsComma) out += ',';
    needsComma = true;
}

void JSONWriter::quoted(std::string_view text) {
    out += '"';
    while (!text.empty()) {
        auto length = plainLength(text);
        if (length == 0) length = characterLength(text);
        if (length == 0) {
            isSpoiled = true;
            return;
        }
        if (length == 1 && !isPlainByte[static_cast<unsigned char>(text.front())])
            appendEscape(out, text.front());
        else
            out += text.substr(0, length);
        text.remove_prefix(length);
    }
    out += '"';
}

}  // namespace platform
