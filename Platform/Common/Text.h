// Small pure functions over text that the system needs in several places, each once: UTF-8 checks,
// strict decimal numbers, and the pieces of dotted names. Any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace platform {

// True if `bytes` is well-formed UTF-8 (RFC 3629: no overlong form, no surrogate, nothing above
// U+10FFFF).
bool isValidUTF8(std::string_view bytes);

// The length of the character that `bytes` begins with; 0 if that is not a well-formed one.
std::size_t characterLength(std::string_view bytes);

// `bytes` with everything that is not well-formed UTF-8 replaced by U+FFFD. The platform applies it
// to text from outside, so that the core only ever sees valid text.
std::string validUTF8(std::string_view bytes);

// True if the character that `bytes` begins with is a control character: U+0000 to U+001F and U+007F
// (C0), U+0080 to U+009F (C1).
bool beginsWithControlCharacter(std::string_view bytes);
bool holdsControlCharacter(std::string_view text);

// The beginning of a text, for a person: whole if it is no longer than `maximumLength` bytes, else
// cut between two characters with "..." behind it. Always valid UTF-8.
std::string excerpt(std::string_view text, std::size_t maximumLength);

// Reads an unsigned decimal number of 16 bits: digits only, leading zeros allowed, no sign, no
// blanks. Null if it does not parse or does not fit.
std::optional<std::uint16_t> decimalUInt16(std::string_view text);

// True if `text` is one or more decimal digits. Its size does not matter.
bool isDecimalNumber(std::string_view text);

// The pieces of a dotted name between its dots, empty pieces dropped: "a..b." gives a and b.
std::vector<std::string_view> nonEmptyComponents(std::string_view dottedName);

// The first `count` of `components` joined with dots.
std::string joinComponents(const std::vector<std::string_view>& components, std::size_t count);

// The piece behind the last dot, empty if the name ends in a dot; the whole name if it has no dot.
std::string_view lastComponent(std::string_view dottedName);

// Calls `visit` with `name` and then with each shorter form of it that ends right before a dot,
// longest first, until one call returns true; returns whether one did. These are exactly the texts
// X for which `name` is X or begins with X followed by a dot: "a.b.c" visits a.b.c, a.b and a. A
// name that begins with a dot also visits the empty text, and "a..b" visits "a.".
template <class Visit>
bool anyDottedPrefix(std::string_view name, Visit&& visit) {
    if (visit(name)) return true;
    for (auto dot = name.rfind('.'); dot != std::string_view::npos;) {
        if (visit(name.substr(0, dot))) return true;
        if (dot == 0) return false;
        dot = name.rfind('.', dot - 1);
    }
    return false;
}

}  // namespace platform
