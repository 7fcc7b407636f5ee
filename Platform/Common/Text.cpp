#include "Platform/Common/Text.h"

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <cstring>

namespace platform {
namespace {

constexpr std::string_view replacementCharacter = "\xEF\xBF\xBD";

unsigned char byteAt(std::string_view bytes, std::size_t position) {
    return static_cast<unsigned char>(bytes[position]);
}

// What the first byte of a character promises: the length of the whole and the range of its second
// byte. The ranges shut out overlong forms, surrogates and everything above U+10FFFF.
struct Lead {
    std::size_t length;
    unsigned char lowestSecond;
    unsigned char highestSecond;
};

Lead leadOf(unsigned char first) {
    if (first < 0x80) return {1, 0x80, 0xBF};
    if (first >= 0xC2 && first <= 0xDF) return {2, 0x80, 0xBF};
    if (first == 0xE0) return {3, 0xA0, 0xBF};
    if (first == 0xED) return {3, 0x80, 0x9F};
    if (first >= 0xE1 && first <= 0xEF) return {3, 0x80, 0xBF};
    if (first == 0xF0) return {4, 0x90, 0xBF};
    if (first >= 0xF1 && first <= 0xF3) return {4, 0x80, 0xBF};
    if (first == 0xF4) return {4, 0x80, 0x8F};
    return {0, 0, 0};
}

// The character, or the part of one, that `bytes` begins with. A part that is not whole is never
// empty, so that going on behind it makes way.
struct Character {
    std::size_t length;
    bool isWhole;
};

Character characterAt(std::string_view bytes) {
    const auto lead = leadOf(byteAt(bytes, 0));
    if (lead.length == 0) return {1, false};
    for (std::size_t i = 1; i < lead.length; ++i) {
        if (i == bytes.size()) return {i, false};
        const auto byte = byteAt(bytes, i);
        const auto lowest = i == 1 ? lead.lowestSecond : 0x80;
        const auto highest = i == 1 ? lead.highestSecond : 0xBF;
        if (byte < lowest || byte > highest) return {i, false};
    }
    return {lead.length, true};
}

// How many bytes at the front are ASCII, counted in steps of eight: most text is ASCII to its end.
std::size_t asciiBlocks(std::string_view bytes) {
    std::size_t length = 0;
    for (std::uint64_t block; length + sizeof block <= bytes.size(); length += sizeof block) {
        std::memcpy(&block, bytes.data() + length, sizeof block);
        if ((block & 0x8080808080808080) != 0) break;
    }
    return length;
}

bool isDigit(char character) { return character >= '0' && character <= '9'; }

}  // namespace

std::size_t characterLength(std::string_view bytes) {
    if (bytes.empty()) return 0;
    const auto character = characterAt(bytes);
    return character.isWhole ? character.length : 0;
}

bool isValidUTF8(std::string_view bytes) {
    while (!bytes.empty()) {
        bytes.remove_prefix(asciiBlocks(bytes));
        if (bytes.empty()) break;
        const auto length = characterLength(bytes);
        if (length == 0) return false;
        bytes.remove_prefix(length);
    }
    return true;
}

std::string validUTF8(std::string_view bytes) {
    if (isValidUTF8(bytes)) return std::string(bytes);
    std::string text;
    while (!bytes.empty()) {
        const auto character = characterAt(bytes);
        text += character.isWhole ? bytes.substr(0, character.length) : replacementCharacter;
        bytes.remove_prefix(character.length);
    }
    return text;
}

bool beginsWithControlCharacter(std::string_view bytes) {
    if (bytes.empty()) return false;
    const auto first = byteAt(bytes, 0);
    if (first < 0x20 || first == 0x7f) return true;
    return first == 0xc2 && bytes.size() > 1 && byteAt(bytes, 1) >= 0x80 && byteAt(bytes, 1) < 0xa0;
}

bool holdsControlCharacter(std::string_view text) {
    for (; !text.empty(); text.remove_prefix(1))
        if (beginsWithControlCharacter(text)) return true;
    return false;
}

std::string excerpt(std::string_view text, std::size_t maximumLength) {
    if (text.size() <= maximumLength) return validUTF8(text);
    auto end = maximumLength;
    while (end > 0 && (byteAt(text, end) & 0xC0) == 0x80) --end;
    return validUTF8(text.substr(0, end)) + "...";
}

std::optional<std::uint16_t> decimalUInt16(std::string_view text) {
    if (!isDecimalNumber(text)) return std::nullopt;
    std::uint16_t number = 0;
    const auto result = std::from_chars(text.data(), text.data() + text.size(), number);
    if (result.ec != std::errc()) return std::nullopt;
    return number;
}

bool isDecimalNumber(std::string_view text) {
    return !text.empty() && std::all_of(text.begin(), text.end(), isDigit);
}

std::vector<std::string_view> nonEmptyComponents(std::string_view dottedName) {
    std::vector<std::string_view> components;
    while (!dottedName.empty()) {
        const auto length = std::min(dottedName.find('.'), dottedName.size());
        if (length != 0) components.push_back(dottedName.substr(0, length));
        dottedName.remove_prefix(std::min(length + 1, dottedName.size()));
    }
    return components;
}

std::string joinComponents(const std::vector<std::string_view>& components, std::size_t count) {
    std::string name;
    for (std::size_t i = 0; i < count; ++i) {
        if (i != 0) name += '.';
        name += components[i];
    }
    return name;
}

std::string_view lastComponent(std::string_view dottedName) {
    const auto dot = dottedName.rfind('.');
    return dot == std::string_view::npos ? dottedName : dottedName.substr(dot + 1);
}

}  // namespace platform
