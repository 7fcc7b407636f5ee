// A 128-bit universally unique identifier (RFC 9562). Identifiers made here are random (version 4).
#pragma once

#include <array>
#include <compare>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace platform {

class UUID {
public:
    using Bytes = std::array<std::uint8_t, 16>;

    // A fresh random identifier. Each platform has its own source of randomness. Any thread.
    static UUID random();
    // `bytes` with the version and variant bits of a random identifier set.
    static UUID randomFrom(Bytes bytes);
    // Reads the 36-character hyphenated form, letters of either case; nothing for any other text.
    static std::optional<UUID> fromString(std::string_view text);

    // The nil identifier.
    constexpr UUID() = default;
    explicit constexpr UUID(Bytes bytes) : bytes_(bytes) {}

    const Bytes& bytes() const { return bytes_; }
    // The 36-character hyphenated form in upper case.
    std::string uuidString() const;

    friend auto operator<=>(const UUID&, const UUID&) = default;

private:
    Bytes bytes_{};
};

}  // namespace platform
