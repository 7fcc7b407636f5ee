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

}  // namespace

void appendEscaped(std::string& text, std::string_view content) {
    // Without a branch for each byte: nearly all of them are plain.
    unsigned odd = 0;
    for (const char each : content) {
        const auto byte = static_cast<unsigned char>(each);
        odd |= static_cast<unsigned>(byte < 0x20) | static_cast<unsigned>(byte >= 0x7f) |
               static_cast<unsigned>(byte == '\\');
    }
    if (odd == 0) {
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

Fields& Fields::add(FieldKind kind, std::string_view content) {
    text_ += '\t';
    text_ += static_cast<char>(kind);
    appendEscaped(text_, content);
    return *this;
}

Fields& Fields::bytes(std::string_view content) {
    text_ += '\t';
    text_ += static_cast<char>(FieldKind::bytes);
    const auto begin = text_.size();
    text_.resize(begin + content.size() * 2);
    auto* to = text_.data() + begin;
    for (const char each : content) {
        const auto byte = static_cast<unsigned char>(each);
        *to++ = hexadecimalDigits[byte >> 4U];
        *to++ = hexadecimalDigits[byte & 0xfU];
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

std::optional<Line> readLine(std::string_view text) {
    if (text.empty() || std::string_view("><=.").find(text.front()) == std::string_view::npos)
        return std::nullopt;
    Line line{text.front(), {}};
    text.remove_prefix(1);
    while (!text.empty()) {
        if (text.front() != '\t' || text.size() < 2) return std::nullopt;
        const auto end = text.find('\t', 1);
        const auto field = text.substr(1, end == std::string_view::npos ? end : end - 1);
        if (field.empty()) return std::nullopt;
        line.fields.push_back({static_cast<FieldKind>(field.front()), unescaped(field.substr(1))});
        text.remove_prefix(end == std::string_view::npos ? text.size() : end);
    }
    return line;
}

std::string bytesOfDigits(std::string_view digits) {
    std::string content;
    for (std::size_t at = 0; at + 1 < digits.size(); at += 2)
        content += static_cast<char>(valueOfDigit(digits[at]) * 16 + valueOfDigit(digits[at + 1]));
    return content;
}

}  // namespace platform::recorded
