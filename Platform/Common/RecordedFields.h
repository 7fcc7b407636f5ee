// The fields of a line in a recording of what crosses the seam: written by the daemon's platform, read by
// the one that plays recordings. A field says what it is, so that names and addresses can be replaced
// without knowing what the line means. Values; any thread.
//
//   line    := (">" | "<" | "=" | ".") fields   what the platform asks of the core, what the core asks of the
//                                               platform meanwhile, what it answers, and the call's end
//   field   := TAB kind text                    control characters, backslashes and bytes that are no UTF-8 escaped
#pragma once

#include <array>
#include <charconv>
#include <concepts>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Platform/Common/JSON.h"

namespace platform::recorded {

// The first words of a recording, before its number of format.
inline constexpr std::string_view head = "vantry-recording ";
inline constexpr int format = 3;

enum class FieldKind : char {
    plain = '=',     // a word or a number
    none = '-',      // no value
    name = 'n',      // an identifier of dotted parts
    path = 'p',      // of a file
    host = 'h',      // an address or a host's name
    document = 'd',  // JSON, if it is whole
    bytes = 't',     // in hexadecimal digits
};

class Fields {
public:
    Fields& add(FieldKind kind, std::string_view content);
    Fields& word(std::string_view content) { return add(FieldKind::plain, content); }
    template <std::integral Number>
    Fields& number(Number value) {
        std::array<char, 24> digits{};
        const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), value).ptr;
        return addPlain(FieldKind::plain, {digits.data(), end});
    }
    // What needs no escape, or is escaped already.
    Fields& addPlain(FieldKind kind, std::string_view escaped) {
        text_ += '\t';
        text_ += static_cast<char>(kind);
        text_ += escaped;
        return *this;
    }
    Fields& name(std::string_view content) { return add(FieldKind::name, content); }
    Fields& path(std::string_view content) { return add(FieldKind::path, content); }
    Fields& host(std::string_view content) { return add(FieldKind::host, content); }
    Fields& document(std::string_view content) { return add(FieldKind::document, content); }
    Fields& bytes(std::string_view content);
    Fields& none() { return add(FieldKind::none, {}); }

    // Begins a line: everything before belongs to another one.
    Fields& line(char direction);
    void endLine() { text_ += '\n'; }
    void reserve(std::size_t length) { text_.reserve(length); }
    // Keeps the room that it has.
    void clear() { text_.clear(); }
    std::size_t capacity() const { return text_.capacity(); }

    const std::string& text() const { return text_; }

private:
    std::string text_;
};

struct Field {
    FieldKind kind = FieldKind::none;
    std::string text;

    std::optional<std::string> value() const {
        return kind == FieldKind::none ? std::nullopt : std::optional(text);
    }
    std::int64_t number() const;  // 0 for what is none
};

struct Line {
    char direction = 0;
    std::vector<Field> fields;

    // The field at a place; one without a value beyond the end.
    const Field& at(std::size_t index) const;
};

// A filter's verdict, on a flow or on bytes of it.
template <class Verdict>
void addVerdict(Fields& fields, const Verdict& verdict) {
    using Kind = typename Verdict::Kind;
    if (verdict.kind == Kind::drop || verdict.kind == Kind::allow) {
        fields.word(verdict.kind == Kind::drop ? "drop" : "allow");
        return;
    }
    fields.word("watch");
    if constexpr (requires { verdict.passBytes; })
        fields.number(verdict.passBytes).number(verdict.peekBytes);
    else
        fields.number(int{verdict.filterInbound})
            .number(verdict.peekInboundBytes)
            .number(int{verdict.filterOutbound})
            .number(verdict.peekOutboundBytes);
}

// What the platform goes by of an explanation: route, the step that decided, interface, whether it is watched.
void addExplanation(Fields& fields, const JSONObject& explanation);

// Null for what is no line of a recording.
std::optional<Line> readLine(std::string_view text);

void appendEscaped(std::string& text, std::string_view content);
std::string unescaped(std::string_view text);
// The bytes behind hexadecimal digits.
std::string bytesOfDigits(std::string_view digits);

}  // namespace platform::recorded
