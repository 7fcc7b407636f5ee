#include <algorithm>
#include <charconv>
#include <cstdint>
#include <string>
#include <utility>

#include "Platform/Common/JSON.h"
#include "Platform/Common/Text.h"

namespace platform {
namespace {

constexpr std::string_view byteOrderMark = "\xEF\xBB\xBF";

template <class Number>
std::optional<Number> fitting(std::string_view digits) {
    Number number{};
    const auto result = std::from_chars(digits.data(), digits.data() + digits.size(), number);
    return result.ec == std::errc() ? std::optional(number) : std::nullopt;
}

// Of a number that no double comes near: whether it is too large, and not too close to 0. The place of its
// first digit that counts decides, as its power of ten has moved it.
bool isTooLarge(std::string_view number) {
    const auto mantissa = number.substr(0, number.find_first_of("eE"));
    auto power = number.substr(std::min(mantissa.size() + 1, number.size()));
    if (power.starts_with('+')) power.remove_prefix(1);
    const auto exponent =
        power.empty() ? std::optional<std::int64_t>(0) : fitting<std::int64_t>(power);
    if (!exponent) return !power.starts_with('-');
    const auto point = std::min(mantissa.find('.'), mantissa.size());
    const auto first = mantissa.find_first_of("123456789");
    return static_cast<std::int64_t>(point) - static_cast<std::int64_t>(first) + *exponent > 0;
}

JSONValue numberOf(std::string_view text, bool isWhole) {
    if (isWhole) {
        if (const auto number = fitting<std::int64_t>(text)) return *number;
        if (const auto number = fitting<std::uint64_t>(text)) return *number;
    }
    if (const auto number = fitting<double>(text)) return *number;
    if (isTooLarge(text)) return JSONLargeNumber{std::string(text)};
    return text.starts_with('-') ? -0.0 : 0.0;
}

void appendUTF8(std::string& out, std::uint32_t code) {
    const auto add = [&](std::uint32_t byte) { out += static_cast<char>(byte); };
    const auto addRest = [&](int shift) { add(0x80 | ((code >> shift) & 0x3F)); };
    if (code < 0x80) return add(code);
    if (code < 0x800) {
        add(0xC0 | (code >> 6));
        return addRest(0);
    }
    if (code < 0x10000) {
        add(0xE0 | (code >> 12));
    } else {
        add(0xF0 | (code >> 18));
        addRest(12);
    }
    addRest(6);
    addRest(0);
}

bool isHighSurrogate(std::uint32_t code) { return code >= 0xD800 && code < 0xDC00; }
bool isLowSurrogate(std::uint32_t code) { return code >= 0xDC00 && code < 0xE000; }

// Neither the end of a text, nor an escape, nor a control character, nor a part of a longer one.
bool isPlain(char character) { return character >= 0x20 && character != '"' && character != '\\'; }

// Reads from the front to the back, a function a kind of value. One that returns false has said why.
class Reader {
public:
    explicit Reader(std::string_view document)
        : text(document), at(document.starts_with(byteOrderMark) ? byteOrderMark.size() : 0) {}

    bool readDocument(JSONValue& document) { return readValue(document) && isOver(); }

    bool readElements(const std::function<void(JSONValue)>& take) {
        skipBlanks();
        if (next() != '[') return fail("expected an array");
        return readList(']',
                        [&] {
                            JSONValue element;
                            if (!readValue(element)) return false;
                            take(std::move(element));
                            return true;
                        }) &&
               isOver();
    }

    JSONFailure failure;

private:
    bool readValue(JSONValue& value) {
        skipBlanks();
        switch (next()) {
            case '{':
                return readObject(value.value.emplace<JSONObject>());
            case '[':
                return readArray(value.value.emplace<JSONArray>());
            case '"':
                return readText(value.value.emplace<std::string>());
            case 't':
                value = true;
                return readWord("true");
            case 'f':
                value = false;
                return readWord("false");
            case 'n':
                value = nullptr;
                return readWord("null");
            default:
                return readNumber(value);
        }
    }

    // A member whose key was there before takes its place.
    bool readObject(JSONObject& object) {
        return readList('}', [&] {
            std::string key;
            skipBlanks();
            if (next() != '"') return fail("expected a key in quotes");
            if (!readText(key)) return false;
            skipBlanks();
            if (!accept(':')) return fail("expected ':'");
            return readValue(object[std::move(key)]);
        });
    }

    bool readArray(JSONArray& array) {
        return readList(']', [&] { return readValue(array.emplace_back()); });
    }

    // What stands between brackets, with commas in between.
    template <class ReadItem>
    bool readList(char closingBracket, ReadItem&& readItem) {
        if (depth == maximumJSONDepth) {
            failure.description = "Not read: arrays and objects are nested deeper than " +
                                  std::to_string(maximumJSONDepth) + " levels";
            return false;
        }
        ++depth;
        ++at;
        skipBlanks();
        if (next() != closingBracket) {
            do {
                if (!readItem()) return false;
                skipBlanks();
            } while (accept(','));
        }
        --depth;
        return accept(closingBracket) ||
               fail(std::string("expected ',' or '") + closingBracket + "'");
    }

    bool readText(std::string& out) {
        out.clear();
        for (++at;;) {
            const auto start = at;
            while (at < text.size() && isPlain(text[at])) ++at;
            out.append(text, start, at - start);
            if (accept('"')) return true;
            if (next() == '\\') {
                if (!readEscape(out)) return false;
                continue;
            }
            const auto length = characterLength(text.substr(at));
            if (length < 2)
                return fail("expected a character in UTF-8 that is no control character");
            out.append(text, at, length);
            at += length;
        }
    }

    bool readEscape(std::string& out) {
        constexpr std::string_view letters = "\"\\/bfnrt", meanings = "\"\\/\b\f\n\r\t";
        ++at;
        const auto which = at < text.size() ? letters.find(text[at]) : std::string_view::npos;
        if (which != std::string_view::npos) {
            out += meanings[which];
            ++at;
            return true;
        }
        std::uint32_t code = 0;
        if (!readCode(code)) return false;
        if (isHighSurrogate(code)) {
            std::uint32_t low = 0;
            if (!accept('\\') || !readCode(low) || !isLowSurrogate(low))
                return fail("expected the second half of a surrogate pair");
            code = 0x10000 + ((code - 0xD800) << 10) + (low - 0xDC00);
        } else if (isLowSurrogate(code)) {
            return fail("the second half of a surrogate pair without its first");
        }
        appendUTF8(out, code);
        return true;
    }

    // "u" and four hexadecimal digits.
    bool readCode(std::uint32_t& code) {
        if (!accept('u')) return fail("an unknown escape");
        const auto digits = text.substr(at, 4);
        const auto result = std::from_chars(digits.data(), digits.data() + digits.size(), code, 16);
        if (digits.size() != 4 || result.ptr != digits.data() + digits.size())
            return fail("expected four hexadecimal digits");
        at += digits.size();
        return true;
    }

    bool readWord(std::string_view word) {
        for (const char letter : word)
            if (!accept(letter)) return fail("expected \"" + std::string(word) + '"');
        return true;
    }

    bool readNumber(JSONValue& value) {
        const auto start = at;
        const bool isNegative = accept('-');
        if (!accept('0') && !skipDigits())
            return fail(isNegative ? "expected a digit" : "expected a value");
        bool isWhole = true;
        if (accept('.')) {
            isWhole = false;
            if (!skipDigits()) return fail("expected a digit");
        }
        if (accept('e') || accept('E')) {
            isWhole = false;
            if (!accept('+')) accept('-');
            if (!skipDigits()) return fail("expected a digit");
        }
        value = numberOf(text.substr(start, at - start), isWhole);
        return true;
    }

    bool skipDigits() {
        const auto start = at;
        while (next() >= '0' && next() <= '9') ++at;
        return at != start;
    }

    void skipBlanks() {
        while (next() == ' ' || next() == '\n' || next() == '\r' || next() == '\t') ++at;
    }

    bool isOver() {
        skipBlanks();
        return at == text.size() || fail("expected the end of the document");
    }

    // The character that comes next; NUL, which no document holds, at the end.
    char next() const { return at < text.size() ? text[at] : '\0'; }

    bool accept(char expected) {
        if (at == text.size() || text[at] != expected) return false;
        ++at;
        return true;
    }

    // The first reason counts.
    bool fail(std::string reason) {
        if (!failure.description.empty()) return false;
        if (at == text.size()) reason = "unexpected end of input";
        const auto before = text.substr(0, at);
        const auto line = 1 + std::count(before.begin(), before.end(), '\n');
        const auto lineStart = before.rfind('\n') + 1;  // without a line break before: 0
        failure.description = "Not valid JSON at line " + std::to_string(line) + ", column " +
                              std::to_string(at - lineStart + 1) + ": " + reason;
        return false;
    }

    const std::string_view text;
    std::size_t at;
    std::size_t depth = 0;
};

}  // namespace

std::variant<JSONValue, JSONFailure> parseJSON(std::string_view text) {
    Reader reader(text);
    JSONValue document;
    if (!reader.readDocument(document)) return std::move(reader.failure);
    return document;
}

std::optional<JSONFailure> readJSONArray(std::string_view text,
                                         const std::function<void(JSONValue)>& take) {
    Reader reader(text);
    if (!reader.readElements(take)) return std::move(reader.failure);
    return std::nullopt;
}

std::optional<JSONValue> NSJSONSerialization::JSONObjectWithData(std::string_view data) {
    auto parsed = parseJSON(data);
    auto* value = std::get_if<JSONValue>(&parsed);
    if (!value || (!value->as<JSONArray>() && !value->as<JSONObject>())) return std::nullopt;
    return std::move(*value);
}

}  // namespace platform
