#include "Platform/Linux/Attribution/PathText.h"

#include <algorithm>
#include <cstddef>

#include "Platform/Common/Text.h"

namespace platform {

namespace {

bool isPlain(char byte) {
    const auto value = static_cast<unsigned char>(byte);
    return value >= 0x20 && value < 0x7f && byte != '\\';
}

// How many bytes at the front stand for themselves in the text; 0 if the first one is escaped.
std::size_t plainLength(std::string_view bytes) {
    if ((static_cast<unsigned char>(bytes[0]) & 0x80) == 0) return isPlain(bytes[0]) ? 1 : 0;
    return beginsWithControlCharacter(bytes) ? 0 : characterLength(bytes);
}

void appendEscape(std::string& text, char byte) {
    constexpr std::string_view digits = "0123456789abcdef";
    const auto value = static_cast<unsigned char>(byte);
    text += "\\x";
    text += digits[value >> 4];
    text += digits[value & 0xf];
}

// The value of a lower-case hexadecimal digit, -1 for anything else.
int digitValue(char digit) {
    if (digit >= '0' && digit <= '9') return digit - '0';
    if (digit >= 'a' && digit <= 'f') return digit - 'a' + 10;
    return -1;
}

bool isEscape(std::string_view text) {
    return text.size() >= 4 && text[0] == '\\' && text[1] == 'x' && digitValue(text[2]) >= 0 &&
           digitValue(text[3]) >= 0;
}

char byteOfEscape(std::string_view escape) {
    return static_cast<char>(digitValue(escape[2]) * 16 + digitValue(escape[3]));
}

constexpr std::size_t escapeLength = 4;

// Takes the escapes that `text` begins with off it; their bytes.
std::string takeEscapes(std::string_view& text) {
    std::string bytes;
    for (; isEscape(text); text.remove_prefix(escapeLength)) bytes += byteOfEscape(text);
    return bytes;
}

}  // namespace

std::string textOfPath(std::string_view bytes) {
    if (std::all_of(bytes.begin(), bytes.end(), isPlain)) return std::string(bytes);
    std::string text;
    while (!bytes.empty()) {
        const auto length = plainLength(bytes);
        if (length == 0) appendEscape(text, bytes[0]);
        text += bytes.substr(0, length);
        bytes.remove_prefix(std::max<std::size_t>(length, 1));
    }
    return text;
}

std::string pathOfText(std::string_view text) {
    std::string bytes;
    while (!text.empty()) {
        auto rest = text;
        const std::string run = takeEscapes(rest);
        // Within a run, what would stand for itself was not escaped by textOfPath.
        for (std::string_view decoded = run; !decoded.empty();) {
            const auto length = plainLength(decoded);
            bytes += length == 0 ? decoded.substr(0, 1) : text.substr(0, length * escapeLength);
            text.remove_prefix(std::max<std::size_t>(length, 1) * escapeLength);
            decoded.remove_prefix(std::max<std::size_t>(length, 1));
        }
        if (text.empty()) break;
        bytes += text[0];
        text.remove_prefix(1);
    }
    return bytes;
}

std::string bytesOfEscapes(std::string_view text) {
    std::string bytes;
    while (!text.empty()) {
        bytes += takeEscapes(text);
        if (text.empty()) break;
        bytes += text[0];
        text.remove_prefix(1);
    }
    return bytes;
}

}  // namespace platform
