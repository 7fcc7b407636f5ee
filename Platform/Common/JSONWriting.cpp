#include <charconv>
#include <cmath>
#include <cstring>

#include "Platform/Common/JSON.h"
#include "Platform/Common/Text.h"

namespace platform {
namespace {

// True for a byte that stands for itself in a JSON string: ASCII but for quotes, backslashes and
// control characters.
bool isPlain(signed char byte) { return byte >= 0x20 && byte != '"' && byte != '\\'; }

// Whether all eight bytes are plain, found out at once. In each byte's top bit: is it no ASCII, is
// it below 0x20, is it a quote, is it a backslash. A borrow can only make a later byte look not
// plain, and that one is then looked at by itself.
bool arePlain(const char* bytes) {
    constexpr std::uint64_t each = 0x0101010101010101;
    std::uint64_t block;
    std::memcpy(&block, bytes, sizeof block);
    const auto quotes = block ^ each * '"';
    const auto backslashes = block ^ each * '\\';
    const auto other = block | (block - each * 0x20) | (quotes - each) | (backslashes - each);
    return (other & each * 0x80) == 0;
}

std::size_t plainLength(std::string_view text) {
    std::size_t length = 0;
    while (length + 8 <= text.size() && arePlain(text.data() + length)) length += 8;
    while (length < text.size() && isPlain(text[length])) ++length;
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
    out += indentation == 0 ? ":" : ": ";
    needsComma = false;
    isAfterKey = true;
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
    // "-0" would be read as a whole number, which has no such zero.
    if (value == 0 && std::signbit(value)) out += ".0";
}

void JSONWriter::number(const JSONLargeNumber& value) {
    separate();
    out += value.text;
}

void JSONWriter::null() {
    separate();
    out += "null";
}

std::optional<std::string> JSONWriter::finish() {
    auto document = std::exchange(out, {});
    needsComma = isAfterKey = false;
    level = 0;
    if (std::exchange(isSpoiled, false)) return std::nullopt;
    return document;
}

void JSONWriter::open(char bracket) {
    separate();
    out += bracket;
    needsComma = false;
    ++level;
}

void JSONWriter::close(char bracket) {
    --level;
    // An empty one closes where it was opened.
    if (needsComma) startLine();
    out += bracket;
    needsComma = true;
}

void JSONWriter::separate() {
    if (needsComma) out += ',';
    if (!std::exchange(isAfterKey, false) && level > 0) startLine();
    needsComma = true;
}

void JSONWriter::startLine() {
    if (indentation == 0) return;
    out += '\n';
    out.append(level * indentation, ' ');
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
        if (length == 1 && !isPlain(text.front()))
            appendEscape(out, text.front());
        else
            out += text.substr(0, length);
        text.remove_prefix(length);
    }
    out += '"';
}

}  // namespace platform
