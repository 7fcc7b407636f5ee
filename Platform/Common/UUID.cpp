#include "Platform/Common/UUID.h"

#include <cstddef>

namespace platform {
namespace {

constexpr std::size_t textLength = 36;

constexpr bool isHyphenPosition(std::size_t position) {
    return position == 8 || position == 13 || position == 18 || position == 23;
}

std::optional<std::uint8_t> hexadecimalDigit(char character) {
    if (character >= '0' && character <= '9') return static_cast<std::uint8_t>(character - '0');
    if (character >= 'a' && character <= 'f')
        return static_cast<std::uint8_t>(character - 'a' + 10);
    if (character >= 'A' && character <= 'F')
        return static_cast<std::uint8_t>(character - 'A' + 10);
    return std::nullopt;
}

}  // namespace

UUID UUID::randomFrom(Bytes bytes) {
    bytes[6] = static_cast<std::uint8_t>((bytes[6] & 0x0f) | 0x40);  // version 4
    bytes[8] = static_cast<std::uint8_t>((bytes[8] & 0x3f) | 0x80);  // the variant of RFC 9562
    return UUID(bytes);
}

std::optional<UUID> UUID::fromString(std::string_view text) {
    if (text.size() != textLength) return std::nullopt;
    Bytes bytes{};
    std::size_t digits = 0;
    for (std::size_t i = 0; i < textLength; ++i) {
        if (isHyphenPosition(i)) {
            if (text[i] != '-') return std::nullopt;
            continue;
        }
        const auto digit = hexadecimalDigit(text[i]);
        if (!digit) return std::nullopt;
        auto& byte = bytes[digits++ / 2];
        byte = static_cast<std::uint8_t>(byte << 4 | *digit);
    }
    return UUID(bytes);
}

std::string UUID::uuidString() const {
    constexpr std::string_view hexadecimal = "0123456789ABCDEF";
    std::string text(textLength, '-');
    std::size_t digits = 0;
    for (std::size_t i = 0; i < textLength; ++i) {
        if (isHyphenPosition(i)) continue;
        const auto byte = bytes_[digits / 2];
        text[i] = hexadecimal[digits % 2 == 0 ? byte >> 4 : byte & 0x0f];
        ++digits;
    }
    return text;
}

}  // namespace platform
