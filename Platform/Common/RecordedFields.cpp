#include "Platform/Common/RecordedFields.h"

#include <array>
#include <charconv>
#include <utility>

#include "Platform/Common/Text.h"

namespace platform::recorded {

namespace {

constexpr std::string_view hexadecimalDigits = "0123456789abcdef";

int valueOfDigit(char digit) {
    const auto found = hexadecimalDigits.find(digit);
    return found == std::string_view::npos ? 0 : static_cast<int>(found);
}

bool needsEscape(unsigned char byte) { return byte < 0x20 || byte == '\\' || byte == 0x7f; }

void escapeTo(std::string& text, unsigned char byte) {
    text += "\\x";
    text += hexadecimalDigits[byte >> 4U];
    text += hexadecimalDigits[byte & 0xfU];
}

void appendEscaped(std::string& text, std::string_view content) {
    bool isPlain = true;
    for (const char each : content) {
        const auto byte = static_cast<unsigned char>(each);
        isPlain = isPlain && byte < 0x7f && !needsEscape(byte);
    }
    if (isPlain) {
        text += content;
        return;
    }
    const bool isText = isValidUTF8(content);
    for (const char each : content) {
        const auto byte = static_cast<unsigned char>(each);
        if (needsEscape(byte) || (!isText && byte >= 0x80))
            escapeTo(text, byte);
        else
            text += each;
    }
}

}  // namespace

Fields& Fields::add(FieldKind kind, std::string_view content) {
    text_ += '\t';
    text_ += static_cast<char>(kind);
    appendEscaped(text_, content);
    return *this;
}

Fields& Fields::bytes(std::string_view content) {
    text_ += '\t';
    text_ += static_cast<char>(FieldKind::bytes);
    for (const char each : content) {
        const auto byte = static_cast<unsigned char>(each);
        text_ += hexadecimalDigits[byte >> 4U];
        text_ += hexadecimalDigits[byte & 0xfU];
    }
    return *this;
}

Fields& Fields::line(char direction) {
    if (!text_.empty()) text_ += '\n';
    text_ += direction;
    return *this;
}

void addExplanation(Fields& fields, const JSONObject& explanation) {
    const auto member = [&](std::string_view key) {
        const auto found = explanation.find(key);
        return found == explanation.end() ? nullptr : &found->second;
    };
    const auto add = [&](std::string_view key, FieldKind kind) {
        const auto* value = member(key);
        const auto* text = value ? value->as<std::string>() : nullptr;
        text ? fields.add(kind, *text) : fields.none();
    };
    add("route", FieldKind::plain);
    add("decidedBy", FieldKind::plain);
    add("interface", FieldKind::name);
    const auto* watched = member("isWatched");
    const auto* isWatched = watched ? watched->as<bool>() : nullptr;
    isWatched ? fields.number(int{*isWatched}) : fields.none();
}

std::int64_t Field::number() const {
    std::int64_t value = 0;
    std::from_chars(text.data(), text.data() + text.size(), value);
    return value;
}

const Field& Line::at(std::size_t index) const {
    static const Field beyond;
    return index < fields.size() ? fields[index] : beyond;
}

std::string unescaped(std::string_view text) {
    std::string content;
    content.reserve(text.size());
    for (std::size_t at = 0; at < text.size(); ++at) {
        const bool isEscape = text[at] == '\\' && at + 3 < text.size() && text[at + 1] == 'x';
        if (!isEscape) {
            content += text[at];
            continue;
        }
        content += static_cast<char>(valueOfDigit(text[at + 2]) * 16 + valueOfDigit(text[at + 3]));
        at += 3;
    }
    return content;
}

bool visitFields(std::string_view text, const VisitField& visit) {
    if (text.empty() || (text.front() != '>' && text.front() != '<')) return false;
    text.remove_prefix(1);
    while (!text.empty()) {
        if (text.front() != '\t' || text.size() < 2) return false;
        const auto end = text.find('\t', 1);
        const auto field = text.substr(1, end == std::string_view::npos ? end : end - 1);
        if (field.empty()) return false;
        visit(static_cast<FieldKind>(field.front()), field.substr(1));
        text.remove_prefix(end == std::string_view::npos ? text.size() : end);
    }
    return true;
}

std::optional<Line> readLine(std::string_view text) {
    Line line{text.empty() ? '\0' : text.front(), {}};
    const bool isLine = visitFields(text, [&](FieldKind kind, std::string_view escaped) {
        line.fields.push_back({kind, unescaped(escaped)});
    });
    return isLine ? std::optional(std::move(line)) : std::nullopt;
}

std::string bytesOfDigits(std::string_view digits) {
    std::string content;
    for (std::size_t at = 0; at + 1 < digits.size(); at += 2)
        content += static_cast<char>(valueOfDigit(digits[at]) * 16 + valueOfDigit(digits[at + 1]));
    return content;
}

}  // namespace platform::recorded
