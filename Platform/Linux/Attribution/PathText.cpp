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

// The length of the UTF-8 sequence of more than one byte at the start of `bytes`, 0 if there is
// none.
std::size_t multibyteLength(std::string_view bytes) {
    for (std::size_t length = 2; length <= std::min<std::size_t>(4, bytes.size()); ++length) {
        if ((static_cast<unsigned char>(bytes[0]) & 0x80) == 0) return 0;
        if (isValidUTF8(bytes.substr(0, length))) return length;
    }
    return 0;
}

std::string escaped(char byte) {
    constexpr char digits[] = "0123456789abcdef";
    const auto value = static_cast<unsigned char>(byte);
    return {'\\', 'x', digits[value >> 4], digits[value & 0xf]};
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

}  // namespace

std::string textOfPath(std::string_view bytes) {
    if (std::all_of(bytes.begin(), bytes.end(), isPlain)) return std::string(bytes);
    std::string text;
    while (!bytes.empty()) {
        const std::size_t length = isPlain(bytes[0]) ? 1 : multibyteLength(bytes);
        text += length == 0 ? escaped(bytes[0]) : std::string(bytes.substr(0, length));
        bytes.remove_prefix(std::max<std::size_t>(length, 1));
    }
    return text;
}

std::string pathOfText(std::string_view text) {
    std::string bytes;
    while (!text.empty()) {
        const bool escape = isEscape(text);
        bytes +=
            escape ? static_cast<char>(digitValue(text[2]) * 16 + digitValue(text[3])) : text[0];
        text.remove_prefix(escape ? 4 : 1);
    }
    return bytes;
}

}  // namespace platform
